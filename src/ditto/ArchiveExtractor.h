#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

#include "support/Expected.h"

namespace kestrin::ditto {

// What one extraction may take. Headers lie, so bytes are counted as they are really written.
struct ExtractionLimits {
  // Entries of every kind, counted as they are read.
  std::uint64_t maxEntries = 100'000;
  // Bytes of file data written, over all entries.
  std::uint64_t maxBytes = std::uint64_t{64} << 30;
};

// Extracts a zip archive into `destination`, which may exist (a folder: the archive's entries
// are merged into it) or not (it is created, with any missing parent folders).
//
// Everything lands in a hidden folder beside or inside the destination first and is moved into
// place only once the whole archive is out, so a failure leaves nothing under the destination's
// name and the destination as it was. Refused, each with a message naming the entry: absolute
// names, "..", symbolic links that lead outside the destination (judged again once every link
// is out, so chains cannot sneak past), anything written through a link, hard links, devices,
// FIFOs and sockets, more entries or more bytes than `limits` allow, and an archive with
// nothing in it. Permission bits and modification times are kept; set-id and sticky bits and
// owners are not. Entries under "__MACOSX/", where a Mac keeps resource forks, are skipped.
//
// When `stop` becomes true the extraction ends as a failure at the next block. Never changes
// the working directory, so it may run on any thread; two extractions into one destination at
// once are not supported.
Expected<void> extractZipArchive(const std::filesystem::path& archive,
                                 const std::filesystem::path& destination,
                                 const ExtractionLimits& limits = {},
                                 const std::atomic<bool>* stop = nullptr);

// The same from bytes in memory (a fuzzer's input, an archive that arrived over the wire).
Expected<void> extractZipArchive(std::span<const std::byte> archive,
                                 const std::filesystem::path& destination,
                                 const ExtractionLimits& limits = {},
                                 const std::atomic<bool>* stop = nullptr);

} // namespace kestrin::ditto
