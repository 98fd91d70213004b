#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

#include <sys/types.h>

#include "support/Expected.h"

namespace kestrin::platform {

// Replaces the file at `path` with one holding `bytes` and permission bits `mode` (the umask
// plays no part), so that a reader sees the old file or the new one, never part of either, and
// a crash leaves one of the two on disk. The bytes go to a new temporary file beside the target,
// created exclusively (never through a link someone put in its place), written whole, flushed to
// disk and renamed over the target; the folder is then flushed so the rename lasts too. A link
// at `path` is replaced, not followed. On failure the old file is untouched, no temporary is
// left behind, and the Failure names the step and the system's reason.
//
// Its own small library below the property-list layer, which writes files through it.
Expected<void> writeFileAtomically(const std::filesystem::path& path,
                                   std::span<const std::uint8_t> bytes, mode_t mode);
Expected<void> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                                   mode_t mode);

// Writes all of `bytes` to `fd`, through short writes and interruptions. The Failure names
// `what` (a path) and the reason.
Expected<void> writeAll(int fd, std::span<const std::uint8_t> bytes, const std::string& what);

} // namespace kestrin::platform
