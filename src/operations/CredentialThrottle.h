#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/QVAuthorization.h"
#include "operations/OperationTable.h"
#include "platform/Clock.h"
#include "support/SecretBuffer.h"

namespace kestrin::operations {

// Slows down password guessing. Every way a caller can have credentials checked
// (validateUsername:password:, authWithDict:, launchAuthTask:arguments:authInfo: and both
// authExecuteTask forms) opens its session here:
//
// - At most `perPeer` checks from one address and `total` checks in all run at once; a check
//   beyond either is refused at once, without asking the helper.
// - A failed check makes the failing address and the user name wait before their next check:
//   `firstDelay` after one failure, doubling with each further one up to `maxDelay`. A check
//   asked for during the wait is refused without asking the helper, so it tells the caller
//   nothing. A success clears both records; a record untouched for `forgetAfter` is dropped.
// - The wait of a user name holds back only addresses that have been failing themselves: an
//   address with a clean record has a right password checked at once, so nobody can lock an
//   administrator out by failing in the administrator's name.
//
// Every failure and refusal is logged with the caller's address. Refusals answer what a wrong
// password answers. Thread-safe; times come from the clock, so tests move them.
class CredentialThrottle {
public:
  struct Limits {
    std::size_t perPeer = 2;
    std::size_t total = 8;
    platform::Clock::Duration firstDelay = std::chrono::seconds(1);
    platform::Clock::Duration maxDelay = std::chrono::seconds(60);
    platform::Clock::Duration forgetAfter = std::chrono::minutes(15);
    // Records kept for addresses and for user names, each; beyond it the oldest goes.
    std::size_t maxRecords = 4096;
  };

  CredentialThrottle(const QVAuthorization& authorization, const platform::Clock& clock)
      : CredentialThrottle(authorization, clock, Limits{}) {}
  CredentialThrottle(const QVAuthorization& authorization, const platform::Clock& clock,
                     Limits limits)
      : authorization_(authorization), clock_(clock), limits_(limits) {}

  // The session that `user`'s credentials open for `caller` (authStartWithUser), or an
  // unauthorised one when they may not be checked now. A null user asks nothing and counts
  // for nothing.
  QVAuthorization::Session startSession(const Caller& caller,
                                        const std::optional<std::string>& user,
                                        const SecretBuffer& password);

private:
  struct Record {
    int failures = 0;
    platform::Clock::TimePoint notBefore{};
    platform::Clock::TimePoint lastFailure{};
  };
  using Records = std::map<std::string, Record, std::less<>>;

  // The record of `key`, or null when there is none worth keeping. Under mutex_.
  Record* recordOf(Records& records, const std::string& key, platform::Clock::TimePoint now);
  // Counts a failure; answers the wait it imposes. Under mutex_.
  platform::Clock::Duration fail(Records& records, const std::string& key,
                                 platform::Clock::TimePoint now);
  // Whether a check for `user` from `peer` may start now; logs why not. Under mutex_.
  bool admit(const std::string& peer, const std::string& user, platform::Clock::TimePoint now);

  const QVAuthorization& authorization_;
  const platform::Clock& clock_;
  const Limits limits_;

  std::mutex mutex_;
  std::map<std::string, std::size_t> inFlight_; // by address
  std::size_t totalInFlight_ = 0;
  Records peers_;
  Records users_;
};

} // namespace kestrin::operations
