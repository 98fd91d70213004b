// Applications and settings through the operation table: the inventories, launching and
// quitting a real child, the suite's and the agent's settings with their −1 rules, and the
// computer's icon; over a throwaway machine.

#include <csignal>
#include <fstream>

#include <gmock/gmock.h>

#include "MakerToolTest.h"
#include "fixtures/AgentProcess.h"
#include "foundation/QVEncryption.h"
#include "platform/Processes.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;

constexpr const char* kProtected[] = {
    "Pendry", "Quillet", "Marrick", "Tovell",   "Hembry", "Scallin", "Orbisk", "Lintrow",
    "Vantry", "Feldane", "Grimsel", "Ketterly", "Zandor", "Orrick",  "Tibbet", "Wendrel"};

class ApplicationTest : public testing::MakerToolTest {
protected:
  // A bundle whose executable is a real program that runs until told to stop: its name is
  // long and holds blanks, as editing applications' names do.
  fs::path installApplication(const std::string& name, const std::string& identifier,
                              const std::string& version) {
    fs::path bundle = harness.machine.root() / "Applications" / (name + ".app");
    fs::create_directories(bundle / "Contents/MacOS");
    (void)plist::writeFile(bundle / "Contents/Info.plist",
                           Value(plist::Dictionary{{"CFBundleIdentifier", identifier},
                                                   {"CFBundleShortVersionString", version}}));
    fs::copy_file(KESTRIN_IDLE_APPLICATION, bundle / "Contents/MacOS" / name);
    return bundle;
  }
  fs::path localPreferences() const { return harness.machine.root() / "Library/Preferences"; }
  fs::path userPreferences() const { return harness.machine.home() / "Library/Preferences"; }
  void protect(const char* tool, const Value& value) {
    fs::create_directories(localPreferences());
    (void)plist::writeFile(localPreferences() / ("com.quorvane." + std::string(tool) + ".plist"),
                           Value(plist::Dictionary{{"requireAdminPassword", value}}));
  }
  Value suiteValue(const char* file, const char* key) {
    auto contents = plist::readFile(userPreferences() / file);
    return contents && contents->get(key) ? *contents->get(key) : Value();
  }
};

