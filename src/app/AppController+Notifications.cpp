// The distributed notifications through which the preference pane, the maker's tools and
// other instances of the agent steer it.

#include <unistd.h>

#include "app/AppController.h"
#include "foundation/QVLog.h"

namespace kestrin {

void AppController::connectNotificationCenter() {
  auto center = platform::NotificationCenter::connectSessionBus();
  if (!center) {
    QVLog::appendLog("Distributed notifications are off: {}", center.message());
    return;
  }
  notificationCenter_ = std::move(*center);
}

void AppController::postNotification(const std::string& name, const plist::Dictionary& userInfo) {
  if (notificationCenter_) {
    notificationCenter_->post(name, userInfo);
  }
}

void AppController::disconnectAllOtherInstances() {
  QVLog::appendLog("Disconnecting other instances of client...");
  postNotification("QVKestrinDisconnect",
                   {{"excluded_pid", static_cast<std::int64_t>(::getpid())}});
  QVLog::appendLog("Searching for other instances of client...");
}

void AppController::observeNotifications() {
  if (!notificationCenter_) {
    return;
  }
  using Handler = std::function<void(const plist::Dictionary&)>;
  const std::pair<const char*, Handler> table[] = {
      {"QVKestrinMenuBarIconShow", [this](const plist::Dictionary&) { showMenuBarItem(); }},
      {"QVKestrinMenuBarIconHide", [this](const plist::Dictionary&) { hideMenuBarItem(); }},
      {"QVKestrinMaintenanceEnable", [this](const plist::Dictionary&) { enableMaintenance(); }},
      {"QVKestrinMaintenanceDisable", [this](const plist::Dictionary&) { disableMaintenance(); }},
      {"QVKestrinCurrentStatus", [this](const plist::Dictionary&) { notifyCurrentStatus(); }},
      {"QVKestrinDisconnect", [this](const plist::Dictionary& info) { disconnect(info); }},
      {"QVKestrinRelaunch", [this](const plist::Dictionary&) { relaunch(); }},
      {"QVAmbrantTaskProgressIncrement",
       [this](const plist::Dictionary& info) { errorChannel_.taskIncrementProgress(info); }},
      {"QVAmbrantTaskFinished",
       [this](const plist::Dictionary& info) { errorChannel_.taskFinished(info); }},
      {"QVAmbrantTaskError",
       [this](const plist::Dictionary& info) { errorChannel_.taskError(info); }},
  };
  for (const auto& [name, handler] : table) {
    // Off the bus's thread: a handler may stop the service or call admins for a long time.
    observations_.push_back(
        notificationCenter_->observe(name, [this, handler](const plist::Dictionary& info) {
          startThread([handler, info] { handler(info); });
        }));
  }
}

} // namespace kestrin
