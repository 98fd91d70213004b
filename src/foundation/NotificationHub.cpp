#include "foundation/NotificationHub.h"

#include <algorithm>

#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"

namespace kestrin {

// One observer, kept by the token its caller holds. Its subscription names the center it was
// made on, so the token always goes before that center.
struct NotificationHub::Observer {
  struct Subscription {
    CenterPtr center;
    Observation token; // declared last, so it goes before the center it came from
  };

  Observer(std::string name, Handler handler)
      : name(std::move(name)), handler(std::move(handler)) {}

  const std::string name;
  const Handler handler;
  std::mutex mutex;                   // held while subscribing, so a disconnect waits for it
  std::unique_ptr<Subscription> live; // under mutex
};

NotificationHub::NotificationHub(Timer& timer, WorkerPool& workers)
    : timer_(&timer), workers_(&workers) {}

NotificationHub::~NotificationHub() {
  disconnect();
}

void NotificationHub::connectSessionBus() {
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    if (closed_ || center_) {
      return;
    }
    generation = ++attempts_;
  }
  auto center = open(generation);
  if (!center) {
    QVLog::appendLog("Distributed notifications are off: {}", center.message());
  }
  attach(generation, std::move(center));
}

Expected<std::unique_ptr<platform::NotificationCenter>>
NotificationHub::open(std::uint64_t generation) {
  return platform::NotificationCenter::connectSessionBus(
      [this, generation](const std::string& reason) { busLost(generation, reason); });
}

// Makes a fresh connection current and observes everything on it, or schedules the next try.
void NotificationHub::attach(std::uint64_t generation,
                             Expected<std::unique_ptr<platform::NotificationCenter>> connected) {
  CenterPtr center;
  {
    std::lock_guard lock(mutex_);
    if (closed_) {
      return;
    }
    if (!connected) {
      scheduleReconnectLocked();
      return;
    }
    center = std::move(*connected);
    center_ = center;
    generation_ = generation;
    pause_ = kFirstRetry;
  }
  for (const auto& observer : liveObservers()) {
    subscribe(*observer, center);
  }
  if (!center->isConnected()) {
    // Lost before it was current: its own report found nothing to act on.
    busLost(generation, "the session bus went away");
  }
}

void NotificationHub::busLost(std::uint64_t generation, const std::string& reason) {
  {
    std::lock_guard lock(mutex_);
    if (closed_ || !center_ || generation != generation_) {
      return;
    }
    lost_ = std::move(center_);
    scheduleReconnectLocked();
  }
  QVLog::appendLog("Distributed notifications are off: {}", reason);
}

void NotificationHub::scheduleReconnectLocked() {
  if (timer_ == nullptr || retry_ != 0) {
    return;
  }
  platform::Clock::Duration pause = pause_;
  pause_ = std::min(pause_ * 2, kLongestRetry);
  // The timer only hands over: connecting talks to the bus, which can take a while.
  retry_ = timer_->runAfter(pause, [this] {
    if (!workers_->submit([this] { reconnect(); })) {
      std::lock_guard lock(mutex_);
      retry_ = 0;
    }
  });
}

void NotificationHub::reconnect() {
  CenterPtr lost;
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    retry_ = 0;
    if (closed_ || center_) {
      return;
    }
    lost = std::move(lost_);
    generation = ++attempts_;
  }
  if (lost) {
    for (const auto& observer : liveObservers()) {
      std::lock_guard lock(observer->mutex);
      if (observer->live && observer->live->center == lost) {
        observer->live.reset();
      }
    }
    lost.reset(); // joins its finished thread, here rather than on that thread
  }
  auto connected = open(generation);
  bool ok = connected.ok();
  attach(generation, std::move(connected));
  if (ok && isConnected()) {
    QVLog::appendLog("Distributed notifications are on again.");
  }
}

void NotificationHub::subscribe(Observer& observer, const CenterPtr& center) {
  std::lock_guard observing(observer.mutex);
  {
    std::lock_guard lock(mutex_);
    if (center_ != center) {
      return; // lost or disconnected meanwhile
    }
  }
  if (observer.live && observer.live->center == center) {
    return;
  }
  auto subscription = std::make_unique<Observer::Subscription>();
  subscription->center = center;
  subscription->token = center->observe(observer.name, observer.handler);
  observer.live = std::move(subscription);
}

std::vector<std::shared_ptr<NotificationHub::Observer>> NotificationHub::liveObservers() {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Observer>> live;
  for (const auto& weak : observers_) {
    if (auto observer = weak.lock()) {
      live.push_back(std::move(observer));
    }
  }
  return live;
}

bool NotificationHub::isConnected() const {
  auto bus = center();
  return bus && bus->isConnected();
}

NotificationHub::CenterPtr NotificationHub::center() const {
  std::lock_guard lock(mutex_);
  return center_;
}

void NotificationHub::post(const std::string& name, const plist::Dictionary& userInfo) {
  if (auto bus = center()) {
    bus->post(name, userInfo);
  }
}

NotificationHub::Observation NotificationHub::observe(const std::string& name, Handler handler) {
  auto observer = std::make_shared<Observer>(name, std::move(handler));
  CenterPtr bus;
  {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
    observers_.push_back(observer);
    bus = center_;
  }
  if (bus) {
    subscribe(*observer, bus);
  }
  return Observation(std::shared_ptr<void>(std::move(observer)));
}

void NotificationHub::disconnect() {
  CenterPtr bus;
  CenterPtr lost;
  Timer::Id retry;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    bus = std::move(center_);
    lost = std::move(lost_);
    retry = std::exchange(retry_, 0);
  }
  if (retry != 0) {
    timer_->cancel(retry);
  }
  for (const auto& observer : liveObservers()) {
    std::lock_guard lock(observer->mutex);
    observer->live.reset();
  }
  // The bus's thread ends here, outside the lock, so a handler that posts cannot deadlock.
  bus.reset();
  lost.reset();
}

} // namespace kestrin
