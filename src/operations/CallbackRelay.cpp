#include "operations/CallbackRelay.h"

#include <vector>

#include "foundation/QVException.h"
#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"

namespace kestrin::operations {

CallbackRelay::~CallbackRelay() {
  std::map<std::string, NotificationHub::Observation> observed;
  {
    std::lock_guard lock(mutex_);
    observed.swap(observed_);
    relays_.clear();
  }
}

void CallbackRelay::observeLocked(const std::string& name) {
  if (observed_.count(name) != 0) {
    return;
  }
  observed_[name] = notifications_.observe(name, [this, name](const plist::Dictionary& userInfo) {
    // Off the bus's thread: the record is a remote object that may take long to answer.
    workers_.submit([this, name, userInfo] { notified(name, userInfo); });
  });
}

NotificationHub::Observation CallbackRelay::unobserveIfUnusedLocked(const std::string& name) {
  for (const auto& [connection, relay] : relays_) {
    if (relay.name == name) {
      return {};
    }
  }
  NotificationHub::Observation finished;
  auto observed = observed_.find(name);
  if (observed != observed_.end()) {
    finished = std::move(observed->second);
    observed_.erase(observed);
  }
  return finished;
}

void CallbackRelay::setupCallbackListener(const Caller& caller, const plist::ObjectRef& callback,
                                          const std::string& name) {
  QVLog::appendLog("Setting up callback listener");
  std::vector<NotificationHub::Observation> finished; // dropped outside the lock
  std::lock_guard lock(mutex_);
  auto own = relays_.find(caller.connection);
  if (own == relays_.end()) {
    // A new relay for this address: its oldest goes when it already holds its share.
    std::size_t held = 0;
    auto oldest = relays_.end();
    for (auto relay = relays_.begin(); relay != relays_.end(); ++relay) {
      if (relay->second.address == caller.address) {
        ++held;
        if (oldest == relays_.end() || relay->second.armed < oldest->second.armed) {
          oldest = relay;
        }
      }
    }
    if (held >= kRelaysPerAddress) {
      std::string oldName = oldest->second.name;
      relays_.erase(oldest);
      finished.push_back(unobserveIfUnusedLocked(oldName));
    }
  }
  std::string previous = own != relays_.end() ? own->second.name : std::string();
  relays_[caller.connection] = Relay{callback, name, caller.address, ++armedCount_};
  observeLocked(name);
  if (!previous.empty() && previous != name) {
    finished.push_back(unobserveIfUnusedLocked(previous));
  }
}

void CallbackRelay::executeCallback(const Caller& caller, const std::string& name,
                                    const plist::Dictionary& userInfo) {
  QVLog::appendLog("Posting callback");
  plist::ObjectRef callback;
  std::vector<NotificationHub::Observation> finished; // dropped outside the lock
  {
    std::lock_guard lock(mutex_);
    auto relay = relays_.find(caller.connection);
    if (relay != relays_.end()) {
      callback = std::move(relay->second.record);
      std::string armedName = std::move(relay->second.name);
      relays_.erase(relay);
      finished.push_back(unobserveIfUnusedLocked(armedName));
    }
    finished.push_back(unobserveIfUnusedLocked(name));
  }
  post(callback, userInfo);
}

void CallbackRelay::notified(const std::string& name, const plist::Dictionary& userInfo) {
  QVLog::appendLog("Posting callback");
  std::vector<plist::ObjectRef> callbacks;
  NotificationHub::Observation finished;
  {
    std::lock_guard lock(mutex_);
    for (auto relay = relays_.begin(); relay != relays_.end();) {
      if (relay->second.name == name) {
        callbacks.push_back(std::move(relay->second.record));
        relay = relays_.erase(relay);
      } else {
        ++relay;
      }
    }
    finished = unobserveIfUnusedLocked(name);
  }
  if (callbacks.empty()) {
    post(nullptr, userInfo);
  }
  for (const plist::ObjectRef& callback : callbacks) {
    post(callback, userInfo);
  }
}

void CallbackRelay::post(const plist::ObjectRef& callback, const plist::Dictionary& userInfo) {
  if (!callback) {
    QVLog::appendLog("Error: callback object not found.");
    return;
  }
  try {
    callback->invoke("postCallback:", {plist::Value(userInfo)});
  } catch (const NamedException& exception) {
    // The record's own failure, a missed reply limit included: logged as the common guard
    // would, but it restarts nothing, so one caller's record cannot disconnect everyone.
    QVException::logException(exception, "-[AppController executeCallback:]");
  }
}

} // namespace kestrin::operations
