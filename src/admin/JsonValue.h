#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::admin {

// The admin client's command-line form of property-list values: plain JSON for null, booleans,
// numbers, strings, arrays and objects (dictionaries, keys kept in order), and one-key objects
// for the kinds JSON lacks: {"$data": "<base64>"}, {"$date": "<ISO 8601>"}, and on output
// {"$error": {"domain", "code", "userInfo"}} and {"$object": "<description>"}.
Expected<plist::Value> valueFromJson(std::string_view text);
// The same where {"$delegate": {}} stands for a local object that the caller serves: each one
// is what `delegate` makes. Without a maker such an argument is refused.
Expected<plist::Value> valueFromJson(std::string_view text,
                                     const std::function<plist::ObjectRef()>& delegate);
// Compact, one line.
std::string jsonFromValue(const plist::Value& value);

std::string base64Encode(const plist::Data& data);
Expected<plist::Data> base64Decode(std::string_view text);

} // namespace kestrin::admin
