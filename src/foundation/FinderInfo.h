#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "support/Expected.h"

namespace kestrin {

// The 32 bytes of Finder information that the Finder keeps for every file and folder: type and
// creator codes, the Finder-flags word (colour label, bundle bit, invisibility) and positions.
// On this platform they live in the extended attribute "user.com.apple.FinderInfo", in the
// Finder's own big-endian layout, so that copies to and from a Mac keep their labels. Files and
// folders share the offset of the flags word (bytes 8 and 9).
class FinderInfo {
public:
  static constexpr std::size_t kSize = 32;
  static constexpr const char* kAttributeName = "user.com.apple.FinderInfo";

  static constexpr std::uint16_t kColorMask = 0x000E; // the label's bits 1-3
  static constexpr std::uint16_t kHasBundle = 0x2000; // a folder that is a package

  // All zero: what a file without the attribute has.
  FinderInfo() = default;

  // Nullopt unless exactly kSize bytes.
  static std::optional<FinderInfo> decode(std::span<const std::uint8_t> bytes);
  const std::array<std::uint8_t, kSize>& bytes() const { return bytes_; }

  std::uint16_t flags() const;
  void setFlags(std::uint16_t flags);
  // A file's four-character type code ('FCSC' is 0x46435343), bytes 0 to 3.
  std::uint32_t fileType() const;
  void setFileType(std::uint32_t type);

  // The information of the file at path (followed when it is a link); all zero when it has
  // none or a malformed one. A failure only when the file itself cannot be examined.
  static Expected<FinderInfo> read(const std::string& path);
  Expected<void> write(const std::string& path) const;

private:
  std::array<std::uint8_t, kSize> bytes_{};
};

} // namespace kestrin
