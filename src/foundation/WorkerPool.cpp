#include "foundation/WorkerPool.h"

#include <exception>
#include <memory>
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

void WorkerPool::runAll(std::vector<std::function<void()>> jobs) {
  struct Shared {
    std::mutex mutex;
    std::condition_variable ended;
    std::vector<std::function<void()>> jobs;
    std::vector<bool> claimed;
    std::size_t running = 0;
    std::exception_ptr failure;
  };
  auto shared = std::make_shared<Shared>();
  shared->jobs = std::move(jobs);
  shared->claimed.assign(shared->jobs.size(), false);
  shared->running = shared->jobs.size();
  // Whoever claims a job first runs it; the other finds it claimed and passes.
  auto runOne = [](Shared& s, std::size_t i) {
    std::function<void()> job;
    {
      std::lock_guard lock(s.mutex);
      if (s.claimed[i]) {
        return;
      }
      s.claimed[i] = true;
      job = std::move(s.jobs[i]);
    }
    std::exception_ptr failure;
    try {
      job();
    } catch (...) {
      failure = std::current_exception();
    }
    job = nullptr;
    std::lock_guard lock(s.mutex);
    if (failure && !s.failure) {
      s.failure = failure;
    }
    if (--s.running == 0) {
      s.ended.notify_all();
    }
  };
  for (std::size_t i = 1; i < shared->jobs.size(); ++i) {
    submit([shared, i, runOne] { runOne(*shared, i); });
  }
  for (std::size_t i = 0; i < shared->jobs.size(); ++i) {
    runOne(*shared, i);
  }
  std::unique_lock lock(shared->mutex);
  shared->ended.wait(lock, [&] { return shared->running == 0; });
  if (shared->failure) {
    std::rethrow_exception(shared->failure);
  }
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
