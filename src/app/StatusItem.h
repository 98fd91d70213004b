#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace kestrin {

class MainLoop;
class NotificationHub;
class PreferenceFile;
class QVLocalPaths;

namespace operations {
class ErrorChannel;
}

namespace platform {
class ToolTable;
}

// The status text and the status item's actions: the maintenance request that the user at this
// machine can send to the administration application, and its cancellation. There is no
// status bar to show an item in: the item is never created, while the log lines, flags and
// callbacks of its actions still happen. The user at this machine sends and cancels the request
// with the kestrin-maintenance command instead, whose notifications reach the same actions.
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
    const QVLocalPaths& paths;
    const platform::ToolTable& tools;
  };

  static constexpr const char* kRequestTitle = "Request Maintenance";
  static constexpr const char* kCancelTitle = "Cancel Maintenance Request";

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

  // The menu's action: sends when the first menu item offers "Request Maintenance", otherwise
  // cancels. The menu is never built, so it cancels; deliberately kept as it was.
  void requestMaintenance();
  void sendMaintenanceRequest();
  // Cancels, and tells the admins, even when "enableMaintenanceRequests" is 0; then the request
  // itself stays as it was.
  void cancelMaintenanceRequest();
  // What kestrin-maintenance asks for ("QVKestrinMaintenanceRequest" sends, and
  // "QVKestrinMaintenanceCancel" cancels), answered with "QVKestrinMaintenanceStatus" and
  // {"maintenanceRequested": bool} so that the command can tell that an agent heard it.
  void maintenanceRequestFromCommand(bool send);
  // Handlers of "QVKestrinMaintenanceEnable" / "QVKestrinMaintenanceDisable".
  void enableMaintenance();
  void disableMaintenance();
  bool maintenanceRequested() const { return maintenanceRequested_; }

  // Opens the agent's preference pane in the local Library with the desktop's handler.
  void launchPrefPane();

private:
  Environment environment_;
  mutable std::mutex mutex_;
  std::string statusString_; // under mutex_
  // The first menu item's title; none, as the menu is never built.
  std::optional<std::string> firstMenuItemTitle_; // under mutex_
  std::atomic<bool> maintenanceRequested_{false};
};

} // namespace kestrin
