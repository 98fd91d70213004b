#pragma once

#include <memory>
#include <string>

#include "support/Expected.h"

namespace kestrin::platform {

// The login manager's events on the system bus: the machine about to sleep, waking, about to
// shut down, and the agent's own session becoming active or inactive (another user switched
// in, or back); and a "delay" lock that holds sleep and shutdown back until the agent has
// stopped its service.
//
// Events are taken only from the connection that owns the login manager's name, followed as
// it changes hands: the same signals sent by anyone else are ignored.
class LoginManager {
public:
  // Runs on the bus's thread, one call at a time: hand real work elsewhere. A handler may take
  // or release the lock.
  class Delegate {
  public:
    virtual ~Delegate() = default;
    // starting: true before sleeping, false after waking.
    virtual void prepareForSleep(bool starting) = 0;
    // starting: true before shutting down, false when a shutdown was called off.
    virtual void prepareForShutdown(bool starting) = 0;
    virtual void sessionActiveChanged(bool active) = 0;
    // The system bus went away: no event comes any more.
    virtual void loginManagerLost(const std::string& reason) = 0;
  };

  // Ends the bus's thread (the delegate is not called again) and releases the lock.
  virtual ~LoginManager() = default;

  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set) and, when the login manager
  // is there, takes the lock; the lock is taken again whenever the login manager restarts. A
  // Failure when there is no system bus; no login manager is no failure, as it may start later.
  static Expected<std::unique_ptr<LoginManager>> connectSystemBus(Delegate& delegate);

  // Whether the login manager owns its name now.
  virtual bool loginManagerPresent() const = 0;
  // Takes a delay lock for sleep and shutdown unless one is held. Waits for the login manager's
  // answer; a Failure when it refused or is not there.
  virtual Expected<void> takeDelayLock() = 0;
  // Lets the login manager go on with sleeping or shutting down.
  virtual void releaseDelayLock() = 0;
  virtual bool holdsDelayLock() const = 0;
};

} // namespace kestrin::platform
