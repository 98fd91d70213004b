#pragma once

#include <string_view>

#include "plist/ReadLimits.h"
#include "plist/Value.h"

namespace kestrin::fuzz {

// What the targets read with: the default depth, but budgets small enough that an input which
// expands as far as they allow still runs in a millisecond or two, and which the fuzzer can reach.
inline constexpr plist::ReadLimits kFuzzLimits{.maxBytes = std::size_t{1} << 16,
                                               .maxNodes = std::size_t{1} << 12};

// Equal as a round trip must keep values: the same kinds, dictionary keys in the same order,
// reals bit for bit (any NaN matches any NaN: XML writes them all as "nan"), dates by value (the
// wire carries NaN dates too).
bool sameValue(const plist::Value& a, const plist::Value& b);

// Aborts, so that libFuzzer records the input, saying what went wrong.
[[noreturn]] void fail(std::string_view what, std::string_view detail);
void requireSame(const plist::Value& before, const plist::Value& after, std::string_view what);

// Writes the value as XML and as binary and reads both back: each must give the same value.
// `mustWrite`: a value a property-list reader accepted must be writable; one from elsewhere
// (JSON, the wire) may be refused by the writers, but what they write must read back.
void checkPropertyListRoundTrip(const plist::Value& value, bool mustWrite);

} // namespace kestrin::fuzz
