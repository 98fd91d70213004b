#include "operations/ErrorChannel.h"

#include <algorithm>
#include <chrono>

#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"
#include "operations/ExceptionGuard.h"

namespace kestrin::operations {

namespace {

std::size_t argumentCount(const std::string& selector) {
  return static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
}

bool contains(const std::vector<plist::ObjectRef>& list, const plist::ObjectRef& object) {
  return std::find(list.begin(), list.end(), object) != list.end();
}

// What the dead collect while callbacks are served side by side.
class DeadList {
public:
  void add(const plist::ObjectRef& object) {
    std::lock_guard lock(mutex_);
    dead_.push_back(object);
  }
  std::vector<plist::ObjectRef> take() {
    std::lock_guard lock(mutex_);
    return std::move(dead_);
  }

private:
  std::mutex mutex_;
  std::vector<plist::ObjectRef> dead_;
};

} // namespace

ErrorChannel::ErrorChannel(Environment environment)
    : environment_(std::move(environment)), callbacks_(std::make_shared<const Callbacks>()) {}

ErrorChannel::~ErrorChannel() {
  invalidateTaskFinishTimeoutTimer();
}

bool ErrorChannel::isEventSelector(std::string_view selector) {
  static constexpr std::string_view kEvents[] = {"addErrorToQueue:hostname:",
                                                 "addErrorToQueue:userInfo:",
                                                 "addStringToQueue:hostname:",
                                                 "addStringToQueue:userInfo:",
                                                 "addExceptionToQueue:hostname:",
                                                 "incrementProgress",
                                                 "taskFinished",
                                                 "updateConfig:",
                                                 "willDisconnect:",
                                                 "setSoftwareUpdateCount:hostname:",
                                                 "tovellAddLogs:hostName:",
                                                 "requestMaintenance:",
                                                 "cancelMaintenance:",
                                                 "forceConfigReload:",
                                                 "ping",
                                                 "cancelProcessing"};
  return std::find(std::begin(kEvents), std::end(kEvents), selector) != std::end(kEvents);
}

std::shared_ptr<const ErrorChannel::Callbacks> ErrorChannel::snapshot() const {
  std::lock_guard lock(callbacksMutex_);
  return callbacks_;
}

std::vector<plist::ObjectRef> ErrorChannel::errorCallbacks() const {
  std::vector<plist::ObjectRef> objects;
  for (const Registered& callback : *snapshot()) {
    objects.push_back(callback.object);
  }
  return objects;
}

void ErrorChannel::replaceCallbacksWithout(const Callbacks& snapshot,
                                           const std::vector<plist::ObjectRef>& dead) {
  auto kept = std::make_shared<Callbacks>();
  for (const Registered& callback : snapshot) {
    if (!contains(dead, callback.object)) {
      kept->push_back(callback);
    }
  }
  std::lock_guard lock(callbacksMutex_);
  callbacks_ = std::move(kept);
}

void ErrorChannel::setErrorCallback(const plist::ObjectRef& callback, std::uint64_t owner) {
  // Pinging can take as long as a peer takes to answer (up to its reply limit), so it runs on
  // a snapshot, every callback at once; a callback registered meanwhile by another admin may be
  // lost when a dead one is pruned (last writer wins, as the list has always behaved).
  std::shared_ptr<const Callbacks> registered = snapshot();
  DeadList dead;
  std::vector<std::function<void()>> pings;
  for (const Registered& each : *registered) {
    pings.push_back([&dead, object = each.object] {
      try {
        if (object->respondsTo("ping")) {
          object->invoke("ping", {});
        } else {
          dead.add(object);
        }
      } catch (const NamedException&) {
        dead.add(object);
      }
    });
  }
  environment_.workers.runAll(std::move(pings));
  std::vector<plist::ObjectRef> gone = dead.take();
  if (!gone.empty()) {
    replaceCallbacksWithout(*registered, gone);
  }
  if (!callback) {
    return;
  }
  std::lock_guard lock(callbacksMutex_);
  bool known = std::any_of(callbacks_->begin(), callbacks_->end(),
                           [&](const Registered& each) { return each.object == callback; });
  if (!known) {
    auto grown = std::make_shared<Callbacks>(*callbacks_);
    grown->push_back({callback, owner});
    callbacks_ = std::move(grown);
  }
}

void ErrorChannel::performErrorCallbackSelector(const std::string& selector,
                                                const plist::Value& first,
                                                const plist::Value& second) {
  std::vector<plist::Value> arguments;
  std::size_t count = argumentCount(selector);
  if (count >= 1) {
    arguments.push_back(first);
  }
  if (count >= 2) {
    arguments.push_back(second);
  }
  std::shared_ptr<const Callbacks> registered = snapshot();
  // One run per admin, in order of each admin's first registration; within it, that admin's
  // callbacks in their order.
  std::vector<std::vector<plist::ObjectRef>> byOwner;
  std::vector<std::uint64_t> owners;
  for (const Registered& each : *registered) {
    auto at = std::find(owners.begin(), owners.end(), each.owner);
    if (at == owners.end()) {
      owners.push_back(each.owner);
      byOwner.emplace_back();
      at = owners.end() - 1;
    }
    byOwner[static_cast<std::size_t>(at - owners.begin())].push_back(each.object);
  }
  DeadList dead;
  std::vector<std::function<void()>> runs;
  for (const auto& objects : byOwner) {
    runs.push_back([&, &objects = objects] {
      for (const plist::ObjectRef& object : objects) {
        try {
          if (!object->respondsTo(selector)) {
            QVLog::appendLog("Error: error callback object does not respond to selector {}.",
                             selector);
            return;
          }
          object->invoke(selector, arguments);
        } catch (const NamedException&) {
          dead.add(object);
        }
      }
    });
  }
  environment_.workers.runAll(std::move(runs));
  std::vector<plist::ObjectRef> gone = dead.take();
  if (!gone.empty()) {
    replaceCallbacksWithout(*registered, gone);
  }
}

// ---- events

void ErrorChannel::postError(const plist::ErrorRecord& error) {
  performErrorCallbackSelector("addErrorToQueue:hostname:", error, environment_.hostName());
}

void ErrorChannel::postError(const plist::ErrorRecord& error, const plist::Value& userInfo) {
  plist::Dictionary info = userInfo.asDictionary() ? *userInfo.asDictionary() : plist::Dictionary();
  info.set("hostname", environment_.hostName());
  performErrorCallbackSelector("addErrorToQueue:userInfo:", error, std::move(info));
}

void ErrorChannel::postErrorWithCode(std::int64_t code, const std::optional<std::string>& info) {
  plist::ErrorRecord error{kErrorDomain, code, {}};
  if (info) {
    error.userInfo.set("info", *info);
  }
  // The null user information is deliberate: entries made from a code carry no "appName".
  performErrorCallbackSelector("addErrorToQueue:userInfo:", std::move(error), plist::Value());
}

void ErrorChannel::postErrorString(const std::string& message) {
  performErrorCallbackSelector("addStringToQueue:hostname:", message, environment_.hostName());
}

void ErrorChannel::postErrorString(const std::string& message, const plist::Value& userInfo) {
  plist::Dictionary info = userInfo.asDictionary() ? *userInfo.asDictionary() : plist::Dictionary();
  info.set("hostname", environment_.hostName());
  performErrorCallbackSelector("addStringToQueue:userInfo:", message, std::move(info));
}

void ErrorChannel::incrementRemoteProgress() {
  performErrorCallbackSelector("incrementProgress");
}

// ---- finished-task deadline

void ErrorChannel::shouldPostFinishedTaskWithTimeout(double seconds) {
  shouldPostFinishedTask_ = true;
  invalidateTaskFinishTimeoutTimer();
  std::lock_guard lock(timerMutex_);
  std::uint64_t generation = ++deadlineGeneration_;
  // The deadline's work calls every admin's callback: a worker does it, not the timer. A
  // deadline replaced or cancelled while its work waited for a worker does nothing.
  taskFinishTimeoutTimer_ =
      environment_.timer.runAfter(platform::Clock::seconds(seconds), [this, generation] {
        environment_.workers.submit([this, generation] {
          {
            std::lock_guard lock(timerMutex_);
            if (generation != deadlineGeneration_) {
              return;
            }
          }
          taskFinishTimeout();
        });
      });
}

void ErrorChannel::taskFinishTimeout() {
  QVLog::appendLog("Task timed out. Finishing...");
  {
    std::lock_guard lock(timerMutex_);
    taskFinishTimeoutTimer_ = 0; // it has fired
  }
  postFinishedTask();
}

void ErrorChannel::invalidateTaskFinishTimeoutTimer() {
  Timer::Id timer;
  {
    std::lock_guard lock(timerMutex_);
    timer = std::exchange(taskFinishTimeoutTimer_, 0);
    ++deadlineGeneration_;
  }
  environment_.timer.cancel(timer);
}

void ErrorChannel::postFinishedTask() {
  if (shouldPostFinishedTask_.exchange(false)) {
    invalidateTaskFinishTimeoutTimer();
    performErrorCallbackSelector("taskFinished");
  }
}

// ---- fan-out and join

void ErrorChannel::beginProcessing() {
  processingCancelled_ = false;
  {
    std::lock_guard lock(processingMutex_);
    isProcessing_ = true;
  }
  resetThreadedObjectDict();
}

bool ErrorChannel::isProcessing() const {
  std::lock_guard lock(processingMutex_);
  return isProcessing_;
}

std::int32_t ErrorChannel::taskThreadCount() const {
  std::lock_guard lock(processingMutex_);
  return taskThreadCount_;
}

void ErrorChannel::incrementTaskThreadCount() {
  std::lock_guard lock(processingMutex_);
  ++taskThreadCount_;
}

void ErrorChannel::decrementTaskThreadCount() {
  std::lock_guard lock(processingMutex_);
  if (--taskThreadCount_ < 1) {
    isProcessing_ = false;
    taskThreadCount_ = 0;
    condition_.notify_all();
  }
}

void ErrorChannel::waitOnProcessing() {
  if (environment_.isMainThread()) {
    QVLog::appendLog("Error: trying to wait on main thread. Aborting...");
    return;
  }
  std::unique_lock lock(processingMutex_);
  condition_.wait(lock, [this] { return !isProcessing_; });
}

void ErrorChannel::threadedObjectDictSetObject(const plist::Value& object,
                                               const plist::Value& key) {
  environment_.guard.run("-[AppController threadedObjectDictSetObject:forKey:]", [&] {
    const std::string* name = key.asString();
    if (object.isNull() || name == nullptr) {
      return;
    }
    std::lock_guard lock(processingMutex_);
    threadedObjectDict_.set(*name, object);
  });
}

void ErrorChannel::resetThreadedObjectDict() {
  std::lock_guard lock(processingMutex_);
  threadedObjectDict_ = plist::Dictionary();
}

plist::Dictionary ErrorChannel::threadedObjectDict() const {
  std::lock_guard lock(processingMutex_);
  return threadedObjectDict_;
}

// ---- notifications

void ErrorChannel::taskIncrementProgress(const plist::Dictionary&) {
  incrementRemoteProgress();
}

void ErrorChannel::taskFinished(const plist::Dictionary&) {
  postFinishedTask();
  performErrorCallbackSelector("updateConfig:", environment_.hostName());
}

void ErrorChannel::taskError(const plist::Dictionary& userInfo) {
  environment_.guard.run("-[AppController taskError:]", [&] {
    if (const plist::Value* code = userInfo.find("errorCode")) {
      postErrorWithCode(code->integerValue().value_or(0), std::nullopt);
    } else if (const plist::Value* message = userInfo.find("errorString")) {
      postErrorString(message->asString() ? *message->asString() : plist::describe(*message),
                      plist::Value());
    } else {
      QVLog::appendLog("Task error returned but no error data was found. User info: {}",
                       plist::describe(plist::Value(userInfo)));
    }
  });
}

} // namespace kestrin::operations
