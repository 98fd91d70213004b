#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "foundation/NotificationHub.h"
#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin {
class WorkerPool;
} // namespace kestrin

namespace kestrin::operations {

// The one-shot callback relay: a caller hands the agent a callback record and a notification
// name; the next notification of that name (or the operation that armed it) sends the
// record's postCallback: the user information, once.
//
// Each connection has its own relay: arming a second one from the same connection replaces the
// first record, while a relay armed by one connection is never replaced, fired or disarmed by
// another, so no caller can receive or stall what another caller started. A name is observed
// only while some relay waits for it, and one peer address keeps at most kRelaysPerAddress
// relays (its oldest goes first), so relays of connections long gone cannot pile up.
//
// A record belongs to its caller: when it fails or misses its reply time limit, that is logged
// and costs nobody else anything (it never restarts the service).
class CallbackRelay {
public:
  static constexpr std::size_t kRelaysPerAddress = 16;

  CallbackRelay(NotificationHub& notifications, WorkerPool& workers)
      : notifications_(notifications), workers_(workers) {}
  ~CallbackRelay();
  CallbackRelay(const CallbackRelay&) = delete;
  CallbackRelay& operator=(const CallbackRelay&) = delete;

  void setupCallbackListener(const Caller& caller, const plist::ObjectRef& callback,
                             const std::string& name);
  // Fires the caller's relay with the user information and forgets it.
  void executeCallback(const Caller& caller, const std::string& name,
                       const plist::Dictionary& userInfo);

private:
  struct Relay {
    plist::ObjectRef record;
    std::string name;
    std::string address;
    std::uint64_t armed = 0; // order of arming, oldest first
  };

  // A notification of an observed name: fires every relay armed for it.
  void notified(const std::string& name, const plist::Dictionary& userInfo);
  void post(const plist::ObjectRef& callback, const plist::Dictionary& userInfo);
  // Stops observing name when no relay waits for it any more; the observation is handed back
  // to be dropped outside the lock.
  NotificationHub::Observation unobserveIfUnusedLocked(const std::string& name);
  void observeLocked(const std::string& name);

  NotificationHub& notifications_;
  WorkerPool& workers_;
  std::mutex mutex_;
  std::map<std::uint64_t, Relay> relays_; // by connection
  std::uint64_t armedCount_ = 0;
  std::map<std::string, NotificationHub::Observation> observed_; // by name
};

} // namespace kestrin::operations
