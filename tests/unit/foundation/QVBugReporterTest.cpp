#include "foundation/QVBugReporter.h"

#include <fstream>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
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

TEST_F(QVBugReporterTest, FoldersGoUserFirstAndOnlyEachFoldersLastReportCounts) {
  writeStamps(60, std::nullopt);
  fs::path local = report("Kestrin_1.crash", false, "DiagnosticReports");
  fs::path user = report("Kestrin_1.crash", true, "CrashReporter");
  EXPECT_EQ(check(), user.string());
  // An old report last in the user's folder hides the newer one before it there.
  fs::path old = report("Kestrin_2.crash", true, "CrashReporter");
  fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_EQ(check(), local.string());
}

TEST_F(QVBugReporterTest, OnlyTheString1OrANumberEqualToTrueDisablesTheReporter) {
  writeStamps(60, std::nullopt);
  report("Kestrin_1.crash");
  fs::path global = machine.home() / "Library/Preferences/com.quorvane.global.plist";
  auto disables = [&](Value flag) {
    EXPECT_TRUE(
        plist::writeFile(global, Value(plist::Dictionary{{"disable-crash-reporter", flag}})).ok());
    std::string before = machine.logText();
    EXPECT_TRUE(check()); // disabled or not, the crash is answered
    std::string added = machine.logText().substr(before.size());
    return added.find("Crash reporter disabled") != std::string::npos;
  };
  EXPECT_TRUE(disables(Value("1")));
  EXPECT_TRUE(disables(Value(true)));
  EXPECT_TRUE(disables(Value(std::int64_t{1})));
  EXPECT_FALSE(disables(Value("yes")));
  EXPECT_FALSE(disables(Value("0")));
  EXPECT_FALSE(disables(Value(std::int64_t{2})));
}

TEST_F(QVBugReporterTest, TheReporterFoundByItsIdentifierIsGivenTheReport) {
  writeStamps(60, std::nullopt);
  machine.makeBundle(machine.root() / "Applications", "Bug Reporter", "com.quorvane.BugReporter",
                     "1.0", "echo \"reporter $*\" >> '" + machine.commandLog().string() + "'\n");
  fs::path crash = report("Kestrin_1.crash");
  EXPECT_EQ(check(), crash.string());
  EXPECT_TRUE(testing::eventually([&] {
    return testing::readText(machine.commandLog()) == "reporter " + crash.string() + "\n";
  }));
  EXPECT_EQ(machine.logText().find("Unable to find the bug reporter application"),
            std::string::npos);
}

TEST_F(QVBugReporterTest, StampsGoThroughTheOwnersWriterWhenOneIsGiven) {
  std::vector<std::pair<std::string, Value>> written;
  auto writer = [&](const std::string& key, const Value& value) {
    written.emplace_back(key, value);
    return true;
  };
  QVBugReporter::startBugReporter(machine.paths(), tools, std::string("Kestrin"), prefs, {},
                                  writer);
  QVBugReporter::stopBugReporter(machine.paths(), tools, prefs, writer);
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[0].first, "launch");
  EXPECT_EQ(written[1].first, "exit");
  EXPECT_NEAR(written[1].second.asDate()->seconds, Date::now().seconds, 60);
  EXPECT_FALSE(fs::exists(prefs)); // the reporter left the file to its owner
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
