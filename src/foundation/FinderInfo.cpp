#include "foundation/FinderInfo.h"

#include <algorithm>

#include <sys/xattr.h>

#include "support/Syscall.h"

namespace kestrin {

namespace {
constexpr std::size_t kFlagsOffset = 8;
} // namespace

std::optional<FinderInfo> FinderInfo::decode(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kSize) {
    return std::nullopt;
  }
  FinderInfo info;
  std::copy(bytes.begin(), bytes.end(), info.bytes_.begin());
  return info;
}

std::uint16_t FinderInfo::flags() const {
  return static_cast<std::uint16_t>(bytes_[kFlagsOffset] << 8 | bytes_[kFlagsOffset + 1]);
}

void FinderInfo::setFlags(std::uint16_t flags) {
  bytes_[kFlagsOffset] = static_cast<std::uint8_t>(flags >> 8);
  bytes_[kFlagsOffset + 1] = static_cast<std::uint8_t>(flags & 0xFF);
}

std::uint32_t FinderInfo::fileType() const {
  return static_cast<std::uint32_t>(bytes_[0]) << 24 | static_cast<std::uint32_t>(bytes_[1]) << 16 |
         static_cast<std::uint32_t>(bytes_[2]) << 8 | bytes_[3];
}

void FinderInfo::setFileType(std::uint32_t type) {
  for (int i = 0; i < 4; ++i) {
    bytes_[i] = static_cast<std::uint8_t>(type >> (24 - 8 * i));
  }
}

Expected<FinderInfo> FinderInfo::read(const std::string& path) {
  // One byte more than needed, so that an oversized value shows as such rather than as ERANGE.
  std::array<std::uint8_t, kSize + 1> buffer{};
  ssize_t got = ::getxattr(path.c_str(), kAttributeName, buffer.data(), buffer.size());
  if (got < 0) {
    if (errno == ENODATA || errno == ENOTSUP || errno == ERANGE) {
      return FinderInfo();
    }
    return Failure{errnoMessage(path)};
  }
  return decode(std::span(buffer.data(), static_cast<std::size_t>(got))).value_or(FinderInfo());
}

Expected<void> FinderInfo::write(const std::string& path) const {
  if (::setxattr(path.c_str(), kAttributeName, bytes_.data(), bytes_.size(), 0) != 0) {
    return Failure{errnoMessage(path)};
  }
  return {};
}

} // namespace kestrin
