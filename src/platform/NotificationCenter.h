#pragma once

#include <functional>
#include <memory>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// Distributed notifications between processes of the same user session: a name and a
// property-list dictionary of user information, delivered to every observer of that name in
// every process, the poster's own included.
class NotificationCenter {
public:
  using Handler = std::function<void(const plist::Dictionary& userInfo)>;
  // Why the bus went away; runs once, on the bus's thread, after delivery has ended.
  using LostHandler = std::function<void(const std::string& reason)>;

  // Delivery to one observer lasts as long as this token; dropping it ends delivery. Tokens
  // must be dropped before the center that made them.
  class Observation {
  public:
    Observation() = default;
    explicit Observation(std::shared_ptr<void> slot) : slot_(std::move(slot)) {}
    explicit operator bool() const { return slot_ != nullptr; }

  private:
    std::shared_ptr<void> slot_;
  };

  virtual ~NotificationCenter() = default;

  // The session bus; a Failure when there is none (no DBUS_SESSION_BUS_ADDRESS, no runtime
  // folder, no daemon), and the caller runs without notifications. When the bus ends later
  // (its daemon stopped, the session closed), lost is told: this center then posts and
  // delivers nothing, and a working one must be connected anew.
  static Expected<std::unique_ptr<NotificationCenter>> connectSessionBus(LostHandler lost = {});

  // False once the bus went away.
  virtual bool isConnected() const = 0;

  // Fire and forget. Safe from any thread.
  virtual void post(const std::string& name, const plist::Dictionary& userInfo) = 0;
  // Handlers run on the bus's own thread, one at a time. Safe from any thread.
  virtual Observation observe(const std::string& name, Handler handler) = 0;
};

} // namespace kestrin::platform
