#include "FuzzSupport.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "plist/PropertyList.h"

namespace kestrin::fuzz {

bool sameValue(const plist::Value& a, const plist::Value& b) {
  if (a.kind() != b.kind()) {
    return false;
  }
  switch (a.kind()) {
  case plist::Kind::Real: {
    const double x = *a.asReal();
    const double y = *b.asReal();
    return (std::isnan(x) && std::isnan(y)) ||
           std::bit_cast<std::uint64_t>(x) == std::bit_cast<std::uint64_t>(y);
  }
  case plist::Kind::Date: {
    const double x = a.asDate()->seconds;
    const double y = b.asDate()->seconds;
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  case plist::Kind::Array: {
    const plist::Array& x = *a.asArray();
    const plist::Array& y = *b.asArray();
    if (x.size() != y.size()) {
      return false;
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
      if (!sameValue(x[i], y[i])) {
        return false;
      }
    }
    return true;
  }
  case plist::Kind::Dictionary: {
    const plist::Dictionary& x = *a.asDictionary();
    const plist::Dictionary& y = *b.asDictionary();
    if (x.size() != y.size()) {
      return false;
    }
    for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j) {
      if (i->first != j->first || !sameValue(i->second, j->second)) {
        return false;
      }
    }
    return true;
  }
  case plist::Kind::Error: {
    const plist::ErrorRecord& x = *a.asError();
    const plist::ErrorRecord& y = *b.asError();
    return x.domain == y.domain && x.code == y.code &&
           sameValue(plist::Value(x.userInfo), plist::Value(y.userInfo));
  }
  default:
    return a == b;
  }
}

void fail(std::string_view what, std::string_view detail) {
  // Control characters escaped: details hold whatever the input held.
  std::string shown;
  for (char c : detail) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      shown += escape;
    } else {
      shown += c;
    }
  }
  std::fprintf(stderr, "\n%.*s\n%s\n", static_cast<int>(what.size()), what.data(), shown.c_str());
  std::abort();
}

void requireSame(const plist::Value& before, const plist::Value& after, std::string_view what) {
  if (!sameValue(before, after)) {
    fail(what, "before: " + plist::describe(before) + "\nafter:  " + plist::describe(after));
  }
}

void checkPropertyListRoundTrip(const plist::Value& value, bool mustWrite) {
  // The written form may be larger than the input that was read: read it back with the
  // defaults.
  auto xml = plist::toXml(value);
  if (xml) {
    auto back = plist::parseXml(*xml);
    if (!back) {
      fail("XML that was written does not read back: " + back.message(), *xml);
    }
    requireSame(value, *back, "an XML round trip changed the value");
  } else if (mustWrite) {
    fail("a value that was read cannot be written as XML", xml.message());
  }
  auto binary = plist::toBinary(value);
  if (binary) {
    auto back = plist::parseBinary(*binary);
    if (!back) {
      fail("a binary property list that was written does not read back", back.message());
    }
    requireSame(value, *back, "a binary round trip changed the value");
  } else if (mustWrite) {
    fail("a value that was read cannot be written as binary", binary.message());
  }
}

} // namespace kestrin::fuzz
