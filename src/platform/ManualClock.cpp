#include "platform/ManualClock.h"

namespace kestrin::platform {

namespace {
// How often a waiter looks at a manual clock in real time. Advances are rare and tests wait for
// their effects anyway; this only bounds how late a waiter notices one.
constexpr auto kPollInterval = std::chrono::milliseconds(2);
} // namespace

ManualClock::ManualClock()
    : start_(std::chrono::steady_clock::now()), startDate_(plist::Date::now()) {}

Clock::TimePoint ManualClock::now() const {
  return start_ + Duration(elapsed_.load());
}

plist::Date ManualClock::date() const {
  return plist::Date{startDate_.seconds +
                     std::chrono::duration<double>(Duration(elapsed_.load())).count()};
}

bool ManualClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
                            TimePoint deadline, const std::function<bool()>& ready) const {
  while (!ready()) {
    if (now() >= deadline) {
      return false;
    }
    condition.wait_for(lock, kPollInterval);
  }
  return true;
}

void ManualClock::advance(Duration by) {
  if (by > Duration::zero()) {
    elapsed_ += by.count();
  }
}

} // namespace kestrin::platform
