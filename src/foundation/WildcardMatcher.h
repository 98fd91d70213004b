#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrin {

// A file-name pattern with shell-style wildcards: "*" matches any run of characters (none
// too), "?" exactly one character; everything else matches itself, case-sensitively. A
// character is a UTF-8 sequence where the bytes form one, otherwise a single byte, so names
// that are not UTF-8 still match byte by byte.
//
// Matching takes time proportional to the pattern's length times the name's at worst, however
// many stars the pattern holds: no backtracking beyond the last star seen.
class WildcardMatcher {
public:
  explicit WildcardMatcher(std::string_view pattern);

  bool matches(std::string_view name) const;

private:
  std::string pattern_;         // runs of "*" collapsed into one
  std::size_t leastLength_ = 0; // bytes a name needs at least: every character but the stars
};

} // namespace kestrin
