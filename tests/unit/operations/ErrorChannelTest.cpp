#include "operations/ErrorChannel.h"

#include <chrono>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/WorkerPool.h"
#include "operations/ExceptionGuard.h"
#include "platform/ManualClock.h"

namespace kestrin::operations {
namespace {

using namespace std::chrono_literals;
using plist::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::RecordingObject;
using testing::ThrowawayMachine;

class ErrorChannelTest : public ::testing::Test {
protected:
  std::shared_ptr<RecordingObject> callback(std::set<std::string> selectors = {}) {
    return std::make_shared<RecordingObject>(selectors.empty() ? testing::errorCallbackSelectors()
                                                               : std::move(selectors));
  }
  bool logged(const std::string& text) { return machine.logText().find(text) != std::string::npos; }

  // Moves the clock on and waits until what became due has run, deadline and worker alike.
  void advance(std::chrono::milliseconds by) {
    clock.advance(by);
    timer.waitUntilIdle();
    ASSERT_TRUE(testing::eventually([&] { return workers.backlog() == 0; }));
  }

  ThrowawayMachine machine;
  platform::ManualClock clock;
  Timer timer{clock};
  WorkerPool workers;
  int reconnects = 0;
  ExceptionGuard guard{[] { return false; }, [this](double) { ++reconnects; }};
  std::thread::id mainThread = std::this_thread::get_id();
  ErrorChannel channel{{timer, workers, guard, [] { return std::string("studio-4.local."); },
                        [this] { return std::this_thread::get_id() == mainThread; }}};
};

TEST_F(ErrorChannelTest, KeepsOneEntryPerCallbackAndPrunesDeadOnesWhenAnotherRegisters) {
  auto first = callback();
  auto noPing = callback({"taskFinished"});
  channel.setErrorCallback(first);
  channel.setErrorCallback(first);
  channel.setErrorCallback(noPing);
  EXPECT_EQ(channel.errorCallbacks().size(), 2u);
  EXPECT_THAT(first->selectorsCalled(), ElementsAre("ping", "ping"));

  first->die();
  auto second = callback();
  channel.setErrorCallback(second);
  // The dead one and the one that cannot be pinged are both gone.
  EXPECT_THAT(channel.errorCallbacks(), ElementsAre(second));
}

TEST_F(ErrorChannelTest, DeliversToEveryCallbackWithAsManyArgumentsAsTheSelectorTakes) {
  auto a = callback();
  auto b = callback();
  channel.setErrorCallback(a);
  channel.setErrorCallback(b);
  channel.performErrorCallbackSelector("incrementProgress", Value(1), Value(2));
  channel.performErrorCallbackSelector("setSoftwareUpdateCount:hostname:", Value(3),
                                       Value("host."));
  // Only a was there to be pinged when b registered.
  EXPECT_THAT(a->selectorsCalled(),
              ElementsAre("ping", "incrementProgress", "setSoftwareUpdateCount:hostname:"));
  auto calls = b->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].arguments, IsEmpty());
  EXPECT_THAT(calls[1].arguments, ElementsAre(Value(3), Value("host.")));
}

TEST_F(ErrorChannelTest, ACallbackLackingTheSelectorEndsDeliveryForItsOwnAdminsLaterOnes) {
  auto lacking = callback({"ping"});
  auto complete = callback();
  auto anotherAdmins = callback();
  channel.setErrorCallback(lacking, 1);
  channel.setErrorCallback(complete, 1);
  channel.setErrorCallback(anotherAdmins, 2);
  channel.incrementRemoteProgress();
  EXPECT_THAT(complete->selectorsCalled(), ElementsAre("ping"));
  EXPECT_THAT(anotherAdmins->selectorsCalled(), ElementsAre("incrementProgress"));
  EXPECT_TRUE(
      logged("Error: error callback object does not respond to selector incrementProgress."));
  EXPECT_EQ(channel.errorCallbacks().size(), 3u); // nothing pruned
}

TEST_F(ErrorChannelTest, ACallbackThatFailsDuringDeliveryIsDroppedAndTheOthersStillReceive) {
  auto dying = callback();
  auto live = callback();
  channel.setErrorCallback(dying);
  channel.setErrorCallback(live);
  dying->die();
  channel.postErrorString("Disk full");
  EXPECT_THAT(live->calls().back().arguments,
              ElementsAre(Value("Disk full"), Value("studio-4.local.")));
  EXPECT_THAT(channel.errorCallbacks(), ElementsAre(live));
}

TEST_F(ErrorChannelTest, ErrorsCarryTheDomainCodeInfoAndHostAsTheAdminSideExpects) {
  auto cb = callback();
  channel.setErrorCallback(cb);
  channel.postErrorWithCode(1000, "Tibbet");
  channel.postErrorWithCode(1006, std::nullopt);
  channel.postError(plist::ErrorRecord{"ambrantDomain", 1002, {}},
                    plist::Dictionary{{"appName", "Vantry"}});

  auto calls = cb->calls();
  calls.insert(calls.begin(), RecordingObject::Call{}); // keep the indexes readable
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[1].selector, "addErrorToQueue:userInfo:");
  EXPECT_EQ(calls[1].arguments[0],
            Value(plist::ErrorRecord{"ambrantDomain", 1000, {{"info", "Tibbet"}}}));
  EXPECT_TRUE(calls[1].arguments[1].isNull()); // no "appName" for coded errors
  EXPECT_EQ(calls[2].arguments[0], Value(plist::ErrorRecord{"ambrantDomain", 1006, {}}));
  EXPECT_EQ(calls[3].arguments[1],
            Value(plist::Dictionary{{"appName", "Vantry"}, {"hostname", "studio-4.local."}}));
}

