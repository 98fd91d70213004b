// The maintenance tools' front-ends (Tibbet, Hembry, Orrick, Scallin, Sevrin) through the
// operation table, with fake tools that record their arguments, over a throwaway machine whose
// clock the test moves.

#include <fstream>
#include <future>

#include "MakerToolTest.h"
#include "fixtures/AgentProcess.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVSysInfo.h"
#include "operations/ScallinOperations.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using Arguments = std::vector<std::string>;

class ToolFrontEndOperationsTest : public testing::MakerToolTest {
protected:
  Value call(const std::string& selector, Value settings, Value credentials = {}) {
    return harness.call(selector, {std::move(credentials), std::move(settings)});
  }
};

const Value kFinished("taskFinished");

TEST_F(ToolFrontEndOperationsTest, TibbetCommandLinesFollowTheTaskAndTheSwitch) {
  install("Tibbet");
  call("tibbetEnableTask:settings:", plist::Dictionary{{"obj2", false}});
  EXPECT_EQ(ran("Tibbet"), Arguments{"-disable"});
  EXPECT_TRUE(logged("Disabling all Tibbet tasks..."));
  call("tibbetEnableTask:settings:", plist::Dictionary{{"obj1", "nightly"}, {"obj2", true}});
  EXPECT_EQ(ran("Tibbet"), (Arguments{"-enable", "nightly"}));

  plist::Dictionary task{{"intervalval", 3600}, {"taskid", "-t"}, {"bundleid", "com.x\ny"}};
  call("tibbetAddTask:settings:", plist::Dictionary{{"obj1", task}});
  EXPECT_EQ(ran("Tibbet"), (Arguments{"-add", "com.x\ny", "-t", "3600"}));
  task.set("enabled", true);
  task.set("filename", "/t/x.plist");
  for (int i = 0; i < 10'000; ++i) {
    task.set("extra" + std::to_string(i), "-rf");
  }
  call("tibbetEditTask:settings:", plist::Dictionary{{"obj1", task}});
  EXPECT_EQ(ran("Tibbet"),
            (Arguments{"-edit", "/t/x.plist", "com.x\ny", "-t", "3600", "-enable", "1"}));
  call("tibbetRemoveTask:settings:", plist::Dictionary{{"obj1", "ignored"}, {"obj2", "nightly"}});
  EXPECT_EQ(ran("Tibbet"), (Arguments{"-remove", "nightly"}));
  EXPECT_TRUE(events().empty());

  for (const Value& settings :
       {Value(5), Value(plist::Dictionary{}),
        Value(plist::Dictionary{{"obj1", plist::Dictionary{{"taskid", plist::Array{}}}}})}) {
    EXPECT_THROW(call("tibbetAddTask:settings:", settings), ArgumentError);
  }
  EXPECT_THROW(call("tibbetRemoveTask:settings:", plist::Dictionary{}), ArgumentError);
  EXPECT_THROW(call("tibbetEnableTask:settings:", plist::Dictionary{}, Value(1)), ArgumentError);
}

TEST_F(ToolFrontEndOperationsTest, TibbetFailuresArePostedAsEachOperationSays) {
  plist::Dictionary add{{"obj1", plist::Dictionary{}}};
  call("tibbetAddTask:settings:", add);
  EXPECT_EQ(events(), std::vector<Value>{ambrantError(1000, "com.quorvane.Tibbet")});

  install("Tibbet", "exit 137");
  call("tibbetAddTask:settings:", add);
  call("tibbetEditTask:settings:", add);
  EXPECT_EQ(events(),
            (std::vector<Value>{ambrantError(1000, "com.quorvane.Tibbet"),
                                ambrantError(137, "com.quorvane.Tibbet"), ambrantError(137)}));
  // Only the edit logs where it found Tibbet.
  std::string log = harness.machine.logText();
  ASSERT_NE(log.find("Found application at path"), std::string::npos);
  EXPECT_EQ(log.find("Found application at path"), log.rfind("Found application at path"));
}

TEST_F(ToolFrontEndOperationsTest, TheTaskListIsTibbetsPropertyListOrNull) {
  fs::path output = harness.machine.root() / "tasks.plist";
  install("Tibbet", "cat '" + output.string() + "'");
  plist::Dictionary tasks{{"nightly", plist::Dictionary{{"enabled", true}}}};
  ASSERT_TRUE(plist::writeFile(output, Value(tasks)).ok());
  EXPECT_EQ(harness.call("tibbetTaskDictionary"), Value(tasks));
  EXPECT_EQ(ran("Tibbet"), Arguments{"-tasks"});
  std::ofstream(output, std::ios::trunc) << "<plist><dict>";
  EXPECT_TRUE(harness.call("tibbetTaskDictionary").isNull());
  EXPECT_TRUE(logged("Could not convert data to dictionary"));
}

