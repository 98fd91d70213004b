#pragma once

#include <string_view>

namespace kestrin::auth {

// The PAM service of kestrin-auth, /etc/pam.d/kestrin-auth, as "-setup" writes it: the
// system's own password and account checks, and nothing else (the helper opens no session).
// Fixed here rather than read from the bundle, so whoever can change a bundle cannot choose
// the stack that decides who becomes root.
inline constexpr std::string_view kPamServiceText =
    "# PAM service of kestrin-auth, the helper that runs administrator tasks for the Kestrin "
    "agent.\n"
    "# Written by \"Kestrin -setup\". Password and account only: the helper opens no session.\n"
    "@include common-auth\n"
    "@include common-account\n";

} // namespace kestrin::auth
