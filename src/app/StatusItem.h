#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

namespace kestrin {

class MainLoop;
class NotificationHub;
class PreferenceFile;

namespace operations {
class ErrorChannel;
}

// The status text and the status item's actions: the maintenance request that the user at this
// machine can send to the administration application, and its cancellation. There is no
// status bar to show an item in: the item is never created, while the log lines, flags and
// callbacks of its actions still happen.
//
// Thread-safe; status and item changes pass through the main thread as the platform's did.
class StatusItem {
public:
  struct Environment {
    MainLoop& mainLoop;
    NotificationHub& notifications;
    PreferenceFile& settings;
    operations::ErrorChannel& errorChannel;
    std::function<std::string()> hostName;
    std::function<bool()> isQuitting;
  };

  explicit StatusItem(Environment environment) : environment_(std::move(environment)) {}

  // Prints, logs and broadcasts the status ("QVKestrinStatusUpdate").
  void updateStatus(const std::string& status);
  std::string statusString() const;
  void notifyCurrentStatus();

  // Deliberately empty: there is no item to show.
  void showMenuBarItem() {}
  // Cancels a pending maintenance request unless the agent is quitting.
  void hideMenuBarItem();
  void setStatusBarConnected() {}
  void setStatusBarDisconnected() {}

  void sendMaintenanceRequest();
  void cancelMaintenanceRequest();
  // Handlers of "QVKestrinMaintenanceEnable" / "QVKestrinMaintenanceDisable".
  void enableMaintenance();
  void disableMaintenance();
  bool maintenanceRequested() const { return maintenanceRequested_; }

private:
  Environment environment_;
  mutable std::mutex mutex_;
  std::string statusString_; // under mutex_
  std::atomic<bool> maintenanceRequested_{false};
};

} // namespace kestrin
