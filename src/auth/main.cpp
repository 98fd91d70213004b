// kestrin-auth: runs one program as root on behalf of an administrator whose password PAM
// accepts. Installed setuid root beside the agent; the agent's only way to act with rights it
// does not have.
//
//   kestrin-auth [--pam-confdir DIR] [--] PROGRAM [ARG ...]
//   kestrin-auth [--pam-confdir DIR] --check
//
// The user name and password arrive as one frame on standard input (auth/CredentialFrame.h).
// PAM service "kestrin-auth" checks them (where /etc/pam.d/kestrin-auth is missing, PAM itself
// falls back to /etc/pam.d/other, which on Debian is the common-* stack and elsewhere usually
// denies everything), then the account, then membership of sudo, wheel or admin. Only then does
// PROGRAM (an absolute path) replace this process with all user and group ids 0 and the
// environment PATH=/usr/sbin:/usr/bin:/sbin:/bin alone, so the exit status is PROGRAM's.
// Refusals exit with the statuses of auth/AuthStatus.h.
//
// Deliberately small: no agent libraries, no sessions (pam_setcred/pam_open_session are not
// needed for running one command), no delay of its own after a failure (the PAM stack's
// business: pam_unix waits about 2 s). Each attempt is logged to syslog's authpriv facility
// without the password.

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "auth/AuthStatus.h"
#include "auth/CredentialFrame.h"

namespace {

using kestrin::auth::AuthStatus;

// Generous for a writer that has the frame ready before it starts us; bounds how long a caller
// that never writes can keep a setuid process around.
constexpr std::chrono::seconds kFrameTimeout{10};
constexpr const char* kAdministratorGroups[] = {"sudo", "wheel", "admin"};

// Static rather than on the stack: one place to lock into memory and wipe.
kestrin::auth::Credentials gCredentials;
// Who started us; getuid() answers 0 once becomeRoot() has run.
uid_t gCallerUid = 0;

int exitStatus(AuthStatus status) {
  return static_cast<int>(status);
}

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
  std::fputs("kestrin-auth: ", stderr);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
}

// User names come from an unauthenticated caller; keep control characters out of the log.
std::string printable(const char* text) {
  std::string out;
  for (const char* c = text; *c != '\0'; ++c) {
    out += (*c >= 0x20 && *c < 0x7f) ? *c : '?';
  }
  return out;
}

// ---- process hygiene

// With 0, 1 or 2 closed by the caller, a file PAM opens could take that number and our
// messages to "standard error" would land in it.
void ensureStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      if (::open("/dev/null", O_RDWR) != fd) {
        std::_Exit(exitStatus(AuthStatus::SystemError));
      }
    }
  }
}

// Nothing of the caller's reaches PAM or PROGRAM: no descriptors beyond the standard three, no
// environment (ld.so's secure mode already dropped LD_*; this drops the rest), no core file
// that could hold the password, a umask that keeps files PROGRAM creates from being writable
// by everyone.
void sanitizeProcess() {
  ensureStandardStreams();
  ::closefrom(STDERR_FILENO + 1);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  ::clearenv();
  static std::string path(kestrin::auth::kSafePath);
  ::putenv(path.data());
  ::umask(022);
}

// The caller's ignored signals and blocked mask would otherwise survive execve into PROGRAM.
void resetSignals() {
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    ::sigaction(signal, &defaults, nullptr); // fails harmlessly for SIGKILL, SIGSTOP
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Whatever follows the frame on standard input is not PROGRAM's to read.
void detachStandardInput() {
  int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::close(null);
  }
}

// ---- arguments

struct Invocation {
  bool check = false;
  const char* pamConfdir = nullptr;
  char** program = nullptr; // PROGRAM and its arguments, null-terminated (argv's tail)
};

std::optional<Invocation> parseArguments(int argc, char** argv) {
  Invocation invocation;
  int i = 1;
  while (i < argc && std::strncmp(argv[i], "--", 2) == 0) {
    std::string_view option = argv[i];
    if (option == "--") {
      ++i;
      break;
    }
    if (option == kestrin::auth::kCheckOption) {
      invocation.check = true;
      ++i;
    } else if (option == kestrin::auth::kPamConfdirOption && i + 1 < argc) {
      invocation.pamConfdir = argv[i + 1];
      i += 2;
    } else {
      return std::nullopt;
    }
  }
  if (invocation.check) {
    return i == argc ? std::optional(invocation) : std::nullopt;
  }
  // An absolute path only: a relative one would resolve against a working directory the
  // caller chose.
  if (i >= argc || argv[i][0] != '/') {
    return std::nullopt;
  }
  invocation.program = argv + i;
  return invocation;
}

