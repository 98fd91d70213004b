#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "plist/Value.h"

namespace kestrin::platform {

// Time as the agent sees it. Every deadline of the agent (tool time limits, the finished-task
// deadline, reconnection delays, daily refreshes, polling time-outs) is measured on a Clock, so
// that tests can run a day's schedule by advancing a ManualClock instead of sleeping.
//
// Thread-safe. now() is monotonic; date() is the wall clock that dates in settings and
// property lists are compared with. Both move together on a ManualClock.
class Clock {
public:
  using Duration = std::chrono::steady_clock::duration;
  using TimePoint = std::chrono::steady_clock::time_point;

  virtual ~Clock() = default;

  virtual TimePoint now() const = 0;
  virtual plist::Date date() const = 0;

  // Waits on `condition` (with `lock` held, as std::condition_variable does) until `ready`
  // answers true or the clock reaches `deadline`. Answers ready() at the end. Whoever makes
  // `ready` true must notify `condition`; the clock itself wakes the waiter when its time
  // passes the deadline.
  virtual bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
                         TimePoint deadline, const std::function<bool()>& ready) const = 0;

  bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& condition,
               Duration timeout, const std::function<bool()>& ready) const {
    return waitUntil(lock, condition, deadlineAfter(timeout), ready);
  }

  // Blocks the calling thread until the clock has moved on by `duration`.
  void sleepFor(Duration duration) const;

  // now() + duration, saturating instead of overflowing for absurdly long durations.
  TimePoint deadlineAfter(Duration duration) const;
  // A duration from seconds (negative and NaN are zero, absurdly long ones are capped).
  static Duration seconds(double seconds);

  // The machine's own clocks.
  static Clock& system();
};

} // namespace kestrin::platform
