#include "operations/TaskOperations.h"

#include <future>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/ServicesHarness.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileBytes.h"
#include "plist/PropertyList.h"

// The maker's tasks through the operation table, in-process over a throwaway machine whose
// clock the test moves.

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::makeMakerTool;
using testing::makerTask;
using testing::RecordingObject;

class TaskOperationsTest : public ::testing::Test {
protected:
  TaskOperationsTest() {
    fs::path root = harness.machine.root();
    makeMakerTool(quorvane(), "Tibbet", "com.quorvane.Tibbet",
                  plist::Array{makerTask("clean", {"--clean", "--all"})});
    makeMakerTool(quorvane(), "Orrick", "com.quorvane.Orrick",
                  plist::Array{makerTask("x", {"--x"})}, 42);
    makeMakerTool(quorvane(), "Sevrin", "com.quorvane.Sevrin",
                  plist::Array{makerTask("hang", {"-h"})}, 0, "exec sleep 300");
    // Tibbet brings its own icon; the others get the generic one of the agent's bundle.
    fs::copy_file(images() / "spanner-18.png",
                  quorvane() / "Tibbet.app/Contents/Resources/Tibbet.png");
    makeMakerTool(quorvane(), "Hembry", "com.quorvane.Hembry",
                  plist::Dictionary{{"--scan ### --deep", "Scan deeply"}});
    // Same name, other identifier: passed over.
    makeMakerTool(root / "Applications", "Scallin", "com.other.Scallin",
                  plist::Array{makerTask("x", {"-x"})});
    // Never scanned: an Avid folder and a Help folder.
    makeMakerTool(root / "Applications/Avid Media Composer", "Lintrow", "com.quorvane.Lintrow",
                  plist::Array{makerTask("x", {"-x"})});
    makeMakerTool(root / "Applications/HELP", "Feldane", "com.quorvane.Feldane",
                  plist::Array{makerTask("x", {"-x"})});
    makeMakerTool(root / "Applications", "Quorvane Software Update", "com.quorvane.SoftwareUpdate",
                  plist::Array{makerTask("x", {"-x"})});
    harness.applications.populateQVApps();
    harness.errorChannel.setErrorCallback(callback);
  }

  static fs::path images() { return fs::path(KESTRIN_SOURCE_DIR) / "resources/images"; }
  fs::path quorvane() const { return harness.machine.root() / "Applications/Quorvane"; }
  // The error the callbacks received from one run, or null.
  Value errorOf(std::vector<Value> arguments) {
    std::size_t before = callback->calls().size();
    harness.call("executeTask:bundleID:options:", std::move(arguments));
    return callback->calls().size() == before ? Value() : callback->calls().back().arguments[0];
  }

  testing::ServicesHarness harness;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
};

Value error(std::int64_t code, std::optional<std::string> info = std::nullopt) {
  plist::ErrorRecord record{"ambrantDomain", code, {}};
  if (info) {
    record.userInfo.set("info", *info);
  }
  return record;
}

TEST_F(TaskOperationsTest, EveryFailureReachesTheCallbacksWithItsCode) {
  EXPECT_EQ(errorOf({Value("x"), Value("com.quorvane.Missing"), Value()}),
            error(1000, "com.quorvane.Missing"));
  EXPECT_EQ(errorOf({Value("x"), Value("com.quorvane.Hembry"), Value()}),
            error(1002, "com.quorvane.Hembry")); // the old format cannot run
  EXPECT_EQ(errorOf({Value("nope"), Value("com.quorvane.Tibbet"), Value()}), error(1003));
  EXPECT_EQ(errorOf({Value("x"), Value("com.quorvane.Orrick"), Value()}), error(42));
  EXPECT_EQ(errorOf({Value("x"), Value("com.quorvane.Scallin"), Value()}),
            error(1000, "com.quorvane.Scallin"));
}

