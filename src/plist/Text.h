#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "support/Expected.h"

// Text rules shared by the property-list readers and writers (internal to kestrin_plist).
namespace kestrin::plist::text {

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF. NUL is allowed
// here; property lists refuse it separately.
bool isValidUtf8(std::string_view text);

// What a property list can hold as a string or key: valid UTF-8 without NUL, since neither
// format can carry anything else so that every reader gets it back (XML has no NUL character,
// not even as a reference, and binary strings are ASCII or UTF-16). `what` names the value in
// the error ("string", "key").
Expected<void> checkStorable(std::string_view text, std::string_view what);

void appendUtf8(std::string& out, char32_t code);

} // namespace kestrin::plist::text
