// The status text and the maintenance request that the user at this machine can send to the
// administration application.

#include <filesystem>
#include <iostream>

#include "app/AppController.h"
#include "foundation/QVLog.h"
#include "platform/FileBytes.h"

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

void AppController::setupIconDict() {
  static constexpr std::pair<const char*, const char*> kImages[] = {
      {"normal", "spanner-18.png"},
      {"highlight", "spanner-highlight-18.png"},
      {"maintenance", "spanner-maintenance-18.png"},
      {"disconnected", "spanner-disconnected-18.png"},
      {"smallServiceIcon", "smallServiceIcon.png"},
      {"largeServiceIcon", "largeServiceIcon.png"},
  };
  constexpr std::size_t kImageLimit = 1 << 20;
  std::filesystem::path resources =
      std::filesystem::path(bundlePath().value_or("")) / "Contents/Resources";
  plist::Dictionary icons;
  for (const auto& [role, file] : kImages) {
    auto bytes = platform::readFileBytes((resources / file).string(), kImageLimit);
    if (bytes) {
      icons.set(role, std::move(*bytes));
    } else {
      QVLog::appendLog("Could not load image {}", bytes.message());
    }
  }
  std::lock_guard lock(stateMutex_);
  iconDict_ = std::move(icons);
}

plist::Value AppController::iconDict() const {
  std::lock_guard lock(stateMutex_);
  return iconDict_;
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
