#include "foundation/NotificationHub.h"

#include "foundation/QVLog.h"

namespace kestrin {

void NotificationHub::connectSessionBus() {
  auto center = platform::NotificationCenter::connectSessionBus();
  if (!center) {
    QVLog::appendLog("Distributed notifications are off: {}", center.message());
    return;
  }
  std::lock_guard lock(mutex_);
  center_ = std::move(*center);
}

bool NotificationHub::isConnected() const {
  return center() != nullptr;
}

std::shared_ptr<platform::NotificationCenter> NotificationHub::center() const {
  std::lock_guard lock(mutex_);
  return center_;
}

void NotificationHub::post(const std::string& name, const plist::Dictionary& userInfo) {
  if (auto bus = center()) {
    bus->post(name, userInfo);
  }
}

NotificationHub::Observation NotificationHub::observe(const std::string& name, Handler handler) {
  if (auto bus = center()) {
    return bus->observe(name, std::move(handler));
  }
  return {};
}

void NotificationHub::disconnect() {
  std::shared_ptr<platform::NotificationCenter> bus;
  {
    std::lock_guard lock(mutex_);
    bus.swap(center_);
  }
  // The bus's thread ends here, outside the lock, so a handler that posts cannot deadlock.
  bus.reset();
}

} // namespace kestrin
