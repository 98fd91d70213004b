#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrin {

// The agent's threads for work that may block: remote calls, start-up work, notification
// handlers, reconnections. A task takes an idle thread, or a new one while fewer than
// maxThreads exist, or waits in order for the next thread to come free. A thread idle for
// idleTime ends and is joined by the pool, so the number of threads follows the load and never
// grows with use.
//
// Thread-safe; tasks may submit further tasks. A task must not wait for a task it submitted
// while every thread could be doing the same: the pool does not grow past maxThreads to save it.
class WorkerPool {
public:
  struct Limits {
    std::size_t maxThreads = 64;
    std::chrono::milliseconds idleTime = std::chrono::seconds(30);
  };

  WorkerPool() : WorkerPool(Limits{}) {}
  explicit WorkerPool(Limits limits);
  // stop().
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues the task. Answers false (and drops it) once the pool is stopping.
  bool submit(std::function<void()> task);

  // Runs every job at once and returns when all have ended. The calling thread runs the first
  // job and then every job that no worker has started by then, so it never waits for a job
  // queued behind busy workers: a full pool costs parallelism, never a deadlock. The first
  // exception a job throws is rethrown once all have ended.
  void runAll(std::vector<std::function<void()>> jobs);

  // Threads that exist now, busy or idle.
  std::size_t threadCount() const;
  // Tasks running or waiting for a thread.
  std::size_t backlog() const;

  // Drops the tasks that have not started, waits for the running ones and joins every thread.
  // Not from one of the pool's own tasks.
  void stop();

private:
  void serve(std::list<std::thread>::iterator self);
  void joinFinishedLocked(std::unique_lock<std::mutex>& lock);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  std::list<std::thread> threads_;  // live threads
  std::list<std::thread> finished_; // ended, waiting to be joined
  std::size_t idle_ = 0;
  std::size_t running_ = 0;
  bool stopping_ = false;
};

} // namespace kestrin
