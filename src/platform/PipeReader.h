#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/FileDescriptor.h"

namespace kestrin::platform {

using Bytes = std::vector<std::uint8_t>;

struct DrainedOutput {
  Bytes standardOutput;
  Bytes standardError;
};

// Reads both pipes until each reports end of file, whichever has data first, so a child that
// fills one pipe while the agent waits on the other can never deadlock. Either descriptor may
// be invalid (that stream is then left empty). Read errors other than EINTR end that stream.
// When `stop` (a descriptor, -1 for none) becomes readable, reading ends with what it has.
DrainedOutput drainToEnd(FileDescriptor standardOutput, FileDescriptor standardError,
                         int stop = -1);

// Reads one pipe chunk by chunk on one thread while another thread may stop it at any time:
// interrupt() wakes a blocked next() without closing the descriptor under it (closing a
// descriptor that another thread is reading from could end up reading someone else's file).
class PipeReader {
public:
  // Throws std::system_error when no descriptor is left for the wake-up channel.
  explicit PipeReader(FileDescriptor pipe);
  ~PipeReader();
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;

  // The next chunk as soon as any bytes are available (never empty), or std::nullopt at end of
  // file, on a read error, or once interrupted. Single reader thread only.
  std::optional<Bytes> next();
  // Makes the current and every later next() answer std::nullopt. Any thread, any number of
  // times.
  void interrupt();

private:
  FileDescriptor pipe_;
  FileDescriptor wakeup_; // an eventfd: readable once interrupted
};

} // namespace kestrin::platform
