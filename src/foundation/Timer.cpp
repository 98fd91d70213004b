#include "foundation/Timer.h"

namespace kestrin {

Timer::Timer(const platform::Clock& clock) : clock_(clock) {
  thread_ = std::thread([this] { run(); });
}

Timer::~Timer() {
  stop();
}

void Timer::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      return;
    }
    stopping_ = true;
    entries_.clear();
    deadlines_.clear();
  }
  changed_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
    thread_.join();
  }
}

Timer::Id Timer::runAt(platform::Clock::TimePoint deadline, std::function<void()> fn) {
  Id id;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      return 0;
    }
    id = nextId_++;
    entries_.emplace(std::make_pair(deadline, id), std::move(fn));
    deadlines_.emplace(id, deadline);
  }
  changed_.notify_all();
  return id;
}

bool Timer::cancel(Id id) {
  std::unique_lock lock(mutex_);
  auto found = deadlines_.find(id);
  if (found != deadlines_.end()) {
    entries_.erase({found->second, id});
    deadlines_.erase(found);
    lock.unlock();
    changed_.notify_all();
    return true;
  }
  if (id != 0 && std::this_thread::get_id() != thread_.get_id()) {
    changed_.wait(lock, [&] { return running_ != id; });
  }
  return false;
}

std::size_t Timer::pending() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

void Timer::waitUntilIdle() {
  std::unique_lock lock(mutex_);
  // Polls the clock's time, which a ManualClock may move at any moment; the timer's own
  // progress notifies changed_.
  while (!stopping_) {
    bool due = !entries_.empty() && entries_.begin()->first.first <= clock_.now();
    if (!due && running_ == 0) {
      return;
    }
    changed_.wait_for(lock, std::chrono::milliseconds(2));
  }
}

void Timer::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (entries_.empty()) {
      changed_.wait(lock, [&] { return stopping_ || !entries_.empty(); });
      continue;
    }
    auto first = entries_.begin()->first;
    if (clock_.now() < first.first) {
      // Wakes for a new earlier entry, a cancellation or the deadline.
      clock_.waitUntil(lock, changed_, first.first, [&] {
        return stopping_ || entries_.empty() || entries_.begin()->first != first;
      });
      continue;
    }
    auto entry = entries_.extract(entries_.begin());
    deadlines_.erase(first.second);
    running_ = first.second;
    lock.unlock();
    try {
      entry.mapped()();
    } catch (...) {
      // A callback's failure is its own; the other deadlines still run.
    }
    entry = {}; // what the callback captured goes before the timer says it is done
    lock.lock();
    running_ = 0;
    changed_.notify_all();
  }
}

} // namespace kestrin
