#include "platform/FileFlags.h"

#include <cstring>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::platform {

namespace {

// The flags word of a file that may carry one, or the errno of the failure. A file system
// without flags answers ENOTTY (or EOPNOTSUPP): nothing there is locked.
struct Flags {
  FileDescriptor fd;
  int value = 0;
  bool supported = true;
};

bool unsupported(int error) {
  return error == ENOTTY || error == EOPNOTSUPP || error == EINVAL;
}

Expected<Flags> readFlags(const std::string& path) {
  struct stat before {};
  if (::lstat(path.c_str(), &before) != 0) {
    return Failure{std::strerror(errno)};
  }
  Flags flags;
  if (!S_ISREG(before.st_mode) && !S_ISDIR(before.st_mode)) {
    flags.supported = false; // links and special files carry no flag here
    return flags;
  }
  flags.fd = FileDescriptor(retryOnEintr([&] {
    return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  }));
  struct stat opened {};
  if (!flags.fd.valid() || ::fstat(flags.fd.get(), &opened) != 0) {
    return Failure{std::strerror(errno)};
  }
  if (opened.st_dev != before.st_dev || opened.st_ino != before.st_ino) {
    return Failure{"replaced while being examined"};
  }
  if (::ioctl(flags.fd.get(), FS_IOC_GETFLAGS, &flags.value) != 0) {
    if (!unsupported(errno)) {
      return Failure{std::strerror(errno)};
    }
    flags.supported = false;
  }
  return flags;
}

} // namespace

Expected<bool> FileFlags::isImmutable(const std::string& path) {
  auto flags = readFlags(path);
  if (!flags) {
    return flags.failure();
  }
  return flags->supported && (flags->value & FS_IMMUTABLE_FL) != 0;
}

Expected<void> FileFlags::setImmutable(const std::string& path, bool immutable) {
  auto flags = readFlags(path);
  if (!flags) {
    return flags.failure();
  }
  if (!flags->supported) {
    if (immutable) {
      return Failure{"the file system keeps no locked flag for it"};
    }
    return {};
  }
  if (((flags->value & FS_IMMUTABLE_FL) != 0) == immutable) {
    return {};
  }
  int value = immutable ? (flags->value | FS_IMMUTABLE_FL) : (flags->value & ~FS_IMMUTABLE_FL);
  if (::ioctl(flags->fd.get(), FS_IOC_SETFLAGS, &value) != 0) {
    return Failure{std::strerror(errno)};
  }
  return {};
}

std::optional<plist::Date> FileFlags::creationDate(const std::string& path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &status) !=
      0) {
    return std::nullopt;
  }
  const statx_timestamp& stamp =
      (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_mtime;
  return plist::Date::fromUnix(static_cast<double>(stamp.tv_sec) + stamp.tv_nsec / 1e9);
}

} // namespace kestrin::platform
