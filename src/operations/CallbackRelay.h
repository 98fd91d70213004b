#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "foundation/NotificationHub.h"
#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin {
class ExceptionGuard;
class WorkerPool;
} // namespace kestrin

namespace kestrin::operations {

// The one-shot callback relay: a caller hands the agent a callback record and a notification
// name; the next notification of that name (or the operation that armed it) sends the
// record's postCallback: the user information, once.
//
// Each connection has its own relay: arming a second one from the same connection replaces the
// first record (the first name stays observed), while a relay armed by one connection is never
// replaced or fired by another, so no caller can receive what another caller started.
class CallbackRelay {
public:
  CallbackRelay(NotificationHub& notifications, WorkerPool& workers, const ExceptionGuard& guard)
      : notifications_(notifications), workers_(workers), guard_(guard) {}
  ~CallbackRelay();
  CallbackRelay(const CallbackRelay&) = delete;
  CallbackRelay& operator=(const CallbackRelay&) = delete;

  void setupCallbackListener(const Caller& caller, const plist::ObjectRef& callback,
                             const std::string& name);
  // Fires the caller's relay with the user information and forgets it.
  void executeCallback(const Caller& caller, const std::string& name,
                       const plist::Dictionary& userInfo);

private:
  // A notification of an observed name: fires every relay armed for it.
  void notified(const std::string& name, const plist::Dictionary& userInfo);
  void post(const plist::ObjectRef& callback, const plist::Dictionary& userInfo);

  NotificationHub& notifications_;
  WorkerPool& workers_;
  const ExceptionGuard& guard_;
  std::mutex mutex_;
  // By connection: the armed record and the name it was armed for.
  std::map<std::uint64_t, std::pair<plist::ObjectRef, std::string>> relays_;
  std::map<std::string, NotificationHub::Observation> observed_; // by name
};

} // namespace kestrin::operations