TEST_F(ErrorChannelTest, FinishedEventIsSentOnceAndOnlyAfterItWasAnnounced) {
  auto cb = callback();
  channel.setErrorCallback(cb);
  channel.postFinishedTask();
  EXPECT_THAT(cb->selectorsCalled(), IsEmpty());

  channel.shouldPostFinishedTaskWithTimeout(300);
  channel.postFinishedTask();
  channel.postFinishedTask();
  advance(600s); // the cancelled deadline must not fire
  EXPECT_THAT(cb->selectorsCalled(), ElementsAre("taskFinished"));
  EXPECT_FALSE(logged("Task timed out. Finishing..."));
}

TEST_F(ErrorChannelTest, DeadlineFinishesTheTaskWhenNoToolReportsIt) {
  auto cb = callback();
  channel.setErrorCallback(cb);
  channel.shouldPostFinishedTaskWithTimeout(300);
  advance(299s);
  EXPECT_THAT(cb->selectorsCalled(), IsEmpty());
  channel.shouldPostFinishedTaskWithTimeout(300); // a new deadline replaces the first
  advance(299s);
  EXPECT_THAT(cb->selectorsCalled(), IsEmpty());
  advance(1s);
  EXPECT_THAT(cb->selectorsCalled(), ElementsAre("taskFinished"));
  EXPECT_TRUE(logged("Task timed out. Finishing..."));
  channel.postFinishedTask();
  EXPECT_EQ(cb->calls().size(), 1u);
}

TEST_F(ErrorChannelTest, WaitOnProcessingJoinsEveryWorkerAndRefusesTheMainThread) {
  channel.waitOnProcessing(); // the test's thread is the main thread here
  EXPECT_TRUE(logged("Error: trying to wait on main thread. Aborting..."));

  plist::Dictionary results;
  std::thread coordinator([&] {
    channel.beginProcessing();
    std::vector<std::thread> workers;
    // Counted before any starts: a worker that ends before the next is counted would end the
    // fan-out early.
    for (int i = 0; i < 8; ++i) {
      channel.incrementTaskThreadCount();
    }
    for (int i = 0; i < 8; ++i) {
      workers.emplace_back([this, i] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5 * i));
        channel.threadedObjectDictSetObject(Value(i * i), Value("cluster" + std::to_string(i)));
        channel.threadedObjectDictSetObject(Value(), Value("ignored"));
        channel.decrementTaskThreadCount();
      });
    }
    channel.waitOnProcessing();
    results = channel.threadedObjectDict();
    for (auto& w : workers) {
      w.join();
    }
  });
  coordinator.join();
  EXPECT_EQ(results.size(), 8u);
  ASSERT_NE(results.find("cluster7"), nullptr);
  EXPECT_EQ(*results.find("cluster7"), Value(49));
  EXPECT_FALSE(channel.isProcessing());
  EXPECT_EQ(channel.taskThreadCount(), 0);
}

TEST_F(ErrorChannelTest, ToolNotificationsBecomeEvents) {
  auto cb = callback();
  channel.setErrorCallback(cb);
  channel.taskError({{"errorCode", 1003}});
  channel.taskError({{"errorString", "Render node offline"}});
  channel.taskError({{"other", 1}});
  channel.taskIncrementProgress({});
  channel.shouldPostFinishedTaskWithTimeout(60);
  channel.taskFinished({});

  EXPECT_THAT(cb->selectorsCalled(),
              ElementsAre("addErrorToQueue:userInfo:", "addStringToQueue:userInfo:",
                          "incrementProgress", "taskFinished", "updateConfig:"));
  EXPECT_EQ(cb->calls()[1].arguments[0], Value("Render node offline"));
  EXPECT_TRUE(logged("Task error returned but no error data was found. User info: "));
}

TEST(ExceptionGuard, LogsNamedExceptionsAnswersNeutralAndReconnectsOnlyOnTimeoutsWhileRunning) {
  testing::ThrowawayMachine machine;
  bool quitting = false;
  std::vector<double> reconnects;
  ExceptionGuard guard([&] { return quitting; }, [&](double s) { reconnects.push_back(s); });

  auto timeout = [] { throw PortTimeoutException("late"); };
  EXPECT_EQ(guard.run("-[AppController hostName]", Value("Unknown"),
                      [&]() -> Value {
                        timeout();
                        return {};
                      }),
            Value("Unknown"));
  EXPECT_EQ(reconnects, std::vector<double>{5.0});
  EXPECT_NE(machine.logText().find(
                "Exception in -[AppController hostName]. NSPortTimeoutException - late."),
            std::string::npos);

  quitting = true;
  guard.run("-[AppController ping]", timeout);
  EXPECT_EQ(reconnects.size(), 1u);

  guard.run("-[AppController ping]",
            [] { throw NamedException(std::string(kInvalidSendPortException), "gone"); });
  EXPECT_EQ(reconnects.size(), 1u);

  EXPECT_THROW(guard.run("-[AppController ping]", [] { throw ArgumentError("bad"); }),
               ArgumentError);
  EXPECT_THROW(guard.run("-[AppController ping]", [] { throw std::logic_error("bug"); }),
               std::logic_error);
}

} // namespace
} // namespace kestrin::operations
