#include "foundation/WorkerPool.h"

#include <system_error>

#include "platform/AlternateSignalStack.h"

namespace kestrin {

WorkerPool::WorkerPool(Limits limits) : limits_(limits) {}

WorkerPool::~WorkerPool() {
  stop();
}

bool WorkerPool::submit(std::function<void()> task) {
  std::unique_lock lock(mutex_);
  if (stopping_) {
    return false;
  }
  joinFinishedLocked(lock);
  tasks_.push_back(std::move(task));
  if (idle_ >= tasks_.size() || threads_.size() >= limits_.maxThreads) {
    wake_.notify_one();
    return true;
  }
  threads_.emplace_front();
  auto self = threads_.begin();
  try {
    *self = std::thread([this, self] { serve(self); });
  } catch (const std::system_error&) {
    // Out of threads: the task waits for one of the existing threads, if any.
    threads_.erase(self);
    if (threads_.empty()) {
      tasks_.pop_back();
      return false;
    }
  }
  return true;
}

void WorkerPool::serve(std::list<std::thread>::iterator self) {
  // Remote operations run here: a runaway recursion in one must still leave a crash report.
  platform::AlternateSignalStack signalStack;
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    bool woke =
        wake_.wait_for(lock, limits_.idleTime, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (stopping_ || !woke) {
      break;
    }
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    ++running_;
    lock.unlock();
    try {
      task();
    } catch (...) {
      // A task's failure is its own; the thread serves the next one.
    }
    task = nullptr; // what it captured goes before the thread counts as free
    lock.lock();
    --running_;
  }
  if (!stopping_) {
    // Whoever submits next (or stop) joins this thread once it has returned.
    finished_.splice(finished_.end(), threads_, self);
  }
}

void WorkerPool::joinFinishedLocked(std::unique_lock<std::mutex>& lock) {
  if (finished_.empty()) {
    return;
  }
  std::list<std::thread> done;
  done.swap(finished_);
  lock.unlock();
  for (std::thread& thread : done) {
    thread.join();
  }
  lock.lock();
}

std::size_t WorkerPool::threadCount() const {
  std::lock_guard lock(mutex_);
  return threads_.size();
}

std::size_t WorkerPool::backlog() const {
  std::lock_guard lock(mutex_);
  return tasks_.size() + running_;
}

void WorkerPool::stop() {
  std::list<std::thread> all;
  std::deque<std::function<void()>> dropped; // destroyed outside the lock
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    all.swap(threads_);
    all.splice(all.end(), finished_);
  }
  wake_.notify_all();
  for (std::thread& thread : all) {
    if (thread.joinable()) {
      thread.join();
    }
  }
}

} // namespace kestrin
