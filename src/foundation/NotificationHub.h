#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/NotificationCenter.h"

namespace kestrin {

// The agent's distributed notifications: the session bus when there is one, otherwise nothing
// (posts go nowhere, observations never fire). Components post and observe through this one
// object, so none of them needs to know whether the bus exists.
//
// Thread-safe.
class NotificationHub {
public:
  using Observation = platform::NotificationCenter::Observation;
  using Handler = platform::NotificationCenter::Handler;

  NotificationHub() = default;
  explicit NotificationHub(std::unique_ptr<platform::NotificationCenter> center)
      : center_(std::move(center)) {}

  // Connects to the session bus; without one, notifications are off (logged once).
  void connectSessionBus();
  bool isConnected() const;

  void post(const std::string& name, const plist::Dictionary& userInfo);
  // Handlers run on the bus's own thread: hand anything slow to a worker. An empty observation
  // when notifications are off.
  Observation observe(const std::string& name, Handler handler);

  // Ends delivery to every observer; later posts go nowhere.
  void disconnect();

private:
  std::shared_ptr<platform::NotificationCenter> center() const;

  mutable std::mutex mutex_;
  std::shared_ptr<platform::NotificationCenter> center_;
};

} // namespace kestrin
