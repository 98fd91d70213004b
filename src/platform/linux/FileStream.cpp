#include "platform/FileStream.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::platform {

namespace {

class DescriptorStream final : public FileStream {
public:
  explicit DescriptorStream(FileDescriptor fd) : fd_(std::move(fd)) {}

  Transfer read(std::span<std::uint8_t> into) override {
    Transfer done;
    while (done.bytes < into.size()) {
      ssize_t n = ::read(fd_.get(), into.data() + done.bytes, into.size() - done.bytes);
      if (n > 0) {
        done.bytes += static_cast<std::size_t>(n);
      } else if (n == 0) {
        break;
      } else if (errno != EINTR) {
        done.error = errno;
        break;
      }
    }
    return done;
  }

  Transfer writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) override {
    Transfer done;
    while (done.bytes < bytes.size()) {
      ssize_t n = ::pwrite(fd_.get(), bytes.data() + done.bytes, bytes.size() - done.bytes,
                           static_cast<off_t>(offset + done.bytes));
      if (n > 0) {
        done.bytes += static_cast<std::size_t>(n);
      } else if (n == 0) {
        done.error = ENOSPC; // nothing taken and no reason given: the disk has no room
        break;
      } else if (errno != EINTR) {
        done.error = errno;
        break;
      }
    }
    return done;
  }

  Transfer readAt(std::uint64_t offset, std::span<std::uint8_t> into) override {
    Transfer done;
    while (done.bytes < into.size()) {
      ssize_t n = ::pread(fd_.get(), into.data() + done.bytes, into.size() - done.bytes,
                          static_cast<off_t>(offset + done.bytes));
      if (n > 0) {
        done.bytes += static_cast<std::size_t>(n);
      } else if (n == 0) {
        break;
      } else if (errno != EINTR) {
        done.error = errno;
        break;
      }
    }
    return done;
  }

  int truncate() override {
    return retryOnEintr([&] { return ::ftruncate(fd_.get(), 0); }) == 0 ? 0 : errno;
  }

  std::optional<StreamStatus> status() const override {
    struct stat status {};
    if (::fstat(fd_.get(), &status) != 0) {
      return std::nullopt;
    }
    return StreamStatus{status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size)};
  }

private:
  FileDescriptor fd_;
};

// Opens without waiting (a pipe with no writer would block the open itself), then keeps the
// descriptor only for a regular file.
FileDescriptor openRegular(const std::string& path, int flags) {
  FileDescriptor fd(retryOnEintr(
      [&] { return ::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666); }));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return {};
  }
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  return fd;
}

std::unique_ptr<FileStream> streamOf(FileDescriptor fd) {
  return fd ? std::make_unique<DescriptorStream>(std::move(fd)) : nullptr;
}

class SystemStreams final : public FileStreams {
public:
  std::unique_ptr<FileStream> openForReading(const std::string& path) override {
    FileDescriptor fd = openRegular(path, O_RDONLY);
    if (fd) {
      // Read once from start to end: the kernel may read ahead generously.
      ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    return streamOf(std::move(fd));
  }
  std::unique_ptr<FileStream> openForUpdate(const std::string& path) override {
    return streamOf(openRegular(path, O_RDWR | O_CREAT | O_NOFOLLOW));
  }
  std::unique_ptr<FileStream> createForUpdate(const std::string& path) override {
    return streamOf(openRegular(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW));
  }
};

} // namespace

FileStreams& FileStreams::system() {
  static SystemStreams streams;
  return streams;
}

} // namespace kestrin::platform