TEST_F(ToolFrontEndOperationsTest, HembryJoinsTheNamesAndIgnoresItsExit) {
  install("Hembry", "exit 9");
  harness.call("hembryRunTasks:", {Value(plist::Array{"a", "b", "c"})});
  EXPECT_EQ(ran("Hembry"), (Arguments{"-runtask", "a,b,c"}));
  EXPECT_TRUE(logged("Launching tasks..."));
  EXPECT_TRUE(events().empty());
  EXPECT_THROW(harness.call("hembryRunTasks:", {Value()}), ArgumentError);
}

TEST_F(ToolFrontEndOperationsTest, OrrickAndScallinAlwaysEndWithTheFinishedTask) {
  call("orrickTrashCaches:settings:", plist::Dictionary{{"obj1", "Render"}});
  EXPECT_EQ(events(), std::vector<Value>{kFinished}); // missing Orrick: no error code
  call("scallinRemoveApps:settings:", plist::Dictionary{});
  call("scallinRemoveApps:settings:", plist::Dictionary{{"obj1", 4}});
  const std::string noIdentifier =
      "Unable to remove Final Cut Studio application - no app ID found";
  EXPECT_EQ(events(), (std::vector<Value>{kFinished, Value(noIdentifier), kFinished,
                                          ambrantError(1000, "com.quorvane.Scallin"), kFinished}));

  install("Orrick", "exit 137");
  install("Scallin");
  std::size_t before = events().size();
  call("orrickTrashCaches:settings:", plist::Dictionary{{"obj1", "-all\nRender"}});
  EXPECT_EQ(ran("Orrick"), (Arguments{"-clearcaches", "-all\nRender", "-force"}));
  call("scallinRemoveApps:settings:", plist::Dictionary{{"obj1", 42}});
  EXPECT_EQ(ran("Scallin"), (Arguments{"-auto", "-custom", "42"}));
  auto after = events();
  EXPECT_EQ(std::vector<Value>(after.begin() + static_cast<long>(before), after.end()),
            (std::vector<Value>{ambrantError(137), kFinished, kFinished}));
  EXPECT_TRUE(logged("Task finished with an error."));
  EXPECT_TRUE(logged("Task finished successfully."));

  EXPECT_THROW(call("orrickTrashCaches:settings:", plist::Dictionary{}), ArgumentError);
  EXPECT_THROW(call("scallinRemoveApps:settings:", plist::Dictionary{{"obj1", "42"}}),
               ArgumentError);
}

TEST_F(ToolFrontEndOperationsTest, AHungOrrickIsStoppedAtItsLimitOnTheAgentsClock) {
  install("Orrick", "exec sleep 300");
  auto run = std::async(std::launch::async, [&] {
    call("orrickTrashCaches:settings:", plist::Dictionary{{"obj1", "Render"}});
  });
  ASSERT_TRUE(testing::eventually([&] { return harness.timer.pending() > 1; }));
  harness.advance(59s);
  EXPECT_EQ(run.wait_for(100ms), std::future_status::timeout);
  harness.advance(1s);
  ASSERT_EQ(run.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(events(), (std::vector<Value>{ambrantError(SIGTERM), kFinished}));
}

TEST_F(ToolFrontEndOperationsTest, ARefusedRunWithCredentialsLeavesTheEndToTheDeadline) {
  install("Scallin");
  plist::Dictionary credentials{{"authUser", "nobody"},
                                {"authPass", QVEncryption::encryptPassword("wrong")}};
  call("scallinRemoveApps:settings:", plist::Dictionary{{"obj1", 3}}, credentials);
  EXPECT_FALSE(ran("Scallin"));
  EXPECT_EQ(events(), std::vector<Value>{ambrantError(1006)});
  harness.advance(
      std::chrono::seconds(static_cast<int>(ScallinOperations::kFinishedTaskDeadline) - 1));
  EXPECT_EQ(events().size(), 1u);
  harness.advance(1s);
  EXPECT_EQ(events(), (std::vector<Value>{ambrantError(1006), kFinished}));
  EXPECT_TRUE(logged("Task timed out. Finishing..."));
}

TEST_F(ToolFrontEndOperationsTest, TheSystemProfileIsGatheredOncePerProcess) {
  Value first = harness.call("sevrinSystemInfo");
  ASSERT_TRUE(first.asDictionary());
  // A framework installed since: a fresh profile lists it, the cached one does not.
  fs::path info = harness.machine.root() / "Library/Frameworks/Late.framework/Versions/Current/"
                                           "Resources/Info.plist";
  fs::create_directories(info.parent_path());
  ASSERT_TRUE(plist::writeFile(info, Value(plist::Dictionary{{"CFBundleVersion", "2"}})).ok());
  Value fresh(QVSysInfo(harness.machine.paths(), platform::SystemFacts::current()).systemProfile());
  EXPECT_NE(fresh, first);
  EXPECT_EQ(harness.call("sevrinSystemInfo"), first);
  EXPECT_TRUE(logged("Getting system info for Sevrin..."));
}

} // namespace
} // namespace kestrin::operations
