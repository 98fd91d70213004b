#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// The files that set-up trusts and installs as root. A file that anyone but root could change
// (or swap, through a folder above it) could give that user root's rights, so nothing here
// follows a symbolic link and nothing is trusted that is not root's all the way up.

// Why `path` could be changed by someone other than root, or nullopt when it and every folder
// above it are owned by root, writable by nobody else and not symbolic links. `path` must be
// absolute, without "." or ".." components.
std::optional<std::string> whyNotRootOwned(const std::filesystem::path& path);

// Makes `folder` and the folders missing above it, with mode 0755, then checks it as above.
Expected<void> makeRootFolder(const std::filesystem::path& folder);

// The bytes of a regular file that whyNotRootOwned accepts, read through a descriptor opened
// without following a link and checked again; files longer than `limit` are refused.
Expected<plist::Data> readRootFile(const std::filesystem::path& path, std::size_t limit);

// Puts `bytes` at `path` as a new file owned by root with permission bits `mode`: created
// exclusively beside the target (never through a link or over a file someone placed there),
// given its owner and then its mode on the open descriptor once the content is complete (so a
// set-user-id bit is never on a partial file), flushed, and renamed over the target (a link
// there is replaced, not followed). On failure nothing is left behind and the target is
// untouched.
Expected<void> installRootFile(const std::filesystem::path& path,
                               std::span<const std::uint8_t> bytes, mode_t mode);

} // namespace kestrin::platform
