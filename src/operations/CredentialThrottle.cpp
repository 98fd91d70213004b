#include "operations/CredentialThrottle.h"

#include <algorithm>

#include "auth/CredentialFrame.h"
#include "foundation/QVLog.h"

namespace kestrin::operations {

namespace {

using Clock = platform::Clock;

long wholeSeconds(Clock::Duration duration) {
  return static_cast<long>(std::chrono::ceil<std::chrono::seconds>(duration).count());
}

} // namespace

CredentialThrottle::Record* CredentialThrottle::recordOf(Records& records, const std::string& key,
                                                         Clock::TimePoint now) {
  auto found = records.find(key);
  if (found == records.end()) {
    return nullptr;
  }
  if (now - found->second.lastFailure >= limits_.forgetAfter) {
    records.erase(found);
    return nullptr;
  }
  return &found->second;
}

Clock::Duration CredentialThrottle::fail(Records& records, const std::string& key,
                                         Clock::TimePoint now) {
  if (records.size() >= limits_.maxRecords && records.find(key) == records.end()) {
    auto oldest =
        std::min_element(records.begin(), records.end(), [](const auto& a, const auto& b) {
          return a.second.lastFailure < b.second.lastFailure;
        });
    records.erase(oldest);
  }
  Record& record = records[key];
  record.failures = std::min(record.failures + 1, 30); // 2^30 s is past any cap
  Clock::Duration delay = limits_.firstDelay * (1L << (record.failures - 1));
  delay = std::min(delay, limits_.maxDelay);
  record.lastFailure = now;
  record.notBefore = std::max(record.notBefore, now + delay);
  return delay;
}

bool CredentialThrottle::admit(const std::string& peer, const std::string& user,
                               Clock::TimePoint now) {
  Clock::TimePoint notBefore{};
  if (const Record* fromPeer = recordOf(peers_, peer, now)) {
    notBefore = fromPeer->notBefore;
    if (const Record* forUser = recordOf(users_, user, now)) {
      notBefore = std::max(notBefore, forUser->notBefore);
    }
  }
  if (now < notBefore) {
    QVLog::appendLog("Credential check for user {} from {} refused: too many failed attempts; "
                     "next check in {} s.",
                     user, peer, wholeSeconds(notBefore - now));
    return false;
  }
  std::size_t& fromPeer = inFlight_[peer];
  if (fromPeer >= limits_.perPeer || totalInFlight_ >= limits_.total) {
    if (fromPeer == 0) {
      inFlight_.erase(peer);
    }
    QVLog::appendLog("Credential check for user {} from {} refused: too many checks at once.", user,
                     peer);
    return false;
  }
  ++fromPeer;
  ++totalInFlight_;
  return true;
}

QVAuthorization::Session CredentialThrottle::startSession(const Caller& caller,
                                                          const std::optional<std::string>& user,
                                                          const SecretBuffer& password) {
  if (!user) {
    return authorization_.authStartWithUser(std::nullopt, password);
  }
  const std::string peer = caller.address.empty() ? "this process" : caller.address;
  // Names past what the helper takes are refused by it anyway; they must not grow the records.
  const std::string name = user->substr(0, auth::kMaxUserLength);
  {
    std::lock_guard lock(mutex_);
    if (!admit(peer, name, clock_.now())) {
      return authorization_.authStartWithUser(std::nullopt, password);
    }
  }
  // The check's place is given back however the check ends.
  struct InFlight {
    CredentialThrottle& throttle;
    const std::string& peer;
    ~InFlight() {
      std::lock_guard lock(throttle.mutex_);
      if (--throttle.inFlight_[peer] == 0) {
        throttle.inFlight_.erase(peer);
      }
      --throttle.totalInFlight_;
    }
  };
  std::optional<QVAuthorization::Session> session;
  {
    InFlight checking{*this, peer};
    session.emplace(authorization_.authStartWithUser(user, password));
  }
  std::lock_guard lock(mutex_);
  Clock::TimePoint now = clock_.now();
  if (session->isAuthorized()) {
    peers_.erase(peer);
    users_.erase(name);
  } else {
    Clock::Duration wait = fail(peers_, peer, now);
    wait = std::max(wait, fail(users_, name, now));
    QVLog::appendLog("Credential check for user {} from {} failed; next check from there in {} s.",
                     name, peer, wholeSeconds(wait));
  }
  return std::move(*session);
}

} // namespace kestrin::operations
