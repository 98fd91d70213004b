#include "platform/PipeReader.h"

#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "support/Syscall.h"

namespace kestrin::platform {
namespace {

// One pipe buffer's worth: a read never returns more than the pipe holds.
constexpr std::size_t kChunkSize = 64 * 1024;

// Appends what one read() gives. Answers false at end of file or on a real error.
bool appendAvailable(int fd, Bytes& sink) {
  std::size_t before = sink.size();
  sink.resize(before + kChunkSize);
  ssize_t n = retryOnEintr([&] { return ::read(fd, sink.data() + before, kChunkSize); });
  sink.resize(before + (n > 0 ? static_cast<std::size_t>(n) : 0));
  return n > 0 || (n < 0 && errno == EAGAIN);
}

} // namespace

DrainedOutput drainToEnd(FileDescriptor standardOutput, FileDescriptor standardError, int stop) {
  DrainedOutput result;
  FileDescriptor* pipes[2] = {&standardOutput, &standardError};
  Bytes* sinks[2] = {&result.standardOutput, &result.standardError};
  pollfd polls[3];
  for (int i = 0; i < 2; ++i) {
    // poll() skips entries with a negative descriptor.
    polls[i] = pollfd{pipes[i]->valid() ? pipes[i]->get() : -1, POLLIN, 0};
  }
  polls[2] = pollfd{stop, POLLIN, 0};
  while (polls[0].fd >= 0 || polls[1].fd >= 0) {
    if (retryOnEintr([&] { return ::poll(polls, 3, -1); }) < 0) {
      break;
    }
    if (polls[2].revents != 0) {
      break;
    }
    for (int i = 0; i < 2; ++i) {
      // POLLHUP without POLLIN is end of file; read() says so by answering 0.
      if (polls[i].fd >= 0 && polls[i].revents != 0 && !appendAvailable(polls[i].fd, *sinks[i])) {
        pipes[i]->reset();
        polls[i].fd = -1;
      }
    }
  }
  return result;
}

PipeReader::PipeReader(FileDescriptor pipe)
    : pipe_(std::move(pipe)), wakeup_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeup_) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

PipeReader::~PipeReader() = default;

std::optional<Bytes> PipeReader::next() {
  while (pipe_) {
    pollfd polls[2] = {{pipe_.get(), POLLIN, 0}, {wakeup_.get(), POLLIN, 0}};
    if (retryOnEintr([&] { return ::poll(polls, 2, -1); }) < 0) {
      return std::nullopt;
    }
    if (polls[1].revents != 0) {
      return std::nullopt;
    }
    if (polls[0].revents == 0) {
      continue;
    }
    Bytes chunk;
    if (!appendAvailable(pipe_.get(), chunk)) {
      pipe_.reset();
      return std::nullopt;
    }
    if (!chunk.empty()) {
      return chunk;
    }
  }
  return std::nullopt;
}

void PipeReader::interrupt() {
  std::uint64_t one = 1;
  retryOnEintr([&] { return ::write(wakeup_.get(), &one, sizeof one); });
}

} // namespace kestrin::platform
