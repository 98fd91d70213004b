#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>

namespace kestrin::platform {

// What one read or write moved, and why it stopped short: the errno of the failure, 0 when
// nothing failed (a read that stops short without a failure met the end of the file).
struct Transfer {
  std::size_t bytes = 0;
  int error = 0;
};

// Which file an open stream is, and how long it was when asked.
struct StreamStatus {
  dev_t device = 0;
  ino_t inode = 0;
  std::uint64_t size = 0;
};

// One open regular file as a copy streams through it: the source is read once from start to
// end; each destination is written at positions the copy chooses and read back at positions
// already written. One thread may write a destination while another reads it back; the
// sequential read is the reading thread's alone.
class FileStream {
public:
  virtual ~FileStream() = default;

  // Fills `into` from where the previous read ended, as stdio's fread does: it comes back short
  // only at the end of the file or on a failure. A read that exactly reaches the end does not
  // know it yet; the next one answers 0 bytes.
  virtual Transfer read(std::span<std::uint8_t> into) = 0;
  // All of `bytes` at `offset`, unless the file system refuses part of it (a full disk).
  virtual Transfer writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) = 0;
  // Fills `into` from `offset`, unless the file ends first.
  virtual Transfer readAt(std::uint64_t offset, std::span<std::uint8_t> into) = 0;
  // Empties the file; answers the errno of a failure, 0 on success.
  virtual int truncate() = 0;
  virtual std::optional<StreamStatus> status() const = 0;
};

// Opens the streams of a copy. Only regular files are opened: a pipe or a device would never
// end or never answer. A source named by a link is read where the link points; a link where a
// destination is named is refused, never written through, so that a copy writes only the files
// it names. Null when the file cannot be opened, with errno saying why.
class FileStreams {
public:
  virtual ~FileStreams() = default;

  virtual std::unique_ptr<FileStream> openForReading(const std::string& path) = 0;
  // For writing and reading back; created (mode 0666 less the umask) when missing, otherwise
  // left as it is until truncate(), so that a caller can first check which file it opened.
  virtual std::unique_ptr<FileStream> openForUpdate(const std::string& path) = 0;
  // The same, but only when nothing is at the path yet.
  virtual std::unique_ptr<FileStream> createForUpdate(const std::string& path) = 0;

  // The machine's own files.
  static FileStreams& system();
};

} // namespace kestrin::platform
