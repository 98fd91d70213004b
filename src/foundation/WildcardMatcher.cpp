#include "foundation/WildcardMatcher.h"

namespace kestrin {

namespace {

// Length of the character at `at`: a well-formed UTF-8 sequence, or one byte.
std::size_t characterLength(std::string_view text, std::size_t at) {
  auto lead = static_cast<unsigned char>(text[at]);
  std::size_t length = lead < 0x80                           ? 1
                       : (lead >> 5) == 0x6 && lead >= 0xC2  ? 2
                       : (lead >> 4) == 0xE                  ? 3
                       : (lead >> 3) == 0x1E && lead <= 0xF4 ? 4
                                                             : 1;
  if (length == 1 || at + length > text.size()) {
    return 1;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if ((static_cast<unsigned char>(text[at + k]) & 0xC0) != 0x80) {
      return 1;
    }
  }
  return length;
}

} // namespace

WildcardMatcher::WildcardMatcher(std::string_view pattern) {
  for (char c : pattern) {
    if (c == '*' && !pattern_.empty() && pattern_.back() == '*') {
      continue;
    }
    pattern_ += c;
    if (c != '*') {
      ++leastLength_;
    }
  }
}

bool WildcardMatcher::matches(std::string_view name) const {
  // A "?" stands for at least one byte, so this also rejects names shorter than the pattern's
  // plain characters: a long hostile pattern costs nothing against the names it cannot match.
  if (name.size() < leastLength_) {
    return false;
  }
  const std::string_view pattern = pattern_;
  std::size_t p = 0, n = 0;
  std::size_t starP = std::string_view::npos, starN = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starP = p++;
      starN = n;
      continue;
    }
    if (p < pattern.size() && pattern[p] == '?') {
      ++p;
      n += characterLength(name, n);
      continue;
    }
    if (p < pattern.size()) {
      std::size_t length = characterLength(pattern, p);
      if (name.compare(n, length, pattern.substr(p, length)) == 0) {
        p += length;
        n += length;
        continue;
      }
    }
    if (starP == std::string_view::npos) {
      return false;
    }
    // Let the last star swallow one more character and try the rest again from there.
    p = starP + 1;
    starN += characterLength(name, starN);
    n = starN;
  }
  while (p < pattern.size() && pattern[p] == '*') {
    ++p;
  }
  return p == pattern.size();
}

} // namespace kestrin
