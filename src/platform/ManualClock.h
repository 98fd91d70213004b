#pragma once

#include <atomic>

#include "platform/Clock.h"

namespace kestrin::platform {

// A clock that moves only when told to: the fake at the time seam, for tests of deadlines that
// are minutes or days long. It starts at the machine's current date, so dates it gives look
// like real ones, and stands still until advance().
//
// Waiters notice an advance within a couple of milliseconds of real time; what they do then
// takes as long as it takes, so a test that advanced past a deadline waits for the effect it
// expects (or for Timer::waitUntilIdle) before asserting.
class ManualClock final : public Clock {
public:
  ManualClock();

  TimePoint now() const override;
  plist::Date date() const override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
                 TimePoint deadline, const std::function<bool()>& ready) const override;

  void advance(Duration by);
  void advanceSeconds(double seconds) { advance(Clock::seconds(seconds)); }

private:
  const TimePoint start_;
  const plist::Date startDate_;
  std::atomic<Duration::rep> elapsed_{0};
};

} // namespace kestrin::platform
