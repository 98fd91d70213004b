#include "plist/PropertyList.h"

#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/AtomicFile.h"
#include "support/Syscall.h"

namespace kestrin::plist {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

bool looksBinary(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= kBinaryMagic.size() &&
         std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) == 0;
}

// The whole of a regular file, refused unread when larger than maxBytes. Opened without
// blocking, so that a FIFO put in a file's place cannot hold the reader.
Expected<std::string> readBounded(const std::filesystem::path& path, std::size_t maxBytes) {
  int fd = retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); });
  if (fd < 0) {
    return Failure{errnoMessage("cannot open " + path.string())};
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    return Failure{errnoMessage("cannot read " + path.string())};
  }
  if (!S_ISREG(info.st_mode)) {
    return Failure{path.string() + " is not a regular file"};
  }
  auto tooLarge = [&] {
    return Failure{
        fmt::format("{} is larger than the {} bytes a read may take", path.string(), maxBytes)};
  };
  if (static_cast<std::uint64_t>(info.st_size) > maxBytes) {
    return tooLarge();
  }
  std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t filled = 0;
  for (;;) {
    if (filled == bytes.size()) {
      // The file may have grown since fstat: look for more, up to the limit.
      if (bytes.size() > maxBytes) {
        return tooLarge();
      }
      bytes.resize(std::min(maxBytes + 1, std::max<std::size_t>(bytes.size() * 2, 4096)));
    }
    ssize_t n =
        retryOnEintr([&] { return ::read(fd, bytes.data() + filled, bytes.size() - filled); });
    if (n < 0) {
      return Failure{errnoMessage("cannot read " + path.string())};
    }
    if (n == 0) {
      break;
    }
    filled += static_cast<std::size_t>(n);
  }
  bytes.resize(filled);
  return bytes;
}

} // namespace

Expected<Value> parse(std::span<const std::uint8_t> bytes, const ReadLimits& limits) {
  if (looksBinary(bytes)) {
    return parseBinary(bytes, limits);
  }
  return parseXml(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                  limits);
}

Expected<Value> parse(std::string_view text, const ReadLimits& limits) {
  return parse(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), limits);
}

Expected<Value> readFile(const std::filesystem::path& path, const ReadLimits& limits) {
  auto bytes = readBounded(path, limits.maxBytes);
  if (!bytes) {
    return bytes.failure();
  }
  auto value = parse(std::string_view(*bytes), limits);
  if (!value) {
    return Failure{path.string() + ": " + value.message()};
  }
  return value;
}

Expected<void> writeFile(const std::filesystem::path& path, const Value& value, Format format) {
  // Settings files are read by the user's other tools too.
  constexpr mode_t kMode = 0644;
  if (format == Format::Xml) {
    auto xml = toXml(value);
    if (!xml) {
      return xml.failure();
    }
    return platform::writeFileAtomically(path, *xml, kMode);
  }
  auto bin = toBinary(value);
  if (!bin) {
    return bin.failure();
  }
  return platform::writeFileAtomically(path, *bin, kMode);
}

} // namespace kestrin::plist
