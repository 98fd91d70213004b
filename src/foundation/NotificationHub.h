#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/Timer.h"
#include "platform/NotificationCenter.h"

namespace kestrin {

class WorkerPool;

// The agent's distributed notifications: the session bus when there is one, otherwise nothing
// (posts go nowhere, observations wait). Components post and observe through this one object,
// so none of them needs to know whether the bus exists.
//
// A hub given a timer and workers outlives its bus: when the bus goes away (or is not there at
// the start) it logs once that notifications are off, tries again on the timer with a growing
// pause, and once a bus answers it observes everything anew. Observations last across these
// reconnections.
//
// Thread-safe. The timer and the workers must outlive the hub or be stopped before it goes.
class NotificationHub {
public:
  using Observation = platform::NotificationCenter::Observation;
  using Handler = platform::NotificationCenter::Handler;

  // The pauses between attempts to reach a bus: the first, doubled after each failure up to
  // the last.
  static constexpr platform::Clock::Duration kFirstRetry = std::chrono::seconds(1);
  static constexpr platform::Clock::Duration kLongestRetry = std::chrono::seconds(60);

  // No reconnection: a lost bus leaves notifications off.
  NotificationHub() = default;
  // Reconnects on the timer; the attempts, which talk to the bus, run on the workers.
  NotificationHub(Timer& timer, WorkerPool& workers);
  // disconnect().
  ~NotificationHub();
  NotificationHub(const NotificationHub&) = delete;
  NotificationHub& operator=(const NotificationHub&) = delete;

  // Connects to the session bus; without one, notifications are off (logged once) until a
  // reconnection finds one.
  void connectSessionBus();
  bool isConnected() const;

  void post(const std::string& name, const plist::Dictionary& userInfo);
  // Handlers run on the bus's own thread: hand anything slow to a worker. Delivery starts once
  // a bus is there and lasts, across reconnections, as long as the observation.
  Observation observe(const std::string& name, Handler handler);

  // Ends delivery to every observer and every reconnection; later posts go nowhere. Not from a
  // handler.
  void disconnect();

private:
  struct Observer;
  using CenterPtr = std::shared_ptr<platform::NotificationCenter>;

  Expected<std::unique_ptr<platform::NotificationCenter>> open(std::uint64_t generation);
  void attach(std::uint64_t generation, Expected<std::unique_ptr<platform::NotificationCenter>>);
  void busLost(std::uint64_t generation, const std::string& reason);
  void scheduleReconnectLocked();
  void reconnect();
  // Observes on center unless it is no longer the hub's current one.
  void subscribe(Observer& observer, const CenterPtr& center);
  std::vector<std::shared_ptr<Observer>> liveObservers();
  CenterPtr center() const;

  Timer* timer_ = nullptr;
  WorkerPool* workers_ = nullptr;

  mutable std::mutex mutex_;
  CenterPtr center_;
  // A center whose bus went away, ended on a worker: its own thread cannot end it.
  CenterPtr lost_;
  std::uint64_t generation_ = 0; // of center_; each connection attempt takes the next
  std::uint64_t attempts_ = 0;
  std::vector<std::weak_ptr<Observer>> observers_;
  Timer::Id retry_ = 0;
  platform::Clock::Duration pause_ = kFirstRetry;
  bool closed_ = false;
};

} // namespace kestrin
