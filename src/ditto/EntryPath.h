#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "support/Expected.h"

namespace kestrin::ditto {

// The components of an archive entry's name, with empty and "." components dropped, or why the
// name is refused: it has no name at all, it is absolute, a component is "..", or a component
// is longer than a file name may be. No components means the entry names the archive's root.
Expected<std::vector<std::string>> entryComponents(std::string_view name);

// Whether a symbolic link that lies in `linkFolder` (components below `root`) and points at
// `target` leads to a place under `root`. Links met on the way are followed as they stand on
// disk under `root` when this is called, so a chain of links that each look harmless is judged
// by where it really leads. An absolute target, a climb above `root`, more than 40 links in a
// row, or a component that cannot be examined answer false.
bool linkStaysInside(const std::filesystem::path& root, std::vector<std::string> linkFolder,
                     std::string_view target);

// Components joined with "/".
std::string joinComponents(const std::vector<std::string>& components);

// A name for messages: in double quotes, control characters and quotes shown as \xNN, so that
// a hostile name cannot forge lines in whatever log reads our standard error.
std::string quotedName(std::string_view name);

} // namespace kestrin::ditto
