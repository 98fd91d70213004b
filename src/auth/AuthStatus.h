#pragma once

#include <optional>
#include <string_view>

// Shared by kestrin-auth and the agent; header-only and free of the agent's libraries so that
// the setuid helper stays small.
namespace kestrin::auth {

// Exit statuses of kestrin-auth for its own refusals. Once the helper has handed over to
// PROGRAM (execv), its exit status is PROGRAM's, so both share one space: these sit in the
// 240s, above what the system tools return (0..2), what shells return for a missing or
// unrunnable command (126, 127) and death by a signal as shells report it (128 + signal, up to
// about 160). A PROGRAM that itself exits with one of these values cannot be told apart from a
// refusal; the agent only reads the statuses of programs that never do (rm, mv, cp, mkdir).
enum class AuthStatus : int {
  BadInvocation = 240,    // wrong arguments or a malformed, oversized or late credential frame
  NotSetuidRoot = 241,    // the helper's effective user id is not 0: installed without setuid
  WrongPassword = 242,    // PAM refused the password
  UnknownUser = 243,      // no such user
  NotAdministrator = 244, // right password, but not in the sudo, wheel or admin group
  AccountRefused = 245,   // PAM's account check failed: expired, locked, password to change
  ProgramMissing = 246,   // PROGRAM does not exist
  CannotRun = 247,        // PROGRAM exists but could not be run, or becoming root failed
  SystemError = 248,      // PAM or the system failed before an answer about the user was known
};

inline constexpr int kFirstAuthStatus = 240;
inline constexpr int kLastAuthStatus = 248;

// Authenticates and checks administrator membership only, runs nothing and exits 0: lets the
// agent verify credentials when it receives them rather than at their first use.
inline constexpr std::string_view kCheckOption = "--check";
// Names a folder of PAM service files instead of /etc/pam.d. Honoured only when the real user
// id is 0 (a root caller can already do anything); anyone else who passes it is refused with
// BadInvocation, because a folder of their own could hold a stack that accepts any password.
inline constexpr std::string_view kPamConfdirOption = "--pam-confdir";
inline constexpr std::string_view kPamService = "kestrin-auth";
// The only environment PROGRAM receives.
inline constexpr std::string_view kSafePath = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

// The helper's refusal for an exit status, or nullopt for a status of PROGRAM's (or success).
constexpr std::optional<AuthStatus> authStatusFromExit(int status) {
  if (status < kFirstAuthStatus || status > kLastAuthStatus) {
    return std::nullopt;
  }
  return static_cast<AuthStatus>(status);
}

// The user name or password was not accepted (what the platform reports as invalid
// credentials), as opposed to a broken installation or a failed program.
constexpr bool refusesCredentials(AuthStatus status) {
  switch (status) {
  case AuthStatus::WrongPassword:
  case AuthStatus::UnknownUser:
  case AuthStatus::NotAdministrator:
  case AuthStatus::AccountRefused:
    return true;
  default:
    return false;
  }
}

constexpr std::string_view describe(AuthStatus status) {
  switch (status) {
  case AuthStatus::BadInvocation:
    return "bad invocation or credential frame";
  case AuthStatus::NotSetuidRoot:
    return "not installed setuid root";
  case AuthStatus::WrongPassword:
    return "wrong password";
  case AuthStatus::UnknownUser:
    return "unknown user";
  case AuthStatus::NotAdministrator:
    return "user is not an administrator";
  case AuthStatus::AccountRefused:
    return "account unavailable";
  case AuthStatus::ProgramMissing:
    return "program does not exist";
  case AuthStatus::CannotRun:
    return "program could not be run as root";
  case AuthStatus::SystemError:
    return "authentication system failure";
  }
  return "unknown status";
}

} // namespace kestrin::auth