TEST_F(TaskOperationsTest, AHungTaskIsEndedAtItsThirtySecondLimitOnTheAgentsClock) {
  auto run = std::async(std::launch::async, [&] {
    return errorOf({Value("hang"), Value("com.quorvane.Sevrin"), Value()});
  });
  ASSERT_TRUE(testing::eventually([&] { return harness.timer.pending() > 0; }));
  harness.clock.advance(29s);
  harness.timer.waitUntilIdle();
  EXPECT_EQ(run.wait_for(100ms), std::future_status::timeout);
  harness.clock.advance(1s);
  ASSERT_EQ(run.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(run.get(), error(SIGTERM));
  EXPECT_NE(harness.machine.logText().find("Task finished with an error."), std::string::npos);
}

TEST_F(TaskOperationsTest, LookupAndListingFollowTheNameRulesAndSkipForeignFolders) {
  fs::path applications = quorvane().parent_path();
  EXPECT_EQ(harness.call("pathForAppWithBundleID:", {Value("com.quorvane.SoftwareUpdate")}),
            Value((applications / "Quorvane Software Update.app").string()));
  EXPECT_EQ(harness.call("exePathForAppWithBundleID:", {Value("com.quorvane.Tibbet")}),
            Value((quorvane() / "Tibbet.app/Contents/MacOS/Tibbet").string()));
  EXPECT_TRUE(harness.call("pathForAppWithBundleID:", {Value("com.other.Nothing")}).isNull());

  Value listed = harness.call("qvAppTasks");
  std::vector<std::string> names;
  for (const Value& entry : *listed.asArray()) {
    names.push_back(*entry.get("name")->asString());
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("Tibbet", "Orrick", "Hembry", "Sevrin",
                                                     "Quorvane Software Update"));
  for (const Value& entry : *listed.asArray()) {
    if (*entry.get("name")->asString() == "Hembry") {
      EXPECT_EQ(
          *entry.get("tasks"),
          Value(plist::Array{plist::Dictionary{{"description", "Scan deeply"},
                                               {"command", plist::Array{"--scan", "--deep"}}}}));
    }
  }
}

TEST_F(TaskOperationsTest, AWalkForApplicationsEndsOnceItsCallerHasGone) {
  auto connected = std::make_shared<std::atomic<bool>>(true);
  Caller caller{"10.0.0.9", 7, connected};
  Value folder((harness.machine.root() / "Applications").string());
  EXPECT_EQ(harness.root->invokeFrom(caller, "qvAppsInFolder:", {folder}).asArray()->size(), 5u);
  *connected = false;
  EXPECT_EQ(harness.root->invokeFrom(caller, "qvAppsInFolder:", {folder}), Value(plist::Array{}));
  EXPECT_NE(harness.machine.logText().find("Stopped looking for applications in " +
                                           *folder.asString() + ": the caller has gone."),
            std::string::npos);
}

// An image's pixels as 8-bit RGBA, decoded by GraphicsMagick.
plist::Data pixelsOf(const Value& image) {
  testing::TempDir scratch;
  auto file = platform::writeTemporaryFile(scratch.path().string(),
                                           image.asData() ? *image.asData() : plist::Data{});
  if (!file) {
    return {};
  }
  return QVTaskEx::dataFromTask(platform::ToolTable().path(platform::Tool::Gm),
                                {"convert", *file, "-depth", "8", "RGBA:-"})
      .value_or(plist::Data{});
}

TEST_F(TaskOperationsTest, EveryListedApplicationCarriesAnIconItsOwnOrTheGenericOne) {
  std::map<std::string, Value> icons;
  Value listed = harness.call("qvAppTasks");
  for (const Value& entry : *listed.asArray()) {
    const Value* icon = entry.get("icon");
    const plist::Data* bytes = icon ? icon->asData() : nullptr;
    ASSERT_TRUE(bytes && bytes->size() > 4) << plist::describe(entry);
    std::string magic(bytes->begin(), bytes->begin() + 4);
    EXPECT_TRUE(magic == std::string("II*\0", 4) || magic == std::string("MM\0*", 4));
    icons[*entry.get("name")->asString()] = *icon;
  }
  // The files carry the converter's scratch names; their pixels are what must match.
  EXPECT_NE(pixelsOf(icons["Tibbet"]), pixelsOf(icons["Orrick"]));
  EXPECT_EQ(pixelsOf(icons["Orrick"]), pixelsOf(icons["Hembry"]));

  // A replaced icon file is converted afresh, not served from the cache.
  fs::copy_file(images() / "largeServiceIcon.png",
                quorvane() / "Tibbet.app/Contents/Resources/Tibbet.png",
                fs::copy_options::overwrite_existing);
  Value again = harness.call("qvAppTasks");
  for (const Value& entry : *again.asArray()) {
    if (*entry.get("name")->asString() == "Tibbet") {
      EXPECT_NE(pixelsOf(*entry.get("icon")), pixelsOf(icons["Tibbet"]));
    }
  }
}

} // namespace
} // namespace kestrin::operations
