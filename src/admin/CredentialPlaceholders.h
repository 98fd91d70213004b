#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "plist/Value.h"

namespace kestrin::admin {

// Where an administrator's credentials go in a call's arguments, without their being written
// there: {"$user":null} for the name, {"$password":null} for the password encrypted for the
// agent, {"$credentials":null} for both as the "authUser"/"authPass" dictionary.
inline constexpr std::string_view kUserPlaceholder = "$user";
inline constexpr std::string_view kPasswordPlaceholder = "$password";
inline constexpr std::string_view kCredentialsPlaceholder = "$credentials";

// Replaces the placeholders in `value` and below; answers how many there were. `credentials`
// makes the replacements.
int replacePlaceholders(plist::Value& value,
                        const std::function<plist::Value(std::string_view)>& credentials);

// What a placeholder stands for, given the name and the encrypted password.
plist::Value credentialValue(std::string_view placeholder, const std::string& user,
                             const plist::Data& encryptedPassword);

} // namespace kestrin::admin
