#include "platform/AtomicFile.h"

#include <string>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::platform {

namespace {

// Makes a rename inside `folder` last through a crash. Best effort: the new file is in place
// whatever happens here, and some file systems refuse to flush a folder.
void flushFolder(const std::filesystem::path& folder) {
  const std::string name = folder.empty() ? std::string(".") : folder.string();
  FileDescriptor fd(
      retryOnEintr([&] { return ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (fd) {
    ::fsync(fd.get());
  }
}

} // namespace

Expected<void> writeAll(int fd, std::span<const std::uint8_t> bytes, const std::string& what) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n =
        retryOnEintr([&] { return ::write(fd, bytes.data() + written, bytes.size() - written); });
    if (n < 0) {
      return Failure{errnoMessage("cannot write " + what)};
    }
    if (n == 0) {
      // A write of nothing sets no errno; say so rather than repeat an older error.
      return Failure{"cannot write " + what + ": nothing was written"};
    }
    written += static_cast<std::size_t>(n);
  }
  return {};
}

Expected<void> writeFileAtomically(const std::filesystem::path& path,
                                   std::span<const std::uint8_t> bytes, mode_t mode) {
  std::string temp = path.string() + ".XXXXXX";
  // mkostemp opens with O_CREAT | O_EXCL: a name that already exists, a planted link included,
  // is never opened, so the bytes cannot be sent elsewhere.
  FileDescriptor fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (!fd) {
    return Failure{errnoMessage("cannot create a temporary file beside " + path.string())};
  }
  auto fail = [&](Failure failure) {
    fd.reset();
    ::unlink(temp.c_str());
    return failure;
  };
  if (::fchmod(fd.get(), mode) != 0) {
    return fail(Failure{errnoMessage("cannot set the mode of " + temp)});
  }
  if (auto written = writeAll(fd.get(), bytes, temp); !written) {
    return fail(written.failure());
  }
  if (::fsync(fd.get()) != 0) {
    return fail(Failure{errnoMessage("cannot flush " + temp)});
  }
  // A failed close can be a failed write on some file systems: the temporary is not trusted.
  if (::close(fd.release()) != 0) {
    return fail(Failure{errnoMessage("cannot close " + temp)});
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    return fail(Failure{errnoMessage("cannot replace " + path.string())});
  }
  flushFolder(path.parent_path());
  return {};
}

Expected<void> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                                   mode_t mode) {
  return writeFileAtomically(
      path, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, mode);
}

} // namespace kestrin::platform
