#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "plist/ReadLimits.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::admin {

// The admin client's command-line form of property-list values: plain JSON for null, booleans,
// numbers, strings, arrays and objects (dictionaries, keys kept in order), and one-key objects
// for the kinds JSON lacks: {"$data": "<base64>"}, {"$date": "<ISO 8601>"} (or a number of
// seconds since 2001-01-01 UTC, which is how a date outside the years 1 to 9999 is written),
// and on output {"$error": {"domain", "code", "userInfo"}} and {"$object": "<description>"}.
// A dictionary whose one key is "$data", "$date", "$delegate" or "$dictionary" is written
// {"$dictionary": {...}}, so that it reads back as a dictionary.
//
// What is read is what is written: jsonFromValue of a value that valueFromJson accepted reads
// back to the same value (dates and reals exactly).
Expected<plist::Value> valueFromJson(std::string_view text, const plist::ReadLimits& limits = {});
// The same where {"$delegate": {}} stands for a local object that the caller serves: each one
// is what `delegate` makes. Without a maker such an argument is refused.
Expected<plist::Value> valueFromJson(std::string_view text,
                                     const std::function<plist::ObjectRef()>& delegate,
                                     const plist::ReadLimits& limits = {});
// Compact, one line.
std::string jsonFromValue(const plist::Value& value);

std::string base64Encode(const plist::Data& data);
Expected<plist::Data> base64Decode(std::string_view text);

} // namespace kestrin::admin
