#include "app/AppController.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/MainLoop.h"
#include "app/QVErrorCallbackObj.h"
#include "app/StatusItem.h"
#include "fixtures/AgentProcess.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/TempDir.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/QVAuthorization.h"
#include "platform/ManualClock.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin {
namespace {

using plist::Value;
using ::testing::ElementsAre;
using testing::ThrowawayMachine;

TEST(ListeningPort, OnlyAnEnabledCustomPortInsideTheRangeIsUsed) {
  auto port = &AppController::listeningPortFromPreferences;
  EXPECT_EQ(port(Value(1), Value(1025)), 1025);
  EXPECT_EQ(port(Value(1), Value(65535)), 65535);
  EXPECT_EQ(port(Value(1), Value(1024)), 0);
  EXPECT_EQ(port(Value(1), Value(65536)), 0);
  EXPECT_EQ(port(Value(1), Value(-1)), 0);
  EXPECT_EQ(port(Value(1), Value()), 0);
  EXPECT_EQ(port(Value(0), Value(4000)), 0);
  EXPECT_EQ(port(Value(2), Value(4000)), 0);
  EXPECT_EQ(port(Value(), Value(4000)), 0);
  EXPECT_EQ(port(Value(true), Value("4000")), 4000); // hand-edited settings still count
}

TEST(RegisteredName, NamesOf64CharactersOrMoreAreCutTo63) {
  EXPECT_EQ(ListeningEndpoint::registeredName(std::string(63, 'a')), std::string(63, 'a'));
  EXPECT_EQ(ListeningEndpoint::registeredName(std::string(70, 'a')), std::string(63, 'a'));
}

class AppControllerTest : public ::testing::Test {
protected:
  AppControllerTest()
      : bundle(machine.makeBundle(machine.root() / "Applications", "Kestrin",
                                  "com.quorvane.Kestrin", "321")) {}

  AppController::Environment environment(std::optional<std::string> bundlePath) {
    return {machine.paths(), loop, std::move(bundlePath), clock, tools, authorization};
  }
  AppController::Environment environment() { return environment(bundle.string()); }
  void writePrefs(const plist::Dictionary& dict) {
    auto path = machine.home() / "Library/Preferences/com.quorvane.Kestrin.plist";
    std::filesystem::create_directories(path.parent_path());
    ASSERT_TRUE(plist::writeFile(path, dict).ok());
  }

