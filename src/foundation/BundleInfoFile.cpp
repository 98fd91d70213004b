#include "foundation/BundleInfoFile.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "plist/PropertyList.h"
#include "support/Syscall.h"

namespace kestrin {

Expected<plist::Data> readSmallFile(const std::string& path, std::size_t limit) {
  // Non-blocking, so that opening a pipe does not wait for a writer.
  platform::FileDescriptor file(retryOnEintr(
      [&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    return Failure{path + ": " + std::strerror(errno)};
  }
  if (!S_ISREG(status.st_mode)) {
    return Failure{path + ": not a regular file"};
  }
  if (static_cast<std::uint64_t>(status.st_size) > limit) {
    return Failure{path + ": larger than " + std::to_string(limit) + " bytes"};
  }
  // One byte more than the limit allows, so that a file that grew meanwhile shows as such.
  plist::Data bytes(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n =
        retryOnEintr([&] { return ::read(file.get(), bytes.data() + got, bytes.size() - got); });
    if (n < 0) {
      return Failure{path + ": " + std::strerror(errno)};
    }
    if (n == 0) {
      break;
    }
    got += static_cast<std::size_t>(n);
  }
  if (got > limit) {
    return Failure{path + ": larger than " + std::to_string(limit) + " bytes"};
  }
  bytes.resize(got);
  return bytes;
}

std::optional<plist::Dictionary> readBundleInfo(const std::string& infoPlistPath) {
  auto bytes = readSmallFile(infoPlistPath, kBundleInfoLimit);
  if (!bytes) {
    return std::nullopt;
  }
  auto value = plist::parse(*bytes);
  if (!value || !value->asDictionary()) {
    return std::nullopt;
  }
  return std::move(*value->asDictionary());
}

std::optional<std::string> stringMember(const plist::Dictionary& dictionary, std::string_view key) {
  const plist::Value* value = dictionary.find(key);
  const std::string* text = value ? value->asString() : nullptr;
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

} // namespace kestrin
