// DNS-SD advertisement of the listening endpoint as "_kestrin._tcp.": the controller supplies
// what the endpoint is; ServiceAdvertisement does the publishing.

#include "app/AppController.h"
#include "app/ServiceState.h"
#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "plist/PropertyList.h"

namespace kestrin {

void AppController::publishService() {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  exceptionGuard_.run("-[AppController publishService]", [&] {
    s.advertisement.publishService({s.listenPortNumber, s.listenIPAddress, s.listenBSDName,
                                    s.pdoName, QVSysInfo::shared().machineType()});
  });
}

void AppController::netServiceDidNotPublish(const plist::Dictionary& error) {
  updateStatus("Failed to publish. Retrying in 10 seconds...");
  QVLog::console("Failed to publish: {}", plist::describe(plist::Value(error)));
  reconnectWithTimeInterval(10.0);
}

void AdvertisementDelegate::netServiceDidNotPublish(const plist::Dictionary& error) {
  controller_.netServiceDidNotPublish(error);
}

} // namespace kestrin
