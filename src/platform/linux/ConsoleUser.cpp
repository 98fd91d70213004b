#include "platform/ConsoleUser.h"

#include <cstdlib>
#include <cstring>
#include <thread>

#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::platform {

namespace {

// sd-login hands out strings the caller frees.
struct FreeString {
  void operator()(char* text) const { std::free(text); }
};
using OwnedString = std::unique_ptr<char, FreeString>;

std::optional<std::string> userName(uid_t uid) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(size > 0 ? static_cast<std::size_t>(size) : 16384, '\0');
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::string(found->pw_name);
}

// The login screen runs a session of its own on the seat (class "greeter"): nobody is logged
// in while it is the active one.
bool isGreeter(const char* session) {
  char* sessionClass = nullptr;
  if (sd_session_get_class(session, &sessionClass) < 0) {
    return false;
  }
  OwnedString owned(sessionClass);
  return std::strcmp(sessionClass, "greeter") == 0;
}

// sd-login's monitor woken through poll, beside an eventfd that ends the wait.
class LogindConsoleUserWatcher final : public ConsoleUserWatcher {
public:
  LogindConsoleUserWatcher(sd_login_monitor* monitor, FileDescriptor stop, Handler changed)
      : monitor_(monitor), stop_(std::move(stop)), changed_(std::move(changed)),
        thread_([this] { run(); }) {}

  ~LogindConsoleUserWatcher() override {
    std::uint64_t one = 1;
    (void)retryOnEintr([&] { return ::write(stop_.get(), &one, sizeof one); });
    thread_.join();
    sd_login_monitor_unref(monitor_);
  }

private:
  void run() {
    for (;;) {
      pollfd fds[2] = {{sd_login_monitor_get_fd(monitor_),
                        static_cast<short>(sd_login_monitor_get_events(monitor_)), 0},
                       {stop_.get(), POLLIN, 0}};
      if (retryOnEintr([&] { return ::poll(fds, 2, -1); }) < 0 || fds[1].revents != 0) {
        return;
      }
      if (fds[0].revents != 0) {
        // Flushing first: a change made while the handler runs wakes the next poll.
        sd_login_monitor_flush(monitor_);
        changed_();
      }
    }
  }

  sd_login_monitor* monitor_;
  FileDescriptor stop_;
  Handler changed_;
  std::thread thread_; // last: started once the members above exist
};

} // namespace

std::optional<std::string> consoleUserName() {
  char* session = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active("seat0", &session, &uid) < 0) {
    return std::nullopt;
  }
  OwnedString owned(session);
  if (isGreeter(session)) {
    return std::nullopt;
  }
  return userName(uid);
}

Expected<std::unique_ptr<ConsoleUserWatcher>> ConsoleUserWatcher::start(Handler changed) {
  // The seats say which session is active on each; a greeter's or a user's session starting
  // there rewrites the seat as well.
  sd_login_monitor* monitor = nullptr;
  if (int error = sd_login_monitor_new("seat", &monitor); error < 0) {
    return Failure{errnoMessage("cannot watch the login manager's seats", -error)};
  }
  FileDescriptor stop(::eventfd(0, EFD_CLOEXEC));
  if (!stop) {
    int error = errno;
    sd_login_monitor_unref(monitor);
    return Failure{errnoMessage("eventfd", error)};
  }
  return std::unique_ptr<ConsoleUserWatcher>(
      std::make_unique<LogindConsoleUserWatcher>(monitor, std::move(stop), std::move(changed)));
}

} // namespace kestrin::platform
