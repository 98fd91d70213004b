#include "foundation/SerialQueue.h"

#include <utility>

namespace kestrin {

SerialQueue::SerialQueue() {
  // The worker takes the mutex before its first task, so it sees workerId_ set.
  std::lock_guard lock(mutex_);
  worker_ = std::thread([this] { run(); });
  workerId_ = worker_.get_id();
}

SerialQueue::~SerialQueue() {
  stop();
  worker_.join();
}

void SerialQueue::async(Task task) {
  bool wasEmpty = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) {
      return;
    }
    wasEmpty = tasks_.empty();
    tasks_.push_back(std::move(task));
    ++queued_;
  }
  // The worker sleeps only on an empty queue; waking it for every task would cost a system
  // call per line while it is busy anyway.
  if (wasEmpty) {
    wake_.notify_one();
  }
}

void SerialQueue::drain() {
  if (isCurrent()) {
    return;
  }
  std::unique_lock lock(mutex_);
  const std::uint64_t target = queued_;
  ++drainers_;
  drained_.wait(lock, [&] { return finished_.load() >= target; });
  --drainers_;
}

std::size_t SerialQueue::pending() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(queued_ - finished_.load());
}

void SerialQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) {
      return;
    }
    stopping_.store(true);
    finished_ += tasks_.size();
    tasks_.clear();
  }
  wake_.notify_one();
  drained_.notify_all();
}

void SerialQueue::notifyDrainers() {
  // drain() registers under the mutex before testing finished_, and both sides use
  // sequentially consistent atomics: either it sees the new count or we see it waiting.
  if (drainers_.load() > 0) {
    std::lock_guard lock(mutex_);
    drained_.notify_all();
  }
}

void SerialQueue::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) {
      return; // stopping
    }
    // Take the whole backlog at once so producers contend for the lock once per batch, not
    // once per task.
    std::deque<Task> batch;
    batch.swap(tasks_);
    lock.unlock();
    for (auto it = batch.begin(); it != batch.end(); ++it) {
      if (stopping_.load()) {
        // stop() dropped what was still in tasks_; what this batch has left goes the same way.
        finished_ += static_cast<std::uint64_t>(batch.end() - it);
        notifyDrainers();
        return;
      }
      (*it)();
      *it = nullptr; // release what the task captured before the next one runs
      finished_.fetch_add(1);
      notifyDrainers();
    }
    lock.lock();
  }
}

} // namespace kestrin
