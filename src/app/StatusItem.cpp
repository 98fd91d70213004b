#include "app/StatusItem.h"

#include <filesystem>
#include <iostream>

#include "app/MainLoop.h"
#include "foundation/NotificationHub.h"
#include "foundation/PreferenceFile.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/ErrorChannel.h"
#include "platform/ToolTable.h"

namespace kestrin {

void StatusItem::updateStatus(const std::string& status) {
  std::cout << status << std::endl;
  QVLog::appendLog("{}", status);
  {
    std::lock_guard lock(mutex_);
    statusString_ = status;
  }
  notifyCurrentStatus();
}

std::string StatusItem::statusString() const {
  std::lock_guard lock(mutex_);
  return statusString_;
}

void StatusItem::notifyCurrentStatus() {
  environment_.notifications.post("QVKestrinStatusUpdate", {{"status", statusString()}});
}

void StatusItem::hideMenuBarItem() {
  QVLog::appendLog("Hiding menu bar item...");
  if (!environment_.isQuitting()) {
    cancelMaintenanceRequest();
  }
}

void StatusItem::requestMaintenance() {
  std::optional<std::string> title;
  {
    std::lock_guard lock(mutex_);
    title = firstMenuItemTitle_;
  }
  if (title == kRequestTitle) {
    sendMaintenanceRequest();
  } else {
    cancelMaintenanceRequest();
  }
}

void StatusItem::sendMaintenanceRequest() {
  QVLog::appendLog("Sending maintenance request...");
  maintenanceRequested_ = true;
  QVLog::appendLog("Maintenance request sent");
  {
    std::lock_guard lock(mutex_);
    if (firstMenuItemTitle_) {
      firstMenuItemTitle_ = kCancelTitle;
    }
  }
  environment_.errorChannel.performErrorCallbackSelector("requestMaintenance:",
                                                         environment_.hostName());
}

void StatusItem::cancelMaintenanceRequest() {
  QVLog::appendLog("Canceling maintenance request...");
  if (environment_.settings.object("enableMaintenanceRequests").asInteger() != 0) {
    maintenanceRequested_ = false;
    QVLog::appendLog("Maintenance request canceled");
    std::lock_guard lock(mutex_);
    if (firstMenuItemTitle_) {
      firstMenuItemTitle_ = kRequestTitle;
    }
  }
  environment_.errorChannel.performErrorCallbackSelector("cancelMaintenance:",
                                                         environment_.hostName());
}

void StatusItem::maintenanceRequestFromCommand(bool send) {
  if (send) {
    sendMaintenanceRequest();
  } else {
    cancelMaintenanceRequest();
  }
  environment_.notifications.post("QVKestrinMaintenanceStatus",
                                  {{"maintenanceRequested", maintenanceRequested()}});
}

void StatusItem::enableMaintenance() {
  QVLog::appendLog("Maintenance enabled");
  environment_.mainLoop.runOnMainThreadAndWait([this] { showMenuBarItem(); });
}

void StatusItem::disableMaintenance() {
  QVLog::appendLog("Maintenance disabled");
  maintenanceRequested_ = false;
  environment_.mainLoop.runOnMainThreadAndWait([this] { showMenuBarItem(); });
}

void StatusItem::launchPrefPane() {
  std::string pane = environment_.paths.libraryDirectory(false).value_or("/Library") +
                     "/PreferencePanes/Kestrin.prefPane";
  std::error_code ec;
  if (!std::filesystem::exists(pane, ec)) {
    QVLog::appendLog("Error: unable to locate {}", pane);
    return;
  }
  // The desktop's handler stands in for System Preferences. xdg-open takes no "--"; the path
  // is absolute, so it cannot pass for an option.
  QVTaskEx::runTaskAndReturn(environment_.tools.path(platform::Tool::XdgOpen), {pane});
}

} // namespace kestrin
