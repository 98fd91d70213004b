#pragma once

#include <atomic>
#include <filesystem>

#include "support/Expected.h"

namespace kestrin::ditto {

// Writes `source` (a folder, a file or a link) into the zip archive `archive`, deflated.
//
// Entry names are relative to the source folder, or start with the source folder's own name
// when `keepParent` is true; a source that is no folder is stored under its own name. Links are
// stored as links, never followed; permission bits and modification times travel with each
// entry; devices, FIFOs and sockets are left out with a warning on standard error. Non-ASCII
// names are stored as UTF-8 and flagged so when the locale's character set is UTF-8.
//
// The archive is written under a hidden name in its folder and renamed into place at the end:
// an existing archive is replaced whole, and a failure leaves no half archive behind. When
// `stop` becomes true the run ends as a failure at the next block.
Expected<void> writeZipArchive(const std::filesystem::path& source,
                               const std::filesystem::path& archive, bool keepParent,
                               const std::atomic<bool>* stop = nullptr);

} // namespace kestrin::ditto
