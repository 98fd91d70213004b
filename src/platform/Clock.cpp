#include "platform/Clock.h"

#include <cmath>

namespace kestrin::platform {

namespace {

class SystemClock final : public Clock {
public:
  TimePoint now() const override { return std::chrono::steady_clock::now(); }
  plist::Date date() const override { return plist::Date::now(); }
  bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
                 TimePoint deadline, const std::function<bool()>& ready) const override {
    return condition.wait_until(lock, deadline, ready);
  }
};

} // namespace

Clock& Clock::system() {
  // Never destroyed: process-lifetime threads (the default timer's) read it while the process
  // exits.
  static SystemClock* clock = new SystemClock;
  return *clock;
}

void Clock::sleepFor(Duration duration) const {
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock lock(mutex);
  waitUntil(lock, never, deadlineAfter(duration), [] { return false; });
}

Clock::TimePoint Clock::deadlineAfter(Duration duration) const {
  TimePoint from = now();
  if (duration > TimePoint::max() - from) {
    return TimePoint::max();
  }
  return from + duration;
}

Clock::Duration Clock::seconds(double seconds) {
  // About thirty years: far beyond any limit the agent sets, far from overflowing.
  constexpr double kLongest = 1e9;
  if (std::isnan(seconds) || seconds <= 0) {
    return Duration::zero();
  }
  return std::chrono::duration_cast<Duration>(
      std::chrono::duration<double>(std::min(seconds, kLongest)));
}

} // namespace kestrin::platform
