#include "app/SystemEvents.h"

#include "foundation/QVLog.h"
#include "foundation/QVUserSwitch.h"
#include "foundation/WorkerPool.h"

namespace kestrin {

SystemEvents::SystemEvents(WorkerPool& workers, Handlers& handlers)
    : workers_(workers), handlers_(handlers) {}

SystemEvents::~SystemEvents() {
  stop();
}

void SystemEvents::start() {
  // The watcher's local notifications, as the controller observes them.
  userSwitch_ = std::make_unique<QVUserSwitch>([this](const std::string& name) {
    queue(name == QVUserSwitch::kUserSwitchIn ? Event::LogIn : Event::LogOut);
  });
  userSwitch_->setup();

  auto manager = platform::LoginManager::connectSystemBus(*this);
  if (!manager) {
    QVLog::appendLog("System events are off: {}", manager.message());
  } else if (!(*manager)->loginManagerPresent()) {
    QVLog::appendLog("System events are off until a login manager starts on the system bus.");
  }
  std::lock_guard lock(mutex_);
  if (manager) {
    loginManager_ = std::move(*manager);
  }
  started_ = true;
  drainLater();
}

void SystemEvents::stop() {
  std::unique_ptr<platform::LoginManager> manager;
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    events_.clear();
    manager = std::move(loginManager_);
  }
  userSwitch_.reset();
  manager.reset();
}

bool SystemEvents::holdsDelayLock() const {
  std::lock_guard lock(mutex_);
  return loginManager_ && loginManager_->holdsDelayLock();
}

void SystemEvents::prepareForSleep(bool starting) {
  queue(starting ? Event::Sleep : Event::Wake);
}

void SystemEvents::prepareForShutdown(bool starting) {
  if (starting) {
    queue(Event::Shutdown);
  }
}

void SystemEvents::sessionActiveChanged(bool active) {
  queue(active ? Event::LogIn : Event::LogOut);
}

void SystemEvents::loginManagerLost(const std::string& reason) {
  QVLog::appendLog("System events are off: {}", reason);
}

void SystemEvents::queue(Event event) {
  std::lock_guard lock(mutex_);
  if (ended_) {
    return;
  }
  events_.push_back(event);
  drainLater();
}

void SystemEvents::drainLater() {
  if (draining_ || !started_ || events_.empty()) {
    return;
  }
  draining_ = workers_.submit([this] { drain(); });
  if (!draining_) {
    events_.clear(); // the agent is ending
  }
}

void SystemEvents::drain() {
  for (;;) {
    Event event;
    bool superseded;
    {
      std::lock_guard lock(mutex_);
      if (events_.empty()) {
        draining_ = false;
        return;
      }
      event = events_.front();
      events_.pop_front();
      superseded = !events_.empty() && event != Event::Shutdown &&
                   (event != Event::Sleep || events_.front() == Event::Wake);
    }
    handle(event, superseded);
  }
}

void SystemEvents::handle(Event event, bool superseded) {
  platform::LoginManager* manager;
  {
    std::lock_guard lock(mutex_);
    manager = loginManager_.get();
  }
  switch (event) {
  case Event::Sleep:
    if (!superseded) {
      handlers_.systemSleep();
      if (manager != nullptr) {
        manager->releaseDelayLock();
      }
    }
    break;
  case Event::Wake:
    if (manager != nullptr) {
      if (auto taken = manager->takeDelayLock(); !taken) {
        QVLog::appendLog("Unable to delay sleep and shutdown: {}", taken.message());
      }
    }
    if (!superseded) {
      handlers_.systemWake();
    }
    break;
  case Event::LogIn:
    if (!superseded) {
      handlers_.userLogIn();
    }
    break;
  case Event::LogOut:
    if (!superseded) {
      handlers_.userLogOut();
    }
    break;
  case Event::Shutdown: {
    {
      std::lock_guard lock(mutex_);
      ended_ = true; // the agent ends: what comes later no longer matters
      events_.clear();
    }
    handlers_.systemShutdown();
    if (manager != nullptr) {
      manager->releaseDelayLock();
    }
    break;
  }
  }
}

} // namespace kestrin
