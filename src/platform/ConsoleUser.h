#pragma once

#include <optional>
#include <string>

namespace kestrin::platform {

// The user logged in at the machine's console: the user of the active session on seat0, as the
// login manager reports it. nullopt when nobody is logged in there or when there is no login
// manager to ask (containers, machines not booted with systemd).
std::optional<std::string> consoleUserName();

} // namespace kestrin::platform
