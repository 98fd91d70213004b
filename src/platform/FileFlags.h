#pragma once

#include <optional>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// What a file system records about a file beyond its ordinary status: the locked (immutable)
// flag and the date of birth.
//
// Only regular files and folders carry the flag here. A link carries none (the flag could only
// be reached by following it), and device files are never opened to ask. A file system that
// keeps no flags reports every file unlocked. Failures carry the reason only, not the path.
class FileFlags {
public:
  // Whether the file at path (not followed when it is a link) is locked.
  static Expected<bool> isImmutable(const std::string& path);
  // Locks or unlocks it. Asking for the state the file is already in succeeds without changing
  // anything, so unlocking what nobody locked needs no rights; changing the flag needs root.
  static Expected<void> setImmutable(const std::string& path, bool immutable);

  // When the file (not followed when it is a link) was born, where the file system records it,
  // else when it was last modified; nullopt when it cannot be examined.
  static std::optional<plist::Date> creationDate(const std::string& path);
};

} // namespace kestrin::platform
