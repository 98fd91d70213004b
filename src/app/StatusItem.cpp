#include "app/StatusItem.h"

#include <iostream>

#include "app/MainLoop.h"
#include "foundation/NotificationHub.h"
#include "foundation/PreferenceFile.h"
#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"

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

void StatusItem::sendMaintenanceRequest() {
  QVLog::appendLog("Sending maintenance request...");
  maintenanceRequested_ = true;
  QVLog::appendLog("Maintenance request sent");
  environment_.errorChannel.performErrorCallbackSelector("requestMaintenance:",
                                                         environment_.hostName());
}

void StatusItem::cancelMaintenanceRequest() {
  QVLog::appendLog("Canceling maintenance request...");
  if (environment_.settings.object("enableMaintenanceRequests").asInteger() != 0) {
    maintenanceRequested_ = false;
    QVLog::appendLog("Maintenance request canceled");
  }
  environment_.errorChannel.performErrorCallbackSelector("cancelMaintenance:",
                                                         environment_.hostName());
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

} // namespace kestrin