  MainLoop loop;
  ThrowawayMachine machine;
  platform::ManualClock clock;
  platform::ToolTable tools;
  QVAuthorization authorization{{machine.paths(), tools, false}, false};
  std::filesystem::path bundle;
};

TEST_F(AppControllerTest, StartUpLogsItsStepsAndRecordsTheVersionThatRan) {
  AppController controller(environment());
  ASSERT_TRUE(controller.init());
  EXPECT_EQ(controller.bundle().clientVersion(), "321");
  EXPECT_EQ(controller.objectForPreferenceDictionaryKey("lastRunVersion"), Value("321"));
  EXPECT_EQ(controller.statusItem().statusString(),
            "Listening on port " +
                std::to_string(controller.listeningEndpoint().listenPortNumber()));
  EXPECT_EQ(controller.listeningEndpoint().pdoName(), "Kestrin - " + controller.hostName());

  std::string log = machine.logText();
  auto at = [&](const char* text) { return log.find(text); };
  ASSERT_NE(at("Log started: "), std::string::npos);
  ASSERT_NE(at("Version 321."), std::string::npos);
  EXPECT_LT(at("Starting up..."), at("Disconnecting other instances of client..."));
  EXPECT_LT(at("Searching for other instances of client..."), at("Version 321."));
  EXPECT_LT(at("Version 321."), at("Connecting to WindowServer..."));
  EXPECT_LT(at("Connecting to WindowServer..."), at("Starting vending..."));
}

TEST_F(AppControllerTest, CustomPortIsLoggedOnlyWhenAccepted) {
  writePrefs({{"customPortSet", 1}, {"customPort", 1025}});
  {
    AppController controller(environment());
    controller.startService();
    EXPECT_EQ(controller.requestedPort(), 1025);
  }
  EXPECT_NE(machine.logText().find("Custom port set to 1025"), std::string::npos);

  writePrefs({{"customPortSet", 1}, {"customPort", 1024}});
  AppController controller(environment());
  controller.startService();
  EXPECT_EQ(controller.requestedPort(), 0);
  EXPECT_EQ(machine.logText().find("Custom port set to 1024"), std::string::npos);
}

TEST_F(AppControllerTest, LoadSettingsRestoresTheUpdateCount) {
  writePrefs(
      {{"availableUpdateCount", 3}, {"availableUpdateCountLastUpdate", plist::Date{1000.0}}});
  AppController controller(environment());
  controller.loadSettings();
  EXPECT_EQ(controller.availableUpdateCount(), Value(3));
  EXPECT_EQ(controller.availableUpdateCountLastUpdate(), Value(plist::Date{1000.0}));
}

TEST_F(AppControllerTest, VersionIsUnknownWithoutABundle) {
  AppController controller(environment(std::nullopt));
  EXPECT_EQ(controller.bundle().clientVersion(), "Unknown");
  EXPECT_EQ(controller.bundle().clientVersionString(), "Unknown");
  EXPECT_TRUE(controller.bundle().objectForInfoDictionaryKey("CFBundleIdentifier").isNull());
}

TEST_F(AppControllerTest, DisconnectNotificationSparesTheInstanceItNames) {
  AppController controller(environment());
  controller.disconnect(plist::Dictionary{{"excluded_pid", static_cast<int>(::getpid())}});
  EXPECT_FALSE(controller.isQuitting());

  controller.disconnect(plist::Dictionary{});
  EXPECT_TRUE(controller.isQuitting());
  EXPECT_EQ(loop.run(), std::nullopt); // quit was requested: the loop ends at once
  std::string log = machine.logText();
  EXPECT_NE(log.find("Preparing to disconnect..."), std::string::npos);
  EXPECT_NE(log.find("Disconnected"), std::string::npos);
}

TEST_F(AppControllerTest, RelaunchWithoutAnExecutableOnlyLogs) {
  std::filesystem::remove(bundle / "Contents/MacOS/Kestrin");
  AppController controller(environment());
  controller.relaunch();
  EXPECT_FALSE(controller.isQuitting());
  EXPECT_FALSE(controller.isRelaunching());
  EXPECT_NE(machine.logText().find("Unable to relaunch client - " +
                                   (bundle / "Contents/MacOS/Kestrin").string() +
                                   " doesn't exist."),
            std::string::npos);
}

TEST_F(AppControllerTest, RootObjectAnswersClearErrorsForUnknownSelectorsAndBadArguments) {
  AppController controller(environment());
  plist::ObjectRef root = controller.rootObject();
  auto errorOf = [&](const std::string& selector, std::vector<Value> arguments) -> std::string {
    try {
      root->invoke(selector, std::move(arguments));
    } catch (const ArgumentError& e) {
      return e.what();
    }
    return "no error";
  };
  EXPECT_EQ(errorOf("noSuchThing:", {Value(1)}),
            "AppController does not respond to selector noSuchThing:");
  EXPECT_EQ(errorOf("setErrorCallback:", {}), "setErrorCallback: takes 1 argument(s), not 0");
  EXPECT_EQ(errorOf("setErrorCallback:", {Value("me")}),
            "argument 1 of setErrorCallback: must be an object, not a string");
  EXPECT_EQ(errorOf("postErrorWithCode:infoString:", {Value(plist::Array{}), Value()}),
            "argument 1 of postErrorWithCode:infoString: must be a number, not an array");

  EXPECT_TRUE(root->respondsTo("setErrorCallback:"));
  EXPECT_FALSE(root->respondsTo("setErrorCallback"));
  EXPECT_EQ(root->invoke("clientVersion", {}), Value("321"));
  EXPECT_EQ(root->invoke("clientVersionString", {}), Value("321"));
  EXPECT_TRUE(root->invoke("ping", {}).isNull());
}

TEST_F(AppControllerTest, OneReconnectionAtATimeRestartsTheWholeService) {
  AppController controller(environment());
  ASSERT_TRUE(controller.init());
  std::size_t pending = controller.timer().pending(); // the notifications' retry, without a bus
  controller.reconnectWithTimeInterval(1.0);
  controller.reconnectWithTimeInterval(1.0); // already pending: ignored
  ASSERT_TRUE(testing::eventually([&] { return controller.timer().pending() > pending; }));
  EXPECT_FALSE(controller.isConnected());
  clock.advance(std::chrono::seconds(1));
  // The restarted service logs its port before it counts as connected, so wait for both.
  ASSERT_TRUE(testing::eventually([&] {
    std::string log = machine.logText();
    auto reconnecting = log.find("Reconnecting in 1 seconds...");
    return reconnecting != std::string::npos &&
           log.find("Listening on port", reconnecting) != std::string::npos &&
           controller.isConnected();
  }));
  std::string log = machine.logText();
  auto first = log.find("Reconnecting in 1 seconds...");
  EXPECT_EQ(log.find("Reconnecting in 1 seconds...", first + 1), std::string::npos);
  EXPECT_NE(log.find("Stopping vending...", log.find("Disconnecting...")), std::string::npos);
}

TEST_F(AppControllerTest, ShutdownWhileAReconnectionWaitsEndsWithoutRestarting) {
  AppController controller(environment());
  ASSERT_TRUE(controller.init());
  std::size_t pending = controller.timer().pending();
  controller.reconnectWithTimeInterval(1.0);
  ASSERT_TRUE(testing::eventually([&] { return controller.timer().pending() > pending; }));
  controller.systemShutdown();
  clock.advance(std::chrono::seconds(1));
  controller.timer().waitUntilIdle();
  ASSERT_TRUE(testing::eventually([&] { return controller.workers().backlog() == 0; }));
  EXPECT_FALSE(controller.isConnected());
  EXPECT_EQ(loop.run(), std::nullopt); // the shutdown asked the main loop to end
  std::string log = machine.logText();
  auto shutdown = log.find("System event: shutdown.");
  ASSERT_NE(shutdown, std::string::npos);
  EXPECT_LT(shutdown, log.find("Preparing to disconnect..."));
  EXPECT_EQ(log.find("Listening on port", shutdown), std::string::npos);
}

TEST_F(AppControllerTest, MaintenanceRequestsReachTheAdminsAndQuittingHidesWithoutCancelling) {
  writePrefs({{"enableMaintenanceRequests", 0}});
  AppController controller(environment());
  auto callback = std::make_shared<testing::RecordingObject>(testing::errorCallbackSelectors());
  controller.errorChannel().setErrorCallback(callback);
  StatusItem& item = controller.statusItem();

  item.sendMaintenanceRequest();
  EXPECT_TRUE(controller.maintenanceRequested());
  item.cancelMaintenanceRequest(); // the settings keep a request once made
  EXPECT_TRUE(controller.maintenanceRequested());
  item.requestMaintenance(); // with no menu to read, the action cancels
  writePrefs({});
  item.hideMenuBarItem(); // not quitting: the request is cancelled
  EXPECT_FALSE(controller.maintenanceRequested());
  controller.disconnect(); // hides the item too, quitting: no cancellation
  EXPECT_THAT(callback->selectorsCalled(),
              ElementsAre("requestMaintenance:", "cancelMaintenance:", "cancelMaintenance:",
                          "cancelMaintenance:", "willDisconnect:"));
  EXPECT_THAT(callback->calls()[0].arguments, ElementsAre(Value(controller.hostName())));
  std::string log = machine.logText();
  EXPECT_NE(log.find("Hiding menu bar item...", log.find("Preparing to disconnect...")),
            std::string::npos);
}

TEST_F(AppControllerTest, ThePreferencePaneOpensOnlyWhenItIsThere) {
  auto opener = machine.root() / "xdg-open";
  auto opened = machine.root() / "opened";
  testing::writeText(opener, "#!/bin/sh\necho \"$@\" > " + opened.string() + "\n");
  std::filesystem::permissions(opener, std::filesystem::perms::owner_all);
  platform::ToolTable withOpener = tools.withPath(platform::Tool::XdgOpen, opener.string());
  AppController controller(
      {machine.paths(), loop, bundle.string(), clock, withOpener, authorization});
  auto pane = machine.root() / "Library/PreferencePanes/Kestrin.prefPane";

  controller.statusItem().launchPrefPane();
  EXPECT_NE(machine.logText().find("Error: unable to locate " + pane.string()), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(opened));

  std::filesystem::create_directories(pane);
  controller.statusItem().launchPrefPane();
  EXPECT_TRUE(
      testing::eventually([&] { return testing::readText(opened) == pane.string() + "\n"; }));
}

TEST(QVErrorCallbackObj, ForwardsTheToolsCallsToTheControllerAndSkipsWhatItLacks) {
  MainLoop loop;
  auto controller = std::make_shared<testing::RecordingObject>(
      std::set<std::string>{"postErrorString:", "disconnect"}, "controller");
  QVErrorCallbackObj forwarder(controller, loop);

  forwarder.invoke("postErrorString:", {Value("Cache volume missing")});
  forwarder.invoke("postDisconnect", {});
  forwarder.invoke("incrementRemoteProgress", {}); // the controller lacks it: skipped
  forwarder.invoke("postError:userInfo:", {});     // likewise, however it was called
  EXPECT_THAT(controller->selectorsCalled(), ElementsAre("postErrorString:", "disconnect"));
  EXPECT_THAT(controller->calls()[0].arguments, ElementsAre(Value("Cache volume missing")));

  EXPECT_TRUE(forwarder.respondsTo("postFinishedTask"));
  EXPECT_FALSE(forwarder.respondsTo("disconnect"));
  EXPECT_THROW(forwarder.invoke("format:", {Value(1)}), ArgumentError);
}

} // namespace
} // namespace kestrin
