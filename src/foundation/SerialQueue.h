#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kestrin {

// One worker thread that runs tasks one at a time, in the order they were queued.
//
// Thread-safe: any thread may queue, drain or ask for the backlog. A task runs on the worker
// with no lock of the queue held, so it may queue further tasks (they run after everything
// already queued). drain() on the worker itself returns at once instead of waiting for itself.
class SerialQueue {
public:
  using Task = std::function<void()>;

  SerialQueue();
  // Drops what has not started, waits for the running task and ends the worker.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Queues a task; does nothing once the queue is stopped.
  void async(Task task);
  // Blocks until every task queued before the call has run (or was dropped by stop()).
  void drain();
  // Tasks queued and not yet finished, the running one included.
  std::size_t pending() const;
  // Whether the calling thread is this queue's worker.
  bool isCurrent() const { return std::this_thread::get_id() == workerId_; }
  // Drops the tasks that have not started and ends the worker; later tasks are ignored.
  // Safe from the worker itself (a task may stop its own queue); the destructor joins.
  void stop();

private:
  void run();
  void notifyDrainers();

  mutable std::mutex mutex_;
  std::condition_variable wake_;    // the worker waits here for tasks
  std::condition_variable drained_; // drain() waits here for progress
  std::deque<Task> tasks_;
  std::uint64_t queued_ = 0; // tickets handed out, under mutex_
  std::atomic<std::uint64_t> finished_{0};
  std::atomic<int> drainers_{0};
  std::atomic<bool> stopping_{false}; // set under mutex_; the worker reads it between tasks
  std::thread worker_;
  std::thread::id workerId_;
};

} // namespace kestrin
