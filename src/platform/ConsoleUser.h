#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/Expected.h"

namespace kestrin::platform {

// The user logged in at the machine's console: the user of the active session on seat0, as the
// login manager reports it. nullopt when nobody is logged in there, when the active session is
// the login screen's own (a greeter), or when there is no login manager to ask (containers,
// machines not booted with systemd).
std::optional<std::string> consoleUserName();

// Tells when the login manager's seats change (another session became active, one ended), so
// that the console user can be read again. Only that something changed is reported: a reader
// compares with what it knew.
class ConsoleUserWatcher {
public:
  using Handler = std::function<void()>;

  // Stops watching and joins the watcher's thread: the handler has run for the last time when
  // the destructor returns. Not from the handler.
  virtual ~ConsoleUserWatcher() = default;

  // Starts watching on a thread of its own; changed runs there, once per burst of changes. A
  // Failure when the login manager's state cannot be watched; on a machine without a login
  // manager whose folders exist, watching starts and nothing ever changes.
  static Expected<std::unique_ptr<ConsoleUserWatcher>> start(Handler changed);
};

} // namespace kestrin::platform