TEST_F(ApplicationTest, ARealApplicationIsListedLaunchedQuitAndForceQuitWithoutZombies) {
  fs::path bundle = installApplication("Avid Media Composer", "com.avid.MediaComposer", "2024.6");
  auto info = [&] { return *harness.call("finalCutStudioAppInfo").get("Avid Media Composer"); };
  EXPECT_EQ(info(), Value(plist::Dictionary{
                        {"installed", true}, {"running", false}, {"version", "2024.6"}}));
  EXPECT_EQ(*harness.call("finalCutStudioAppInfo").get("Color"),
            Value(plist::Dictionary{{"installed", false}}));
  EXPECT_EQ(harness.call("finalCutStudioAppInfo").asDictionary()->size(), 16u);
  EXPECT_EQ(harness.call("ambrantAppInfo").asDictionary()->size(), 18u);

  auto running = [&] { return platform::processesInside(bundle.string()); };
  harness.call("launchApp:", {Value("com.avid.MediaComposer")});
  ASSERT_TRUE(testing::eventually([&] { return running().size() == 1; }));
  pid_t pid = running()[0].pid;
  EXPECT_EQ(*info().get("running"), Value(true));
  harness.call("terminateApp:", {Value("com.avid.MediaComposer")});
  EXPECT_TRUE(logged("Terminating Avid Media Composer..."));
  // Gone, and reaped: no zombie keeps its entry.
  EXPECT_TRUE(testing::eventually([&] { return !fs::exists("/proc/" + std::to_string(pid)); }));

  // Force quit hands killall the whole name; the test's own killall ends its own child by pid.
  fs::path named = harness.machine.root() / "killall.name";
  fs::path killall = harness.machine.root() / "killall";
  std::ofstream(killall) << "#!/bin/sh\nprintf '%s|' \"$@\" > '" << named.string() << "'\n";
  fs::permissions(killall, fs::perms::owner_all);
  harness.tools = harness.tools.withPath(platform::Tool::Killall, killall.string());
  harness.call("launchApp:", {Value("com.avid.MediaComposer")});
  ASSERT_TRUE(testing::eventually([&] { return running().size() == 1; }));
  pid = running()[0].pid;
  harness.call("forceQuitApp:", {Value("com.avid.MediaComposer")});
  EXPECT_EQ(testing::readText(named), "--|Avid Media Composer|");
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(testing::eventually([&] { return !fs::exists("/proc/" + std::to_string(pid)); }));

  harness.call("terminateApp:", {Value("com.avid.MediaComposer")});
  EXPECT_TRUE(logged("Unable to terminate - application com.avid.MediaComposer is not running"));
  harness.call("launchApp:", {Value(std::string(10'000, 'x'))});
  EXPECT_TRUE(logged("Unable to locate appliation."));
  EXPECT_THROW(harness.call("launchApp:", {Value(5)}), ArgumentError);
}

TEST_F(ApplicationTest, TheSuitesSettingsFollowTheirFilesAndTheMixedState) {
  auto protection = [&] { return *harness.call("ambrantSettings").get("passwordProtect"); };
  EXPECT_EQ(protection(), Value(0));
  for (const char* tool : kProtected) {
    protect(tool, 1);
  }
  protect("Stoven", 0); // not among the protected
  EXPECT_EQ(protection(), Value(1));
  protect("Wendrel", 0);
  EXPECT_EQ(protection(), Value(-1));
  fs::remove(localPreferences() / "com.quorvane.Wendrel.plist");
  fs::create_directories(localPreferences() / "com.quorvane.Wendrel.plist"); // a folder
  EXPECT_EQ(protection(), Value(-1));
  std::ofstream(localPreferences() / "com.quorvane.Tibbet.plist") << "not a plist";
  EXPECT_EQ(protection(), Value(-1));

  fs::create_directories(userPreferences());
  (void)plist::writeFile(userPreferences() / "com.quorvane.global.plist",
                         Value(plist::Dictionary{{"SUCheckAtStartup", 0}}));
  harness.call("setAmbrantSettings:", {Value(plist::Dictionary{{"autoUpdateCheck", -1},
                                                               {"betaUpdateCheck", 1},
                                                               {"passwordProtect", 0},
                                                               {"other", "x"}})});
  EXPECT_EQ(suiteValue("com.quorvane.global.plist", "SUCheckAtStartup"), Value(1));
  EXPECT_FALSE(fs::exists(userPreferences() / "com.quorvane.SoftwareUpdate.plist"));
  EXPECT_THROW(
      harness.call("setAmbrantSettings:", {Value(plist::Dictionary{{"autoUpdateCheck", "yes"}})}),
      ArgumentError);

  plist::Dictionary wrong{{"authUser", "nobody-here"},
                          {"authPass", QVEncryption::encryptPassword("wrong")}};
  harness.call("ambrantPasswordProtect:settings:",
               {Value(wrong), Value(plist::Dictionary{{"obj1", 0}})});
  EXPECT_EQ(events().back(), ambrantError(1006));
  EXPECT_EQ(protection(), Value(-1));
}

TEST_F(ApplicationTest, TheAgentsSettingsChangeOnlyWhereAskedAndMinusOneLeavesThemAlone) {
  EXPECT_EQ(harness.call("networkClientSettings"),
            Value(plist::Dictionary{{"autoUpdateCheck", 1},
                                    {"showMenuBarIcon", 1},
                                    {"enableMaintenanceRequests", 1},
                                    {"globalUpdateCheck", 1}}));
  fs::create_directories(userPreferences());
  (void)plist::writeFile(userPreferences() / "com.quorvane.global.plist",
                         Value(plist::Dictionary{{"SUCheckAtStartup", 1}}));
  plist::Dictionary unchanged{{"autoUpdateCheck", -1},
                              {"showMenuBarIcon", -1},
                              {"enableMaintenanceRequests", -1},
                              {"globalUpdateCheck", -1}};
  harness.call("setNetworkClientSettings:", {Value(unchanged)});
  EXPECT_TRUE(harness.settings.object("autoUpdateCheck").isNull());
  EXPECT_EQ(suiteValue("com.quorvane.global.plist", "SUCheckAtStartup"), Value(1));

  harness.call("setNetworkClientSettings:",
               {Value(plist::Dictionary{{"showMenuBarIcon", 0}, {"globalUpdateCheck", 0}})});
  EXPECT_EQ(harness.settings.object("showMenuBarIcon"), Value(0));
  EXPECT_EQ(harness.agent.menuBarItem, false);
  EXPECT_EQ(suiteValue("com.quorvane.global.plist", "SUCheckAtStartup"), Value(0));
  for (const Value& wrong : {Value(plist::Dictionary{{"softwareUpdateFeedURL", "https://x/"}}),
                             Value(plist::Dictionary{{"autoUpdateCheck", "one"}})}) {
    EXPECT_THROW(harness.call("setNetworkClientSettings:", {wrong}), ArgumentError);
  }
  EXPECT_TRUE(harness.settings.object("softwareUpdateFeedURL").isNull());
}

TEST_F(ApplicationTest, TheComputerIconIsTheStoredOneAt48AndAScaledImageOtherwise) {
  Value small = harness.call("computerIcon");
  ASSERT_TRUE(small.asData());
  Value large =
      harness.call("computerIcon:", {Value(plist::Dictionary{{"width", 48}, {"height", 48}})});
  EXPECT_EQ(large, *harness.icons.iconDict().get("largeServiceIcon"));
  Value scaled = harness.call("computerIcon:", {Value("{32, 32}")});
  ASSERT_TRUE(scaled.asData());
  std::string magic(scaled.asData()->begin(), scaled.asData()->begin() + 4);
  EXPECT_TRUE(magic == std::string("II*\0", 4) || magic == std::string("MM\0*", 4));
  for (const Value& size :
       {Value(plist::Dictionary{{"width", 0}, {"height", 0}}), Value(plist::Array{-1, 5}),
        Value(plist::Array{100'000, 100'000}), Value("a size"), Value()}) {
    EXPECT_THROW(harness.call("computerIcon:", {size}), ArgumentError) << plist::describe(size);
  }
}

} // namespace
} // namespace kestrin::operations