// ---- PAM

struct Conversation {
  kestrin::auth::Credentials* credentials;
  bool answered = false;
};

void freeResponses(pam_response* responses, int count) {
  for (int i = 0; i < count; ++i) {
    if (responses[i].resp != nullptr) {
      ::explicit_bzero(responses[i].resp, std::strlen(responses[i].resp));
      std::free(responses[i].resp);
    }
  }
  std::free(responses);
}

// Answers the one hidden prompt with the password and wipes our copy at once: PAM owns it from
// here. A second hidden prompt or any visible one (a one-time code, a new password) is a
// question we have no answer for, so the conversation fails rather than guessing.
int converse(int count, const pam_message** messages, pam_response** responses, void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) {
    return PAM_CONV_ERR;
  }
  auto* conversation = static_cast<Conversation*>(data);
  auto* replies = static_cast<pam_response*>(std::calloc(count, sizeof(pam_response)));
  if (replies == nullptr) {
    return PAM_BUF_ERR;
  }
  for (int i = 0; i < count; ++i) {
    switch (messages[i]->msg_style) {
    case PAM_PROMPT_ECHO_OFF:
      if (conversation->answered) {
        freeResponses(replies, count);
        return PAM_CONV_ERR;
      }
      replies[i].resp = ::strdup(conversation->credentials->password);
      conversation->credentials->wipePassword();
      conversation->answered = true;
      if (replies[i].resp == nullptr) {
        freeResponses(replies, count);
        return PAM_BUF_ERR;
      }
      break;
    case PAM_ERROR_MSG:
    case PAM_TEXT_INFO:
      say("%s", printable(messages[i]->msg != nullptr ? messages[i]->msg : "").c_str());
      break;
    default:
      freeResponses(replies, count);
      return PAM_CONV_ERR;
    }
  }
  *responses = replies;
  return PAM_SUCCESS;
}

AuthStatus fromAuthenticate(int result) {
  switch (result) {
  case PAM_USER_UNKNOWN:
    return AuthStatus::UnknownUser;
  case PAM_AUTH_ERR:
  case PAM_CRED_INSUFFICIENT:
  case PAM_MAXTRIES:
  case PAM_PERM_DENIED:
    return AuthStatus::WrongPassword;
  default:
    return AuthStatus::SystemError;
  }
}

AuthStatus fromAccountCheck(int result) {
  switch (result) {
  case PAM_USER_UNKNOWN:
    return AuthStatus::UnknownUser;
  case PAM_ACCT_EXPIRED:
  case PAM_NEW_AUTHTOK_REQD:
  case PAM_AUTH_ERR:
  case PAM_PERM_DENIED:
    return AuthStatus::AccountRefused;
  default:
    return AuthStatus::SystemError;
  }
}

// Authenticates gCredentials and checks the account. On success `user` is the name PAM ended
// with (a module may canonicalise it). The password is wiped on every path.
std::optional<AuthStatus> authenticate(const Invocation& invocation, std::string& user) {
  Conversation conversation{&gCredentials};
  const pam_conv conv{converse, &conversation};
  pam_handle_t* pam = nullptr;
  const std::string service(kestrin::auth::kPamService);
  int result = invocation.pamConfdir != nullptr
                   ? ::pam_start_confdir(service.c_str(), gCredentials.user, &conv,
                                         invocation.pamConfdir, &pam)
                   : ::pam_start(service.c_str(), gCredentials.user, &conv, &pam);
  if (result != PAM_SUCCESS) {
    gCredentials.wipePassword();
    return AuthStatus::SystemError;
  }
  if (const passwd* caller = ::getpwuid(::getuid()); caller != nullptr) {
    ::pam_set_item(pam, PAM_RUSER, caller->pw_name);
  }

  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  std::optional<AuthStatus> refusal;
  result = ::pam_authenticate(pam, kFlags);
  gCredentials.wipePassword();
  if (result != PAM_SUCCESS) {
    refusal = fromAuthenticate(result);
    // Debian's stack turns pam_unix's "unknown user" into a plain failure (default=ignore, then
    // pam_deny). The password database is readable by everyone, so telling the caller which it
    // was reveals nothing they could not look up; PAM's delay has already been served.
    if (refusal == AuthStatus::WrongPassword && ::getpwnam(gCredentials.user) == nullptr) {
      refusal = AuthStatus::UnknownUser;
    }
  } else {
    result = ::pam_acct_mgmt(pam, kFlags);
    if (result != PAM_SUCCESS) {
      refusal = fromAccountCheck(result);
    }
  }
  if (!refusal) {
    const void* item = nullptr;
    if (::pam_get_item(pam, PAM_USER, &item) == PAM_SUCCESS && item != nullptr) {
      user = static_cast<const char*>(item);
    } else {
      refusal = AuthStatus::SystemError;
    }
  }
  ::pam_end(pam, result);
  return refusal;
}

