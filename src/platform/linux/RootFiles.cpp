#include "platform/RootFiles.h"

#include <cerrno>
#include <random>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/AtomicFile.h"
#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::platform {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> whyNotRootOwned(const std::string& path, const struct stat& status) {
  if (S_ISLNK(status.st_mode)) {
    return path + " is a symbolic link";
  }
  if (status.st_uid != 0) {
    return fmt::format("{} belongs to user {}, not to root", path, status.st_uid);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return path + " may be changed by users other than root";
  }
  return std::nullopt;
}

} // namespace

std::optional<std::string> whyNotRootOwned(const fs::path& path) {
  if (!path.is_absolute()) {
    return path.string() + " is not an absolute path";
  }
  fs::path current = path.root_path();
  auto check = [](const fs::path& each) -> std::optional<std::string> {
    struct stat status {};
    if (::lstat(each.c_str(), &status) != 0) {
      return errnoMessage("cannot examine " + each.string());
    }
    return whyNotRootOwned(each.string(), status);
  };
  if (auto why = check(current)) {
    return why;
  }
  for (const fs::path& component : path.relative_path()) {
    if (component.empty()) {
      continue; // a trailing slash
    }
    if (component == "." || component == "..") {
      return path.string() + " is not a plain absolute path";
    }
    current /= component;
    if (auto why = check(current)) {
      return why;
    }
  }
  return std::nullopt;
}

Expected<void> makeRootFolder(const fs::path& folder) {
  fs::path current = folder.root_path();
  for (const fs::path& component : folder.relative_path()) {
    if (component.empty()) {
      continue;
    }
    current /= component;
    // mkdir never follows a link in the last place; a link found there is refused below.
    if (::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST) {
      return Failure{errnoMessage("cannot create " + current.string())};
    }
  }
  if (auto why = whyNotRootOwned(folder)) {
    return Failure{*why};
  }
  return {};
}

Expected<plist::Data> readRootFile(const fs::path& path, std::size_t limit) {
  if (auto why = whyNotRootOwned(path)) {
    return Failure{*why};
  }
  FileDescriptor fd(
      retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return Failure{errnoMessage("cannot open " + path.string())};
  }
  // The file opened is the file checked: its owner and mode again, on the descriptor.
  if (auto why = whyNotRootOwned(path.string(), status)) {
    return Failure{*why};
  }
  if (!S_ISREG(status.st_mode)) {
    return Failure{path.string() + " is not a regular file"};
  }
  if (static_cast<std::uintmax_t>(status.st_size) > limit) {
    return Failure{fmt::format("{} is larger than {} bytes", path.string(), limit)};
  }
  plist::Data bytes(limit + 1);
  std::size_t got = 0;
  for (;;) {
    ssize_t n =
        retryOnEintr([&] { return ::read(fd.get(), bytes.data() + got, bytes.size() - got); });
    if (n < 0) {
      return Failure{errnoMessage("cannot read " + path.string())};
    }
    if (n == 0 || (got += static_cast<std::size_t>(n)) == bytes.size()) {
      break;
    }
  }
  if (got > limit) {
    return Failure{fmt::format("{} is larger than {} bytes", path.string(), limit)};
  }
  bytes.resize(got);
  return bytes;
}

Expected<void> installRootFile(const fs::path& path, std::span<const std::uint8_t> bytes,
                               mode_t mode) {
  const fs::path folderPath = path.parent_path();
  const std::string name = path.filename().string();
  FileDescriptor folder(retryOnEintr(
      [&] { return ::open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!folder) {
    return Failure{errnoMessage("cannot open " + folderPath.string())};
  }
  std::random_device random;
  std::string temporary;
  FileDescriptor fd;
  for (int attempt = 0; attempt < 16 && !fd; ++attempt) {
    temporary = fmt::format(".{}.{:08x}", name, random());
    fd.reset(retryOnEintr([&] {
      return ::openat(folder.get(), temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!fd && errno != EEXIST) {
      break;
    }
  }
  if (!fd) {
    return Failure{errnoMessage("cannot create a new file beside " + path.string())};
  }
  auto fail = [&](const std::string& what) {
    Failure failure{errnoMessage(what)};
    fd.reset();
    ::unlinkat(folder.get(), temporary.c_str(), 0);
    return failure;
  };
  if (auto written = writeAll(fd.get(), bytes, path.string()); !written) {
    fd.reset();
    ::unlinkat(folder.get(), temporary.c_str(), 0);
    return written.failure();
  }
  // Owner first: changing the owner clears set-user-id bits, so the mode comes last.
  if (::fchown(fd.get(), 0, 0) != 0) {
    return fail("cannot give " + path.string() + " to root");
  }
  if (::fchmod(fd.get(), mode) != 0) {
    return fail("cannot set the mode of " + path.string());
  }
  if (::fsync(fd.get()) != 0) {
    return fail("cannot flush " + path.string());
  }
  if (::close(fd.release()) != 0) {
    return fail("cannot close " + path.string());
  }
  if (::renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) != 0) {
    return fail("cannot put " + path.string() + " in place");
  }
  ::fsync(folder.get());
  return {};
}

} // namespace kestrin::platform
