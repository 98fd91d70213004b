#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "platform/Clock.h"

namespace kestrin {

// One-shot deadlines on a Clock, served by one thread of their own. Every deadline the agent
// keeps (a tool's time limit, the finished-task deadline, a reconnection, the daily update
// count) is an entry here, so no deadline costs a thread and a ManualClock moves them all.
//
// A callback runs on the timer's thread and must be short: one that does more (calls remote
// objects, runs tools, stops the service) hands the work to a WorkerPool. Thread-safe.
class Timer {
public:
  using Id = std::uint64_t;

  explicit Timer(const platform::Clock& clock);
  // Cancels what is pending and joins the thread.
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  const platform::Clock& clock() const { return clock_; }

  // Runs fn once the clock reaches the deadline. Answers the entry's id (never 0), or 0 once
  // the timer has stopped.
  Id runAt(platform::Clock::TimePoint deadline, std::function<void()> fn);
  Id runAfter(platform::Clock::Duration delay, std::function<void()> fn) {
    return runAt(clock_.deadlineAfter(delay), std::move(fn));
  }

  // Answers true when the entry was still pending: it will never run. When its callback is
  // running on another thread, waits for it to end (so that what it uses may go away after
  // cancel returns) and answers false. 0 and unknown ids answer false.
  bool cancel(Id id);

  // Entries not yet run.
  std::size_t pending() const;

  // Blocks until no entry whose deadline has passed is waiting or running: after advancing a
  // ManualClock, the point at which every callback that became due has run.
  void waitUntilIdle();

  // Drops what is pending and ends the thread; later entries are refused. Not from a callback.
  void stop();

private:
  void run();

  const platform::Clock& clock_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Deadline order; the id breaks ties in the order the entries were made.
  std::map<std::pair<platform::Clock::TimePoint, Id>, std::function<void()>> entries_;
  std::map<Id, platform::Clock::TimePoint> deadlines_;
  Id nextId_ = 1;
  Id running_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

} // namespace kestrin
