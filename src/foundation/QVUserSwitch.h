#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrin {

namespace platform {
class ConsoleUserWatcher;
}

// Who sits at the console, and when that changes. It keeps the console user (none while the
// login screen has the console) and the original user, the console user when watching began,
// set once. A change back to the original user posts "QVUserSwitchIn"; any other change posts
// "QVUserSwitchOut", the login screen included: the original user has left.
//
// Thread-safe. The watcher runs on a thread of its own, and posts happen there.
class QVUserSwitch {
public:
  static constexpr const char* kUserSwitchIn = "QVUserSwitchIn";
  static constexpr const char* kUserSwitchOut = "QVUserSwitchOut";
  // Delivers a local notification, by name: the process's own, not the session's.
  using Post = std::function<void(const std::string& name)>;

  explicit QVUserSwitch(Post post);
  // Stops watching; no post happens after it returns.
  ~QVUserSwitch();
  QVUserSwitch(const QVUserSwitch&) = delete;
  QVUserSwitch& operator=(const QVUserSwitch&) = delete;

  // Reads the console user, takes it as the original user unless one is set, and starts
  // watching. Without a login manager to watch it logs why, once, and answers false: the agent
  // then runs without console-user events.
  bool setup();
  // The change callback: reads the console user again and posts when it changed.
  void consoleUserChanged();

  std::optional<std::string> currentUser() const;
  std::optional<std::string> originalUser() const;

private:
  Post post_;
  mutable std::mutex mutex_;
  std::optional<std::string> currentUser_;  // under mutex_
  std::optional<std::string> originalUser_; // under mutex_
  std::unique_ptr<platform::ConsoleUserWatcher> watcher_;
};

} // namespace kestrin
