#include "operations/CallbackRelay.h"

#include <vector>

#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"
#include "operations/ExceptionGuard.h"

namespace kestrin::operations {

CallbackRelay::~CallbackRelay() {
  std::map<std::string, NotificationHub::Observation> observed;
  {
    std::lock_guard lock(mutex_);
    observed.swap(observed_);
    relays_.clear();
  }
}

void CallbackRelay::setupCallbackListener(const Caller& caller, const plist::ObjectRef& callback,
                                          const std::string& name) {
  QVLog::appendLog("Setting up callback listener");
  std::lock_guard lock(mutex_);
  relays_[caller.connection] = {callback, name};
  if (observed_.count(name) == 0) {
    observed_[name] = notifications_.observe(name, [this, name](const plist::Dictionary& userInfo) {
      // Off the bus's thread: the record is a remote object that may take long to answer.
      workers_.submit([this, name, userInfo] { notified(name, userInfo); });
    });
  }
}

void CallbackRelay::executeCallback(const Caller& caller, const std::string& name,
                                    const plist::Dictionary& userInfo) {
  QVLog::appendLog("Posting callback");
  plist::ObjectRef callback;
  NotificationHub::Observation finished; // dropped outside the lock
  {
    std::lock_guard lock(mutex_);
    auto observed = observed_.find(name);
    if (observed != observed_.end()) {
      finished = std::move(observed->second);
      observed_.erase(observed);
    }
    auto relay = relays_.find(caller.connection);
    if (relay != relays_.end()) {
      callback = std::move(relay->second.first);
      relays_.erase(relay);
    }
  }
  post(callback, userInfo);
}

void CallbackRelay::notified(const std::string& name, const plist::Dictionary& userInfo) {
  QVLog::appendLog("Posting callback");
  std::vector<plist::ObjectRef> callbacks;
  NotificationHub::Observation finished;
  {
    std::lock_guard lock(mutex_);
    auto observed = observed_.find(name);
    if (observed != observed_.end()) {
      finished = std::move(observed->second);
      observed_.erase(observed);
    }
    for (auto relay = relays_.begin(); relay != relays_.end();) {
      if (relay->second.second == name) {
        callbacks.push_back(std::move(relay->second.first));
        relay = relays_.erase(relay);
      } else {
        ++relay;
      }
    }
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
  guard_.run("-[AppController executeCallback:]",
             [&] { callback->invoke("postCallback:", {plist::Value(userInfo)}); });
}

} // namespace kestrin::operations
