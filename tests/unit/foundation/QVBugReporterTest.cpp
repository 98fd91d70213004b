#include "foundation/QVBugReporter.h"

#include <fstream>

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"
#include "foundation/QVLocalPaths.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using plist::Date;
using plist::Value;

class QVBugReporterTest : public ::testing::Test {
protected:
  void writeStamps(std::optional<double> launchAgo, std::optional<double> exitAgo) {
    plist::Dictionary store;
    double now = Date::now().seconds;
    if (launchAgo) {
      store.set("launch", Date{now - *launchAgo});
    }
    if (exitAgo) {
      store.set("exit", Date{now - *exitAgo});
    }
    fs::create_directories(fs::path(prefs).parent_path());
    ASSERT_TRUE(plist::writeFile(prefs, Value(store)).ok());
  }
  fs::path report(const char* name, bool user = true, const char* folder = "DiagnosticReports") {
    fs::path path = fs::path(machine.paths().logDirectory(user).value()) / folder / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "crash";
    return path;
  }
  std::optional<std::string> check() {
    return QVBugReporter::checkForCrashes(machine.paths(), tools, std::string("Kestrin"), prefs);
  }

  testing::ThrowawayMachine machine;
  platform::ToolTable tools{{platform::Tool::Chown, machine.makeRecordingTool("chown").string()}};
  std::string prefs = (machine.home() / "Library/Preferences/com.quorvane.Kestrin.plist").string();
};

TEST_F(QVBugReporterTest, AFirstRunOrAnOrderlyEndFindsNothing) {
  report("Kestrin_2026-11-23-010203_mac.crash");
  EXPECT_FALSE(check());
  writeStamps(60, 30); // exit after launch
  EXPECT_FALSE(check());
}

TEST_F(QVBugReporterTest, AReportNewerThanALaunchWithoutExitIsTheCrash) {
  writeStamps(60, 120); // the last run was killed: its exit is older than its launch
  fs::path older = report("Kestrin_2026-11-23-000000_mac.crash", false, "CrashReporter");
  fs::last_write_time(older, fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_FALSE(check()); // older than the launch: not this run's
  report("Other_2026-11-23-010203_mac.crash");
  fs::path crash = report("kestrin_2026-11-23-010203_mac.crash"); // the name matches in any case
  EXPECT_EQ(check(), crash.string());
  EXPECT_NE(machine.logText().find("Application crashed on last launch"), std::string::npos);
  EXPECT_NE(machine.logText().find("Unable to find the bug reporter application"),
            std::string::npos);
}

TEST_F(QVBugReporterTest, TheDisableSwitchKeepsTheReporterClosedButStillAnswers) {
  writeStamps(60, std::nullopt);
  fs::path global = machine.home() / "Library/Preferences/com.quorvane.global.plist";
  ASSERT_TRUE(
      plist::writeFile(global, Value(plist::Dictionary{{"disable-crash-reporter", "1"}})).ok());
  fs::path crash = report("Kestrin_1.crash");
  EXPECT_EQ(check(), crash.string());
  EXPECT_NE(machine.logText().find("Crash reporter disabled"), std::string::npos);
}

TEST_F(QVBugReporterTest, StartAndStopStampTheStoreAndTheDelegateHearsOfTheCrash) {
  writeStamps(60, std::nullopt);
  fs::path crash = report("Kestrin_1.crash");
  // Written half a minute ago; the stamps keep whole seconds only.
  fs::last_write_time(crash, fs::file_time_type::clock::now() - std::chrono::seconds(30));
  std::optional<std::string> heard;
  QVBugReporter::startBugReporter(machine.paths(), tools, std::string("Kestrin"), prefs,
                                  [&](const std::string& path) { heard = path; });
  EXPECT_EQ(heard, crash.string());
  EXPECT_FALSE(check()); // the new launch is later than the report
  QVBugReporter::stopBugReporter(machine.paths(), tools, prefs);
  auto store = plist::readFile(prefs);
  ASSERT_TRUE(store.ok());
  EXPECT_GE(store->get("exit")->asDate()->seconds, store->get("launch")->asDate()->seconds);
}

TEST(QVBugReporterChown, OnlyFilesInAUsersHomeChangeOwner) {
  testing::ThrowawayMachine machine;
  platform::ToolTable tools{{platform::Tool::Chown, machine.makeRecordingTool("chown").string()}};
  QVBugReporter::chownPlist(tools, "/home/editor/Library/Preferences/x.plist");
  QVBugReporter::chownPlist(tools, "/Users/colorist/Library/Preferences/x.plist");
  QVBugReporter::chownPlist(tools, "/var/root/Library/Preferences/x.plist");
  QVBugReporter::chownPlist(tools, "/Library/Preferences/x.plist");
  QVBugReporter::chownPlist(tools, "/home/editor");
  EXPECT_EQ(testing::readText(machine.commandLog()),
            "chown editor /home/editor/Library/Preferences/x.plist\n"
            "chown colorist /Users/colorist/Library/Preferences/x.plist\n");
}

} // namespace
} // namespace kestrin
