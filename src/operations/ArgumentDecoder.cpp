#include "operations/ArgumentDecoder.h"

#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

// "a string", "an array", "null", "data": how an error text names a value's kind.
std::string withArticle(std::string_view kind) {
  if (kind == "null" || kind == "data") {
    return std::string(kind);
  }
  bool vowel =
      !kind.empty() && std::string_view("aeiou").find(kind.front()) != std::string_view::npos;
  return fmt::format("{} {}", vowel ? "an" : "a", kind);
}

bool isNumber(const plist::Value& v) {
  return v.kind() == plist::Kind::Integer || v.kind() == plist::Kind::Real ||
         v.kind() == plist::Kind::Boolean;
}

} // namespace

void throwWrongKind(const ArgumentPosition& where, std::string_view expected,
                    const plist::Value& value) {
  throw ArgumentError(fmt::format("argument {} of {} must be {}, not {}", where.index + 1,
                                  where.selector, expected,
                                  withArticle(plist::kindName(value.kind()))));
}

std::int64_t ArgumentDecoder<std::int64_t>::decode(const plist::Value& v,
                                                   const ArgumentPosition& where) {
  if (auto i = v.asInteger()) {
    return *i;
  }
  if (auto d = v.asReal()) {
    // Out-of-range and NaN conversions are undefined: a caller's 1e300 saturates instead.
    if (std::isnan(*d)) {
      return 0;
    }
    if (*d >= 9223372036854775807.0) {
      return std::numeric_limits<std::int64_t>::max();
    }
    if (*d <= -9223372036854775808.0) {
      return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(*d);
  }
  if (auto b = v.asBool()) {
    return *b ? 1 : 0;
  }
  throwWrongKind(where, kind, v);
}

double ArgumentDecoder<double>::decode(const plist::Value& v, const ArgumentPosition& where) {
  if (isNumber(v)) {
    return *v.numberValue();
  }
  throwWrongKind(where, kind, v);
}

bool ArgumentDecoder<bool>::decode(const plist::Value& v, const ArgumentPosition& where) {
  if (isNumber(v)) {
    return *v.boolValue();
  }
  throwWrongKind(where, kind, v);
}

} // namespace kestrin::operations
