#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Timer.h"
#include "plist/Value.h"

namespace kestrin {
class ExceptionGuard;
class WorkerPool;
} // namespace kestrin

namespace kestrin::operations {

// The way back to the administration application: the error-callback objects that admins
// register, the events sent to all of them, the finished-task deadline, the fan-out and join
// of worker threads, and the handlers of the local tools' notifications.
//
// Every event goes to every registered callback, and returns once each has taken it or failed.
// The callbacks of different admins (connections) are served side by side, so one that is slow
// or hung holds up no other admin; an admin's own callbacks are served in registration order.
// A callback whose call fails with a named exception (its connection is gone, or it missed its
// reply time limit) is dropped. A callback that lacks the selector ends the delivery of that
// event for the callbacks its own admin registered after it (the admin side avoids this by
// implementing every selector); another admin's callbacks still receive it.
//
// Thread-safe: the callback list and the result dictionary are replaced whole under a mutex
// and read as snapshots, so no call to a remote object happens under a lock.
class ErrorChannel {
public:
  struct Environment {
    Timer& timer;
    // Runs the finished-task deadline's work, which calls remote objects, off the timer, and
    // serves the admins' callbacks side by side.
    WorkerPool& workers;
    const ExceptionGuard& guard;
    // The agent's name for itself, the first argument of most events.
    std::function<std::string()> hostName;
    // Whether the calling thread is the one that must never block (the main thread).
    std::function<bool()> isMainThread = [] { return false; };
  };

  static constexpr const char* kErrorDomain = "ambrantDomain";

  explicit ErrorChannel(Environment environment);
  ~ErrorChannel();
  ErrorChannel(const ErrorChannel&) = delete;
  ErrorChannel& operator=(const ErrorChannel&) = delete;

  // ---- callbacks
  // owner: the connection that registered the callback (0: the agent itself).
  void setErrorCallback(const plist::ObjectRef& callback, std::uint64_t owner = 0);
  // Sends selector to every callback with as many of the two objects as it has colons.
  void performErrorCallbackSelector(const std::string& selector, const plist::Value& first = {},
                                    const plist::Value& second = {});
  std::vector<plist::ObjectRef> errorCallbacks() const;
  // The selectors of the admin side's callback objects, the events this channel sends.
  static bool isEventSelector(std::string_view selector);

  // ---- events
  void postError(const plist::ErrorRecord& error);
  // userInfo: a dictionary or null.
  void postError(const plist::ErrorRecord& error, const plist::Value& userInfo);
  void postErrorWithCode(std::int64_t code, const std::optional<std::string>& info);
  void postErrorString(const std::string& message);
  void postErrorString(const std::string& message, const plist::Value& userInfo);
  void incrementRemoteProgress();

  // ---- finished-task deadline
  void shouldPostFinishedTaskWithTimeout(double seconds);
  void postFinishedTask();
  void taskFinishTimeout();
  void invalidateTaskFinishTimeoutTimer();
  bool shouldPostFinishedTask() const { return shouldPostFinishedTask_; }

  // ---- fan-out and join
  void cancelProcessing() { processingCancelled_ = true; }
  bool processingCancelled() const { return processingCancelled_; }
  void setProcessingCancelled(bool cancelled) { processingCancelled_ = cancelled; }
  // Starts a fan-out: clears the cancel flag, marks processing, empties the result dictionary.
  void beginProcessing();
  bool isProcessing() const;
  std::int32_t taskThreadCount() const;
  void incrementTaskThreadCount();
  void decrementTaskThreadCount();
  // Blocks until the last worker has ended. Refuses (logs and returns) on the main thread,
  // which must never block.
  void waitOnProcessing();
  void threadedObjectDictSetObject(const plist::Value& object, const plist::Value& key);
  void resetThreadedObjectDict();
  plist::Dictionary threadedObjectDict() const;

  // ---- notifications of the maker's tools on this machine
  void taskIncrementProgress(const plist::Dictionary& userInfo);
  void taskFinished(const plist::Dictionary& userInfo);
  void taskError(const plist::Dictionary& userInfo);

private:
  struct Registered {
    plist::ObjectRef object;
    std::uint64_t owner = 0;
  };
  using Callbacks = std::vector<Registered>;

  std::shared_ptr<const Callbacks> snapshot() const;
  void replaceCallbacksWithout(const Callbacks& snapshot,
                               const std::vector<plist::ObjectRef>& dead);

  Environment environment_;

  mutable std::mutex callbacksMutex_;
  std::shared_ptr<const Callbacks> callbacks_; // in registration order

  std::atomic<bool> shouldPostFinishedTask_{false};
  std::mutex timerMutex_;
  Timer::Id taskFinishTimeoutTimer_ = 0; // under timerMutex_
  std::uint64_t deadlineGeneration_ = 0; // under timerMutex_: which deadline is current

  std::atomic<bool> processingCancelled_{false};
  mutable std::mutex processingMutex_;
  std::condition_variable condition_;
  bool isProcessing_ = false;
  std::int32_t taskThreadCount_ = 0;
  plist::Dictionary threadedObjectDict_;
};

} // namespace kestrin::operations
