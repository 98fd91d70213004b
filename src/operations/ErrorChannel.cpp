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

} // namespace

ErrorChannel::ErrorChannel(Environment environment)
    : environment_(std::move(environment)),
      callbacks_(std::make_shared<const std::vector<plist::ObjectRef>>()) {}

ErrorChannel::~ErrorChannel() {
  invalidateTaskFinishTimeoutTimer();
}

std::vector<plist::ObjectRef> ErrorChannel::errorCallbacks() const {
  std::lock_guard lock(callbacksMutex_);
  return *callbacks_;
}

void ErrorChannel::replaceCallbacksWithout(const std::vector<plist::ObjectRef>& snapshot,
                                           const std::vector<plist::ObjectRef>& dead) {
  auto kept = std::make_shared<std::vector<plist::ObjectRef>>();
  for (const plist::ObjectRef& object : snapshot) {
    if (!contains(dead, object)) {
      kept->push_back(object);
    }
  }
  std::lock_guard lock(callbacksMutex_);
  callbacks_ = std::move(kept);
}

void ErrorChannel::setErrorCallback(const plist::ObjectRef& callback) {
  // Pinging can take as long as a peer takes to answer, so it runs on a snapshot; a callback
  // registered meanwhile by another admin may be lost when a dead one is pruned (last writer
  // wins, as the list has always behaved).
  std::vector<plist::ObjectRef> snapshot = errorCallbacks();
  std::vector<plist::ObjectRef> dead;
  for (const plist::ObjectRef& object : snapshot) {
    try {
      if (object->respondsTo("ping")) {
        object->invoke("ping", {});
      } else {
        dead.push_back(object);
      }
    } catch (const NamedException&) {
      dead.push_back(object);
    }
  }
  if (!dead.empty()) {
    replaceCallbacksWithout(snapshot, dead);
  }
  if (!callback) {
    return;
  }
  std::lock_guard lock(callbacksMutex_);
  if (!contains(*callbacks_, callback)) {
    auto grown = std::make_shared<std::vector<plist::ObjectRef>>(*callbacks_);
    grown->push_back(callback);
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
  std::vector<plist::ObjectRef> snapshot = errorCallbacks();
  std::vector<plist::ObjectRef> dead;
  for (const plist::ObjectRef& object : snapshot) {
    try {
      if (!object->respondsTo(selector)) {
        QVLog::appendLog("Error: error callback object does not respond to selector {}.", selector);
        return;
      }
      object->invoke(selector, arguments);
    } catch (const NamedException&) {
      dead.push_back(object);
    }
  }
  if (!dead.empty()) {
    replaceCallbacksWithout(snapshot, dead);
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
