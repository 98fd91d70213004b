#include <csignal>
#include <fstream>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/TempDir.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using testing::AgentProcess;
using testing::eventually;
using testing::readText;
using testing::TempDir;

class AgentLifecycle : public ::testing::Test {
protected:
  std::filesystem::path home() const { return dir.path() / "home"; }
  // A root process writes its current log under the local domain.
  std::filesystem::path log() const {
    return (::getuid() == 0 ? dir.path() / "root" : home()) / "Library/Logs/Quorvane/Kestrin.1.log";
  }
  std::map<std::string, std::string> environment() const {
    return {{"HOME", home().string()},
            {"KESTRIN_ROOT", (dir.path() / "root").string()},
            {"XDG_RUNTIME_DIR", dir.path().string()},
            {"PATH", "/usr/bin:/bin"}};
  }
  bool logContains(const std::string& text) const {
    return readText(log()).find(text) != std::string::npos;
  }

  TempDir dir;
};

TEST_F(AgentLifecycle, StartsLogsItsVersionAndStopsInOrderOnSigterm) {
  std::filesystem::create_directories(home());
  AgentProcess agent(KESTRIN_AGENT_PATH, {}, environment(), dir.path() / "agent.out");
  ASSERT_TRUE(eventually([&] { return logContains("Version " KESTRIN_BUNDLE_VERSION "."); }))
      << readText(dir.path() / "agent.out");

  agent.signal(SIGTERM);
  auto status = agent.waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 0);
  // The orderly stop flushed everything, including its own last lines.
  EXPECT_TRUE(logContains("Stopping..."));
  EXPECT_TRUE(logContains("Disconnected"));

  auto prefs = plist::readFile(home() / "Library/Preferences/com.quorvane.Kestrin.plist");
  ASSERT_TRUE(prefs.ok());
  EXPECT_EQ(*prefs->get("lastRunVersion"), plist::Value(KESTRIN_BUNDLE_VERSION));

  // The console named the log and the settings that the run really used.
  std::string out = readText(dir.path() / "agent.out");
  EXPECT_NE(out.find("Log: " + log().string() + "\n"), std::string::npos) << out;
  EXPECT_NE(
      out.find("Settings: " + (home() / "Library/Preferences/com.quorvane.Kestrin.plist").string()),
      std::string::npos);
}

TEST_F(AgentLifecycle, AnUnknownOptionIsAUsageErrorAndStartsNothing) {
  std::filesystem::create_directories(home());
  AgentProcess agent(KESTRIN_AGENT_PATH, {"--bogus"}, environment(), dir.path() / "agent.out");
  auto status = agent.waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(WEXITSTATUS(*status), 64);
  std::string out = readText(dir.path() / "agent.out");
  EXPECT_NE(out.find("unknown option '--bogus'"), std::string::npos);
  EXPECT_EQ(out.find("Listening"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(AgentLifecycle, SigintStopsItTheSameWay) {
  std::filesystem::create_directories(home());
  AgentProcess agent(KESTRIN_AGENT_PATH, {}, environment(), dir.path() / "agent.out");
  ASSERT_TRUE(eventually([&] { return logContains("Loading settings..."); }));
  agent.signal(SIGINT);
  auto status = agent.waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_TRUE(logContains("Disconnected"));
}

// A crash report of the killed run, as the system would leave it.
void leaveCrashReport(const std::filesystem::path& home) {
  auto reports = home / "Library/Logs/DiagnosticReports";
  auto local = home.parent_path() / "root/Library/Logs/DiagnosticReports";
  std::filesystem::create_directories(local);
  std::ofstream(local / "Kestrin_2026-11-23-120000_studio.crash") << "crashed";
  std::filesystem::create_directories(reports);
  std::ofstream(reports / "Kestrin_2026-11-23-120000_studio.crash") << "crashed";
}

TEST_F(AgentLifecycle, AKilledRunIsReportedAtTheNextStartAndAnOrderlyOneIsNot) {
  std::filesystem::create_directories(home());
  {
    AgentProcess agent(KESTRIN_AGENT_PATH, {}, environment(), dir.path() / "agent.out");
    ASSERT_TRUE(eventually([&] { return logContains("Loading settings..."); }));
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(20s).has_value());
  }
  std::this_thread::sleep_for(1100ms); // the stamps keep whole seconds
  {
    AgentProcess agent(KESTRIN_AGENT_PATH, {}, environment(), dir.path() / "agent.out");
    ASSERT_TRUE(eventually([&] { return logContains("Loading settings..."); }));
    std::this_thread::sleep_for(1100ms);
    leaveCrashReport(home());
    EXPECT_FALSE(logContains("Application crashed on last launch"));
    agent.signal(SIGKILL);
    ASSERT_TRUE(agent.waitForExit(20s).has_value());
  }
  AgentProcess agent(KESTRIN_AGENT_PATH, {}, environment(), dir.path() / "agent.out");
  EXPECT_TRUE(eventually([&] {
    // The report goes to the log that was current when the new run started.
    for (int n = 1; n <= 5; ++n) {
      auto file = log().parent_path() / ("Kestrin." + std::to_string(n) + ".log");
      if (readText(file).find("Application crashed on last launch") != std::string::npos) {
        return true;
      }
    }
    return false;
  }));
}

} // namespace
} // namespace kestrin
