#pragma once

#include <utility>

#include <unistd.h>

namespace kestrin::platform {

// Sole owner of one open descriptor; closes it on destruction. Moving transfers ownership.
// -1 means "none", so a default-constructed or moved-from object owns nothing.
class FileDescriptor {
public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { reset(); }

  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives up ownership without closing.
  int release() { return std::exchange(fd_, -1); }

  // Closes the owned descriptor (close is not retried on EINTR: on Linux the descriptor is
  // released even then, and a retry could close a descriptor another thread just opened).
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

private:
  int fd_ = -1;
};

} // namespace kestrin::platform
