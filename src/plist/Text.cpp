#include "plist/Text.h"

#include <cstring>

namespace kestrin::plist::text {

bool isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    // Eight ASCII bytes at a time: most text the agent reads is ASCII.
    if (end - p >= 8) {
      std::uint64_t block;
      std::memcpy(&block, p, 8);
      if ((block & 0x8080808080808080ULL) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int length;
    char32_t min;
    char32_t code;
    if ((c & 0xE0) == 0xC0) {
      length = 2, min = 0x80, code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, min = 0x800, code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4, min = 0x10000, code = c & 0x07;
    } else {
      return false;
    }
    if (end - p < length) {
      return false;
    }
    for (int i = 1; i < length; ++i) {
      if ((p[i] & 0xC0) != 0x80) {
        return false;
      }
      code = (code << 6) | (p[i] & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    p += length;
  }
  return true;
}

Expected<void> checkStorable(std::string_view text, std::string_view what) {
  if (text.find('\0') != std::string_view::npos) {
    return Failure{"a " + std::string(what) +
                   " with a NUL character cannot be stored in a property list"};
  }
  if (!isValidUtf8(text)) {
    return Failure{"a " + std::string(what) +
                   " that is not valid UTF-8 cannot be stored in a property list"};
  }
  return {};
}

void appendUtf8(std::string& out, char32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

} // namespace kestrin::plist::text
