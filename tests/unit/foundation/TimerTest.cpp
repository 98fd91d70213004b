#include "foundation/Timer.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/WorkerPool.h"
#include "platform/ManualClock.h"

// Deadlines on a clock that tests move, and the pool that runs the agent's blocking work.

namespace kestrin {
namespace {

using namespace std::chrono_literals;

TEST(Timer, RunsEntriesInDeadlineOrderOnlyOnceTheirClockHasReachedThem) {
  platform::ManualClock clock;
  Timer timer(clock);
  std::mutex mutex;
  std::vector<int> fired;
  auto record = [&](int n) {
    return [&, n] {
      std::lock_guard lock(mutex);
      fired.push_back(n);
    };
  };
  timer.runAfter(86400s, record(3));
  timer.runAfter(300s, record(2));
  timer.runAfter(300s, record(22)); // same deadline: in the order made
  timer.runAfter(5s, record(1));

  clock.advance(299s);
  timer.waitUntilIdle();
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(fired, std::vector<int>{1});
  }
  clock.advance(86400s);
  timer.waitUntilIdle();
  std::lock_guard lock(mutex);
  EXPECT_EQ(fired, (std::vector<int>{1, 2, 22, 3}));
  EXPECT_EQ(timer.pending(), 0u);
}

TEST(Timer, ACancelledEntryNeverRunsAndCancellingARunningOneWaitsForIt) {
  platform::ManualClock clock;
  Timer timer(clock);
  std::atomic<bool> cancelledRan{false};
  Timer::Id cancelled = timer.runAfter(10s, [&] { cancelledRan = true; });
  EXPECT_TRUE(timer.cancel(cancelled));
  EXPECT_FALSE(timer.cancel(cancelled));

  std::promise<void> entered;
  std::atomic<bool> finished{false};
  Timer::Id slow = timer.runAfter(1s, [&] {
    entered.set_value();
    std::this_thread::sleep_for(100ms);
    finished = true;
  });
  clock.advance(20s);
  entered.get_future().wait();
  EXPECT_FALSE(timer.cancel(slow));
  EXPECT_TRUE(finished); // what the callback used may go away now
  EXPECT_FALSE(cancelledRan);
}

TEST(Timer, ARealClockEntryFiresWithoutAnyoneMovingTime) {
  Timer timer(platform::Clock::system());
  std::promise<void> fired;
  timer.runAfter(10ms, [&] { fired.set_value(); });
  EXPECT_EQ(fired.get_future().wait_for(10s), std::future_status::ready);
}

TEST(WorkerPool, BlockingTasksRunSideBySideUpToTheCapAndTheRestWaitTheirTurn) {
  WorkerPool pool({3, 50ms});
  std::mutex mutex;
  std::condition_variable changed;
  int running = 0;
  int peak = 0;
  int done = 0;
  for (int i = 0; i < 8; ++i) {
    pool.submit([&] {
      {
        std::lock_guard lock(mutex);
        peak = std::max(peak, ++running);
      }
      std::this_thread::sleep_for(20ms);
      std::lock_guard lock(mutex);
      --running;
      ++done;
      changed.notify_all();
    });
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(changed.wait_for(lock, 20s, [&] { return done == 8; }));
  EXPECT_EQ(peak, 3);
  EXPECT_LE(pool.threadCount(), 3u);
}

TEST(WorkerPool, IdleThreadsEndAndAreJoinedSoThreadsDoNotGrowWithUse) {
  WorkerPool pool({4, 10ms});
  for (int round = 0; round < 50; ++round) {
    std::promise<void> ran;
    pool.submit([&] { ran.set_value(); });
    ran.get_future().wait();
  }
  EXPECT_LE(pool.threadCount(), 4u);
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (pool.threadCount() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(pool.threadCount(), 0u);
  pool.stop();
  EXPECT_FALSE(pool.submit([] {}));
}

TEST(WorkerPool, RunAllRunsJobsSideBySideYetNeverWaitsForAJobStuckInTheQueue) {
  WorkerPool pool({2, 50ms});
  // Each job waits for the other to start: only side by side can both see it.
  std::atomic<int> started{0};
  std::atomic<int> sawTheOther{0};
  auto meet = [&] {
    ++started;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (started < 2 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    sawTheOther += started == 2;
  };
  pool.runAll({meet, meet});
  EXPECT_EQ(sawTheOther, 2);

  // Every worker blocked: the caller runs the jobs itself instead of waiting for a worker.
  std::promise<void> unblock;
  std::shared_future<void> blocked = unblock.get_future().share();
  pool.submit([blocked] { blocked.wait(); });
  pool.submit([blocked] { blocked.wait(); });
  std::atomic<int> ran{0};
  auto count = [&] { ++ran; };
  EXPECT_THROW(pool.runAll({count, [] { throw std::runtime_error("job"); }, count}),
               std::runtime_error);
  EXPECT_EQ(ran, 2);
  unblock.set_value();
}

} // namespace
} // namespace kestrin
