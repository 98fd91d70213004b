#pragma once

#include <cstddef>
#include <string_view>

namespace kestrin {

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0 when none starts
// there: no overlong forms, no surrogates, nothing past U+10FFFF.
inline std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || text.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  if ((lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) >= 0xA0) ||
      (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) >= 0x90)) {
    return 0;
  }
  return length;
}

inline bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    std::size_t length = utf8SequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

} // namespace kestrin