// ---- authorisation

std::optional<AuthStatus> checkAdministrator(const std::string& user) {
  const passwd* entry = ::getpwnam(user.c_str());
  if (entry == nullptr) {
    return AuthStatus::UnknownUser;
  }
  const gid_t primary = entry->pw_gid;
  std::vector<gid_t> groups(32);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(user.c_str(), primary, groups.data(), &count) == -1) {
    if (static_cast<std::size_t>(count) <= groups.size()) {
      return AuthStatus::SystemError;
    }
    groups.resize(static_cast<std::size_t>(count));
  }
  groups.resize(static_cast<std::size_t>(count));
  for (const char* name : kAdministratorGroups) {
    const group* administrators = ::getgrnam(name);
    if (administrators == nullptr) {
      continue;
    }
    for (gid_t gid : groups) {
      if (gid == administrators->gr_gid) {
        return std::nullopt;
      }
    }
  }
  return AuthStatus::NotAdministrator;
}

// Real, effective and saved ids all become root's, so PROGRAM cannot be signalled or traced by
// the caller and does not see itself as setuid.
bool becomeRoot() {
  if (::initgroups("root", 0) != 0 || ::setgid(0) != 0 || ::setuid(0) != 0) {
    return false;
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  return ::getresuid(&ruid, &euid, &suid) == 0 && ::getresgid(&rgid, &egid, &sgid) == 0 &&
         ruid == 0 && euid == 0 && suid == 0 && rgid == 0 && egid == 0 && sgid == 0;
}

int refuse(AuthStatus status, const char* user, const char* what) {
  say("%s", std::string(kestrin::auth::describe(status)).c_str());
  ::syslog(LOG_NOTICE, "refused %s for %s (caller uid %u): %s", what, printable(user).c_str(),
           static_cast<unsigned>(gCallerUid), std::string(kestrin::auth::describe(status)).c_str());
  return exitStatus(status);
}

} // namespace

int main(int argc, char** argv) {
  sanitizeProcess();
  gCallerUid = ::getuid();
  ::openlog("kestrin-auth", LOG_PID, LOG_AUTHPRIV);
  if (::geteuid() != 0) {
    say("%s", std::string(kestrin::auth::describe(AuthStatus::NotSetuidRoot)).c_str());
    return exitStatus(AuthStatus::NotSetuidRoot);
  }
  auto invocation = parseArguments(argc, argv);
  if (!invocation) {
    say("usage: kestrin-auth [--] PROGRAM [ARG ...] | --check, credentials on standard input");
    return exitStatus(AuthStatus::BadInvocation);
  }
  if (invocation->pamConfdir != nullptr && gCallerUid != 0) {
    say("%s is for root only", std::string(kestrin::auth::kPamConfdirOption).c_str());
    return exitStatus(AuthStatus::BadInvocation);
  }
  ::mlock(&gCredentials, sizeof gCredentials); // best effort: keeps the password out of swap

  auto frameError = kestrin::auth::readCredentials(STDIN_FILENO, gCredentials, kFrameTimeout);
  detachStandardInput();
  if (frameError != kestrin::auth::FrameError::None) {
    say("no valid credential frame on standard input");
    return exitStatus(AuthStatus::BadInvocation);
  }

  const char* what = invocation->check ? "a credential check" : invocation->program[0];
  std::string user;
  if (auto refusal = authenticate(*invocation, user)) {
    return refuse(*refusal, gCredentials.user, what);
  }
  if (auto refusal = checkAdministrator(user)) {
    return refuse(*refusal, user.c_str(), what);
  }
  gCredentials.wipe();
  if (invocation->check) {
    return 0;
  }
  if (!becomeRoot()) {
    return refuse(AuthStatus::CannotRun, user.c_str(), what);
  }

  ::syslog(LOG_NOTICE, "%s (caller uid %u) runs %s as root", printable(user.c_str()).c_str(),
           static_cast<unsigned>(gCallerUid), printable(what).c_str());
  ::closelog();
  resetSignals();
  static std::string path(kestrin::auth::kSafePath);
  char* environment[] = {path.data(), nullptr};
  ::execve(invocation->program[0], invocation->program, environment);
  const int error = errno;
  ::openlog("kestrin-auth", LOG_PID, LOG_AUTHPRIV);
  return refuse(error == ENOENT || error == ENOTDIR ? AuthStatus::ProgramMissing
                                                    : AuthStatus::CannotRun,
                user.c_str(), what);
}
