#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/LoginManager.h"

namespace kestrin {

class QVUserSwitch;
class WorkerPool;

// The workstation's own life as the controller hears it: the console user switching away and
// back, the agent's session becoming active or inactive, sleep, wake and shutdown. The
// console-user watcher and the login manager report on threads of their own; here the events
// wait in order and reach the controller one at a time on a worker, so a slow stop never holds
// up the bus and no two handlers overlap.
//
// Events that arrive faster than the handlers run are thinned: an event is dropped when one
// already waits behind it, because every handler begins by stopping the service and the newest
// event decides the state. A shutdown is never dropped, and a sleep only when the machine has
// woken already (a wake waits behind it): the delay lock is released once a sleep's handler
// has stopped the service, and taken again at every wake.
//
// Thread-safe. The workers must be stopped before this object goes.
class SystemEvents : private platform::LoginManager::Delegate {
public:
  // The controller's handlers. Each logs its line, then acts.
  class Handlers {
  public:
    virtual ~Handlers() = default;
    virtual void userLogIn() = 0;
    virtual void userLogOut() = 0;
    virtual void systemShutdown() = 0;
    virtual void systemSleep() = 0;
    virtual void systemWake() = 0;
  };

  SystemEvents(WorkerPool& workers, Handlers& handlers);
  ~SystemEvents() override;
  SystemEvents(const SystemEvents&) = delete;
  SystemEvents& operator=(const SystemEvents&) = delete;

  // Starts the console-user watcher and connects to the login manager. What is missing (no
  // login manager, no system bus) is logged once, and the agent runs on without its events.
  void start();
  // Stops listening: no event is queued afterwards. Waits for the watchers' threads.
  void stop();

  bool holdsDelayLock() const;

private:
  enum class Event { LogIn, LogOut, Sleep, Wake, Shutdown };

  // ---- platform::LoginManager::Delegate, on the bus's thread
  void prepareForSleep(bool starting) override;
  void prepareForShutdown(bool starting) override;
  void sessionActiveChanged(bool active) override;
  void loginManagerLost(const std::string& reason) override;

  void queue(Event event);
  void drain();
  void handle(Event event, bool supersededByNext);

  WorkerPool& workers_;
  Handlers& handlers_;
  std::unique_ptr<QVUserSwitch> userSwitch_;
  std::unique_ptr<platform::LoginManager> loginManager_;

  mutable std::mutex mutex_;
  // Submits drain() for the queued events unless one runs or start() has not finished.
  // Under mutex_.
  void drainLater();

  std::deque<Event> events_; // under mutex_
  bool draining_ = false;    // under mutex_: a worker is on drain()
  bool ended_ = false;       // under mutex_: shut down or stopped, nothing more is queued
  // Under mutex_: start() has finished. The login manager's events can arrive while start()
  // is still storing it, and a sleep handled then could not give its lock back.
  bool started_ = false;
};

} // namespace kestrin
