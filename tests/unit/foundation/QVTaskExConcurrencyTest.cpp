#include "foundation/QVTaskEx.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/Timer.h"
#include "platform/ManualClock.h"
#include "unit/foundation/TaskTestTools.h"

// Time limits, a child watched and stopped from other threads, and the asynchronous reader.

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using kestrin::testing::CapturedLog;
using kestrin::testing::TempDir;
using kestrin::testing::writeScript;

std::string text(const std::optional<plist::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : std::string("<null>");
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class QVTaskExConcurrencyTest : public ::testing::Test {
protected:
  TempDir dir;
  CapturedLog log;
  // `exec` so the child is sleep itself: SIGTERM must reach the process holding the pipes.
  std::string sleeper = writeScript(dir, "sleeper", "echo partial; exec sleep 30");
};

// ---- time limits

TEST_F(QVTaskExConcurrencyTest, ALimitOfTwoPointNineSecondsActsAfterTwoSecondsOfItsClock) {
  platform::ManualClock clock;
  Timer timer(clock);
  auto status = std::async(std::launch::async, [&] {
    return QVTaskEx::terminationCodeFromTask(sleeper, {}, QVTaskEx::TimeLimit(2.9), timer);
  });
  while (timer.pending() == 0) { // the run has armed its limit
    std::this_thread::sleep_for(1ms);
  }
  clock.advance(1900ms);
  timer.waitUntilIdle();
  EXPECT_EQ(status.wait_for(200ms), std::future_status::timeout);
  clock.advance(100ms);
  ASSERT_EQ(status.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(status.get(), SIGTERM);
  EXPECT_NE(log.text().find("Task " + sleeper + " timed out. Terminating..."), std::string::npos);
}

TEST_F(QVTaskExConcurrencyTest, ALimitBelowOneSecondActsAtOnce) {
  auto start = Clock::now();
  int status = QVTaskEx::terminationCodeFromTask(sleeper, {}, QVTaskEx::TimeLimit(0.9));
  EXPECT_EQ(status, SIGTERM);
  EXPECT_LT(secondsSince(start), 0.9);
}

TEST_F(QVTaskExConcurrencyTest, ABoundedCaptureAnswersWhatTheToolWroteBeforeItWasStopped) {
  EXPECT_EQ(text(QVTaskEx::dataFromTask(sleeper, {}, QVTaskEx::TimeLimit(1))), "partial\n");
  EXPECT_EQ(QVTaskEx::stringFromTask(sleeper, {}, QVTaskEx::TimeLimit(1)), "partial\n");
}

TEST_F(QVTaskExConcurrencyTest, ARunThatEndsInTimeNeitherWaitsForItsTimerNorIsStopped) {
  auto quick = writeScript(dir, "quick", "exit 4");
  auto start = Clock::now();
  EXPECT_EQ(QVTaskEx::terminationCodeFromTask(quick, {}, QVTaskEx::TimeLimit(20)), 4);
  QVTaskEx::runTask(quick, {}, QVTaskEx::TimeLimit(20));
  EXPECT_LT(secondsSince(start), 5.0);
  EXPECT_EQ(log.text().find("timed out"), std::string::npos);
}

// ---- the slot

TEST_F(QVTaskExConcurrencyTest, TheSlotShowsTheRunningChildToOtherThreadsUntilItIsReaped) {
  QVTaskEx::Slot slot;
  auto run = std::async(std::launch::async,
                        [&] { return QVTaskEx::terminationCodeFromTask(sleeper, {}, &slot); });
  QVTaskEx::Task child;
  for (auto end = Clock::now() + 10s; !child && Clock::now() < end;) {
    child = slot.get();
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(child->launchPath(), sleeper);
  EXPECT_TRUE(child->isRunning());
  EXPECT_TRUE(child->terminate());
  EXPECT_EQ(run.get(), SIGTERM);
  EXPECT_EQ(slot.get(), nullptr);
  EXPECT_FALSE(child->isRunning());
  EXPECT_FALSE(child->terminate()); // reaped: a recycled pid is never signalled
}

// ---- asynchronous run

struct Recorder {
  std::mutex mutex;
  std::vector<plist::Data> chunks;
  std::vector<std::optional<plist::Value>> contexts;
  std::promise<void> ended;

  QVTaskEx::AsyncDelegate delegate() {
    return [this](const plist::Data& chunk, QVTaskEx&, const std::optional<plist::Value>& context) {
      std::lock_guard lock(mutex);
      chunks.push_back(chunk);
      contexts.push_back(context);
      if (chunk.empty()) {
        ended.set_value();
      }
    };
  }
};

TEST_F(QVTaskExConcurrencyTest, TheDelegateGetsEveryChunkThenExactlyOneEmptyChunk) {
  auto tool = writeScript(dir, "chatty",
                          "i=0; while [ $i -lt 200 ]; do echo line $i; i=$((i+1)); done; "
                          "head -c 300000 /dev/zero | tr '\\0' x; echo err >&2");
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    expected += "line " + std::to_string(i) + "\n";
  }
  expected += std::string(300000, 'x');

  Recorder recorder;
  auto ended = recorder.ended.get_future();
  auto task = std::make_shared<QVTaskEx>();
  task->asyncDataFromTask(tool, {}, recorder.delegate(), plist::Value("ctx"));
  ASSERT_EQ(ended.wait_for(20s), std::future_status::ready);
  std::this_thread::sleep_for(100ms); // nothing may follow the empty chunk

  std::lock_guard lock(recorder.mutex);
  ASSERT_GE(recorder.chunks.size(), 2u);
  std::string joined;
  for (std::size_t i = 0; i + 1 < recorder.chunks.size(); ++i) {
    EXPECT_FALSE(recorder.chunks[i].empty()) << "chunk " << i;
    joined.append(recorder.chunks[i].begin(), recorder.chunks[i].end());
  }
  EXPECT_TRUE(recorder.chunks.back().empty());
  EXPECT_EQ(joined, expected); // standard error goes to the null device
  for (const auto& context : recorder.contexts) {
    EXPECT_EQ(context, plist::Value("ctx"));
  }
  EXPECT_EQ(task->theTask(), nullptr);
}

TEST_F(QVTaskExConcurrencyTest, TerminateAsyncTaskStopsTheChildAndDeliversNothingMore) {
  std::promise<void> firstChunk;
  std::atomic<int> calls{0};
  auto task = std::make_shared<QVTaskEx>();
  task->asyncDataFromTask(sleeper, {}, [&](const plist::Data&, QVTaskEx&, const auto&) {
    if (calls++ == 0) {
      firstChunk.set_value();
    }
  });
  ASSERT_EQ(firstChunk.get_future().wait_for(20s), std::future_status::ready);
  auto child = task->theTask();
  ASSERT_NE(child, nullptr);

  task->terminateAsyncTask();
  EXPECT_EQ(task->theTask(), nullptr);
  auto end = Clock::now() + 10s;
  while (child->isRunning() && Clock::now() < end) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_FALSE(child->isRunning());
  EXPECT_TRUE(testing::zombiesGoneWithin(5s));
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(QVTaskExConcurrencyTest, AnAsyncRunOfAMissingToolRunsNothingAndSaysWhy) {
  Recorder recorder;
  auto task = std::make_shared<QVTaskEx>();
  task->asyncDataFromTask((dir / "missing").string(), {}, recorder.delegate());
  EXPECT_TRUE(log.containsWithin(
      "Unable to launch async task - task does not exist or is not executable", 10s));
  std::lock_guard lock(recorder.mutex);
  EXPECT_TRUE(recorder.chunks.empty());
}

// ---- reaping

TEST_F(QVTaskExConcurrencyTest, NoRunLeavesAZombieBehind) {
  auto quick = writeScript(dir, "quick", "echo hi");
  QVTaskEx::runTask(quick);
  QVTaskEx::terminationCodeFromTask(quick);
  QVTaskEx::dataFromTask(quick);
  QVTaskEx::runTask(sleeper, {}, QVTaskEx::TimeLimit(0));
  QVTaskEx::dataFromTask(sleeper, {}, QVTaskEx::TimeLimit(0));
  auto detached = QVTaskEx::runTaskAndReturn(quick);
  ASSERT_NE(detached, nullptr);
  detached.reset(); // dropped while probably still running
  auto stillRunning = QVTaskEx::runTaskAndReturn(sleeper);
  ASSERT_NE(stillRunning, nullptr);
  pid_t pid = stillRunning->pid();
  stillRunning.reset();
  ::kill(pid, SIGTERM); // ends after its handle is gone: the background reaper takes it

  Recorder recorder;
  auto ended = recorder.ended.get_future();
  auto task = std::make_shared<QVTaskEx>();
  task->asyncDataFromTask(quick, {}, recorder.delegate());
  ASSERT_EQ(ended.wait_for(20s), std::future_status::ready);
  {
    std::lock_guard lock(recorder.mutex);
    EXPECT_EQ(recorder.contexts.back(), std::nullopt); // none was given
  }

  EXPECT_TRUE(testing::zombiesGoneWithin(5s)) << testing::zombieChildren().size() << " zombies";
}

} // namespace
} // namespace kestrin
