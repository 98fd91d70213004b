#include "foundation/SerialQueue.h"

#include <atomic>
#include <future>
#include <vector>

#include <gtest/gtest.h>

namespace kestrin {
namespace {

TEST(SerialQueue, RunsTasksOneAtATimeInQueueOrder) {
  SerialQueue queue;
  std::vector<int> order; // touched only by the worker until drain() returns
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 1000; ++i) {
    queue.async([&, i] {
      overlapped = overlapped || running.fetch_add(1) != 0;
      order.push_back(i);
      running.fetch_sub(1);
    });
  }
  queue.drain();
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 1000u);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(order[i], i);
  }
  EXPECT_EQ(queue.pending(), 0u);
}

TEST(SerialQueue, DrainOnTheWorkerDoesNotWaitForItself) {
  SerialQueue queue;
  std::promise<bool> onWorker;
  queue.async([&] {
    queue.drain();
    onWorker.set_value(queue.isCurrent());
  });
  EXPECT_TRUE(onWorker.get_future().get());
  EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueue, StopDropsWhatHasNotStartedAndReleasesWaiters) {
  SerialQueue queue;
  std::promise<void> started;
  std::promise<void> release;
  std::atomic<int> ran{0};
  queue.async([&] {
    started.set_value();
    release.get_future().wait();
    ++ran;
  });
  for (int i = 0; i < 50; ++i) {
    queue.async([&] { ++ran; });
  }
  started.get_future().wait();
  EXPECT_EQ(queue.pending(), 51u);

  auto drainer = std::async(std::launch::async, [&] { queue.drain(); });
  queue.stop();
  release.set_value();
  drainer.get();
  queue.async([&] { ++ran; });
  EXPECT_EQ(ran.load(), 1);
  EXPECT_EQ(queue.pending(), 0u);
}

} // namespace
} // namespace kestrin
