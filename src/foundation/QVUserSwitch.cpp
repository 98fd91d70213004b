#include "foundation/QVUserSwitch.h"

#include "foundation/QVLog.h"
#include "platform/ConsoleUser.h"

namespace kestrin {

QVUserSwitch::QVUserSwitch(Post post) : post_(std::move(post)) {}

QVUserSwitch::~QVUserSwitch() {
  watcher_.reset(); // joins the watcher's thread
}

bool QVUserSwitch::setup() {
  {
    std::lock_guard lock(mutex_);
    currentUser_ = platform::consoleUserName();
    if (!originalUser_) {
      originalUser_ = currentUser_;
    }
  }
  auto watcher = platform::ConsoleUserWatcher::start([this] { consoleUserChanged(); });
  if (!watcher) {
    QVLog::appendLog("Console user changes are not watched: {}", watcher.message());
    return false;
  }
  watcher_ = std::move(*watcher);
  return true;
}

void QVUserSwitch::consoleUserChanged() {
  std::optional<std::string> user = platform::consoleUserName();
  std::optional<std::string> original;
  {
    std::lock_guard lock(mutex_);
    if (user == currentUser_) {
      return;
    }
    currentUser_ = user;
    if (!originalUser_) {
      return;
    }
    original = originalUser_;
  }
  std::string shown = user.value_or("(null)");
  if (user == original) {
    QVLog::appendLog("User logged in: {}", shown);
    post_(kUserSwitchIn);
  } else {
    QVLog::appendLog("User logged out: {}", shown);
    post_(kUserSwitchOut);
  }
}

std::optional<std::string> QVUserSwitch::currentUser() const {
  std::lock_guard lock(mutex_);
  return currentUser_;
}

std::optional<std::string> QVUserSwitch::originalUser() const {
  std::lock_guard lock(mutex_);
  return originalUser_;
}

} // namespace kestrin
