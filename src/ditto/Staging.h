#pragma once

#include <filesystem>
#include <string_view>

#include "support/Expected.h"

namespace kestrin::ditto {

// Work in progress lives under a hidden name of its own in the folder of its final place
// (".NAME.ditto-XXXXXX"), so that nothing ever shows under the final name half done and the
// last step is a rename within one file system.

// A new empty folder, made as mkdir makes one (the umask applies).
Expected<std::filesystem::path> createStagingFolder(const std::filesystem::path& folder,
                                                    std::string_view finalName);

// A new empty file opened for writing (close-on-exec), made as open makes one (mode 0666 less
// the umask). The caller closes the descriptor.
struct StagingFile {
  std::filesystem::path path;
  int descriptor = -1;
};
Expected<StagingFile> createStagingFile(const std::filesystem::path& folder,
                                        std::string_view finalName);

// Removes a tree that this program made, links as links, first giving back to itself the
// permission that folders it restored read-only took away. Best effort: what cannot be removed
// stays.
void removeStaged(const std::filesystem::path& path);

} // namespace kestrin::ditto
