#include "foundation/QVTaskEx.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
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

// Whether a process is still there: gone, or a zombie nobody has reaped yet, counts as ended.
bool alive(pid_t pid) {
  std::string stat = testing::readText("/proc/" + std::to_string(pid) + "/stat");
  auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

// A tool that ignores SIGTERM and leaves a helper of its own holding its output: the limit
// still ends the run, and the grace on the run's timer ends the rest of the tool's group.
TEST_F(QVTaskExConcurrencyTest, ALimitEndsAToolThatIgnoresTermAndAHelperHoldingItsOutput) {
  std::string folder = dir.path().string();
  auto stubborn = writeScript(dir, "stubborn",
                              "cd '" + folder +
                                  "'\n"
                                  "trap '' TERM\n"
                                  "echo $$ > tool.pid.tmp && mv tool.pid.tmp tool.pid\n"
                                  "sleep 300 &\n"
                                  "echo $! > helper.pid.tmp && mv helper.pid.tmp helper.pid\n"
                                  "echo partial\n"
                                  "exec sleep 300\n");
  platform::ManualClock clock;
  Timer timer(clock);
  auto run = std::async(std::launch::async, [&] {
    return QVTaskEx::dataFromTask(stubborn, {}, QVTaskEx::TimeLimit(5), timer);
  });
  pid_t tool = 0;
  pid_t helper = 0;
  struct Cleanup { // should the limit fail, the test still ends and leaves nothing running
    pid_t& tool;
    pid_t& helper;
    ~Cleanup() {
      for (pid_t pid : {tool, helper}) {
        if (pid > 0) {
          ::kill(pid, SIGKILL);
        }
      }
    }
  } cleanup{tool, helper};
  ASSERT_TRUE(testing::eventually([&] {
    tool = std::atoi(testing::readText(dir / "tool.pid").c_str());
    helper = std::atoi(testing::readText(dir / "helper.pid").c_str());
    return tool > 0 && helper > 0 && timer.pending() > 0;
  }));

  clock.advance(5s);
  timer.waitUntilIdle();
  EXPECT_EQ(run.wait_for(300ms), std::future_status::timeout); // SIGTERM was ignored
  EXPECT_TRUE(alive(tool));
  clock.advance(2s);
  timer.waitUntilIdle();
  ASSERT_EQ(run.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(text(run.get()), "partial\n");
  EXPECT_TRUE(testing::eventually([&] { return !alive(tool) && !alive(helper); }));
  std::string said = log.text();
  EXPECT_NE(said.find("Task " + stubborn + " timed out. Terminating..."), std::string::npos);
  EXPECT_NE(said.find("Task " + stubborn + " did not end when asked to. Killed."),
            std::string::npos);
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
