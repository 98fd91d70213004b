#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace kestrin {

// What a copy carries over from its source once the bytes are in: the permission bits (without
// the set-id bits, so a copy never grants more than its owner had), the access and modification
// dates, the owner and group when the process is root (nobody else may give a file away), and
// the user's extended attributes (the Finder information and label among them). Links named as
// the path are followed, as the copy's own streams follow them.
class FileAttributes {
public:
  // Nullopt when the file cannot be examined.
  static std::optional<FileAttributes> read(const std::string& path);
  // False when the mode, the owner or the dates could not be set; extended attributes are best
  // effort, since not every file system keeps them.
  bool applyTo(const std::string& path) const;

private:
  struct stat status_ {};
  std::vector<std::pair<std::string, std::string>> userAttributes_;
};

} // namespace kestrin
