// The status text and the maintenance request that the user at this machine can send to the
// administration application.

#include <iostream>

#include "app/AppController.h"
#include "foundation/QVLog.h"

namespace kestrin {

void AppController::updateStatus(const std::string& status) {
  std::cout << status << std::endl;
  QVLog::appendLog("{}", status);
  {
    std::lock_guard lock(stateMutex_);
    statusString_ = status;
  }
  notifyCurrentStatus();
}

void AppController::notifyCurrentStatus() {
  postNotification("QVKestrinStatusUpdate", {{"status", statusString()}});
}

void AppController::hideMenuBarItem() {
  QVLog::appendLog("Hiding menu bar item...");
  if (!isQuitting_) {
    cancelMaintenanceRequest();
  }
}

void AppController::sendMaintenanceRequest() {
  QVLog::appendLog("Sending maintenance request...");
  maintenanceRequested_ = true;
  QVLog::appendLog("Maintenance request sent");
  errorChannel_.performErrorCallbackSelector("requestMaintenance:", hostName());
}

void AppController::cancelMaintenanceRequest() {
  QVLog::appendLog("Canceling maintenance request...");
  if (objectForPreferenceDictionaryKey("enableMaintenanceRequests").asInteger() != 0) {
    maintenanceRequested_ = false;
    QVLog::appendLog("Maintenance request canceled");
  }
  errorChannel_.performErrorCallbackSelector("cancelMaintenance:", hostName());
}

void AppController::enableMaintenance() {
  QVLog::appendLog("Maintenance enabled");
  environment_.mainLoop.runOnMainThreadAndWait([this] { showMenuBarItem(); });
}

void AppController::disableMaintenance() {
  QVLog::appendLog("Maintenance disabled");
  maintenanceRequested_ = false;
  environment_.mainLoop.runOnMainThreadAndWait([this] { showMenuBarItem(); });
}

} // namespace kestrin
