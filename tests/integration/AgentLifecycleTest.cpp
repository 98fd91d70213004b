#include <csignal>

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

} // namespace
} // namespace kestrin
