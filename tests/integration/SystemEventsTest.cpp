// The agent through the workstation's own life, against a login manager of the test's own. Run
// through tests/scripts/with-private-login (root), which gives the test its own /run/systemd.

#include <atomic>
#include <mutex>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/FakeLogind.h"
#include "fixtures/MakerTools.h"
#include "fixtures/PrivateBus.h"
#include "platform/LoginManager.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::eventually;

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

class SystemEventsTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (std::getenv("KESTRIN_PRIVATE_LOGIN") == nullptr) {
      GTEST_SKIP() << "needs its own /run/systemd: run it through tests/scripts/with-private-login";
    }
    ASSERT_TRUE(systemBus.running());
    logind =
        std::make_unique<testing::FakeLogind>(::getuid()); // the agent's user is at the console
    // As root the agent keeps its settings in the console user's home: this namespace's /root.
    fs::path settings = "/root/Library/Preferences/com.quorvane.Kestrin.plist";
    fs::create_directories(settings.parent_path());
    ASSERT_TRUE(plist::writeFile(
                    settings, Value(plist::Dictionary{{"customPortSet", 1}, {"customPort", port}}))
                    .ok());
    agent = std::make_unique<testing::RunningAgent>(
        fs::path{},
        std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", systemBus.address()}},
        [](const fs::path& root) {
          testing::makeMakerTool(root / "Applications/Quorvane", "Tibbet", "com.quorvane.Tibbet",
                                 plist::Array{testing::makerTask("slow", {"--slow"})}, 0,
                                 "touch \"$0.started\"\nsleep 2");
        });
    ASSERT_EQ(agent->waitForPort(), port) << testing::readText(agent->output());
    ASSERT_TRUE(logind->waitForLocksHeld(1, 20s));
  }
  bool accepting() const { return testing::accepting(port); }
  std::string log() const { return agent->logText(); }

  testing::PrivateBus systemBus{testing::PrivateBus::Kind::System};
  std::unique_ptr<testing::FakeLogind> logind;
  std::unique_ptr<testing::RunningAgent> agent;
  int port = testing::freePort();
};

TEST_F(SystemEventsTest, AUserSwitchAwayAndBackStopsAndRestartsTheServiceAndEndsARunningCall) {
  auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(client.ok()) << client.message();
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    try {
      (*client)->root()->invoke("executeTask:bundleID:options:",
                                {Value("slow"), Value("com.quorvane.Tibbet"), Value()});
    } catch (const std::exception&) {
      // The service went while the tool ran: failing is a clean end too.
    }
    returned = true;
  });
  ASSERT_TRUE(eventually([&] {
    return fs::exists(agent->home().parent_path() /
                      "root/Applications/Quorvane/Tibbet.app/Contents/MacOS/Tibbet.started");
  }));

  logind->activate(65534); // nobody
  EXPECT_TRUE(eventually([&] { return !accepting(); }));
  EXPECT_TRUE(eventually([&] { return returned.load(); }));
  caller.join();
  logind->activate(::getuid());
  EXPECT_TRUE(eventually([&] { return accepting(); }));
  std::string text = log();
  auto out = text.find("User logged out: nobody");
  auto in = text.find("User logged in: root");
  ASSERT_NE(in, std::string::npos) << text;
  EXPECT_LT(out, in);
  EXPECT_LT(text.find("System event: user logged out."), in);
  EXPECT_NE(text.find("System event: user logged in.", in), std::string::npos);

  // The login screen is nobody at the console: the agent's user has left.
  logind->activate(std::nullopt);
  EXPECT_TRUE(eventually([&] { return count(log(), "User logged out: (null)") == 1; }));
  EXPECT_TRUE(eventually([&] { return !accepting(); }));
}

TEST_F(SystemEventsTest, SleepReleasesTheLockOnlyOnceStoppedAndEveryWakeRestarts) {
  logind->prepareForSleep(true);
  ASSERT_TRUE(logind->waitForLocksHeld(0, 20s)) << log();
  EXPECT_FALSE(accepting()); // the service had stopped when the lock went
  EXPECT_LT(log().find("System event: entering sleep mode..."), log().rfind("Disconnected"));

  logind->prepareForSleep(false);
  EXPECT_TRUE(logind->waitForLocksHeld(1, 20s));
  EXPECT_TRUE(eventually([&] { return accepting(); }));
  EXPECT_EQ(logind->locksGranted(), 2u);

  // A wake with no sleep before it restarts all the same, and keeps the one lock.
  std::size_t starts = count(log(), "Starting vending...");
  logind->prepareForSleep(false);
  EXPECT_TRUE(eventually([&] { return count(log(), "Starting vending...") == starts + 1; }));
  EXPECT_TRUE(eventually([&] { return accepting(); }));
  EXPECT_EQ(logind->locksHeld(), 1u);
  EXPECT_EQ(count(log(), "System event: woke from sleep"), 2u);
}

TEST_F(SystemEventsTest, OnlyTheLoginManagerIsHeardAndAFloodEndsInTheStateOfItsLastEvent) {
  logind->spoofPrepareForSleep(true);
  // The login manager's next word reaches the agent after the spoof and is handled after it.
  logind->activate(::getuid());
  ASSERT_TRUE(eventually([&] { return count(log(), "System event: user logged in.") == 1; }));
  EXPECT_EQ(count(log(), "System event: entering sleep mode..."), 0u);
  EXPECT_EQ(logind->locksHeld(), 1u);

  std::string threads = "/proc/" + std::to_string(agent->process().pid()) + "/task";
  auto threadCount = [&] {
    return std::distance(fs::directory_iterator(threads), fs::directory_iterator());
  };
  auto before = threadCount();
  for (int i = 0; i < 1000; ++i) {
    logind->prepareForSleep(true);
    logind->prepareForSleep(false);
  }
  EXPECT_TRUE(logind->waitForLocksHeld(1, 60s));
  EXPECT_TRUE(eventually(
      [&] {
        std::string text = log();
        return text.find("woke from sleep", text.rfind("System event: ")) != std::string::npos &&
               accepting();
      },
      60s));
  EXPECT_LE(threadCount(), before + 4); // a few idle workers at most, not one per event

  logind->prepareForSleep(true);
  EXPECT_TRUE(logind->waitForLocksHeld(0, 20s));
  EXPECT_FALSE(accepting());
  EXPECT_EQ(agent->process().waitForExit(0ms), std::nullopt); // alive
}

TEST_F(SystemEventsTest, ShutdownEndsTheAgentWithoutReconnecting) {
  logind->prepareForShutdown(true);
  auto status = agent->process().waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
      << testing::readText(agent->output());
  EXPECT_EQ(logind->locksHeld(), 0u);
  std::string text = log();
  auto shutdown = text.find("System event: shutdown.");
  ASSERT_NE(shutdown, std::string::npos);
  EXPECT_NE(text.find("Preparing to disconnect...", shutdown), std::string::npos);
  EXPECT_EQ(text.find("Listening on port", shutdown), std::string::npos);
  EXPECT_EQ(text.find("Reconnecting in", shutdown), std::string::npos);
}

// The seam itself, without the agent: what reaches the delegate, and the lock.
class Recorder : public platform::LoginManager::Delegate {
public:
  void prepareForSleep(bool starting) override { add(starting ? "sleep" : "wake"); }
  void prepareForShutdown(bool starting) override { add(starting ? "shutdown" : "no shutdown"); }
  void sessionActiveChanged(bool active) override { add(active ? "active" : "inactive"); }
  void loginManagerLost(const std::string&) override { add("lost"); }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex);
    return heard;
  }

private:
  void add(std::string event) {
    std::lock_guard lock(mutex);
    heard.push_back(std::move(event));
  }
  std::mutex mutex;
  std::vector<std::string> heard;
};

TEST(LoginManager, ReportsTheAgentsSessionAndTheManagersSignalsAndNobodyElses) {
  if (std::getenv("KESTRIN_PRIVATE_LOGIN") == nullptr) {
    GTEST_SKIP() << "needs its own /run/systemd: run it through tests/scripts/with-private-login";
  }
  testing::PrivateBus bus(testing::PrivateBus::Kind::System);
  testing::FakeLogind logind(::getuid());
  Recorder recorder;
  auto manager = platform::LoginManager::connectSystemBus(recorder);
  ASSERT_TRUE(manager.ok()) << manager.message();
  EXPECT_TRUE((*manager)->loginManagerPresent());
  EXPECT_TRUE(logind.waitForLocksHeld(1, 10s));

  logind.activate(65534);        // the agent's session goes inactive
  logind.activate(std::nullopt); // another's does: not the agent's business
  logind.activate(::getuid());
  logind.spoofPrepareForSleep(true);
  logind.prepareForShutdown(false);
  ASSERT_TRUE(eventually([&] { return recorder.events().size() == 3; }));
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"inactive", "active", "no shutdown"}));

  (*manager)->releaseDelayLock();
  EXPECT_TRUE(logind.waitForLocksHeld(0, 10s));
  ASSERT_TRUE((*manager)->takeDelayLock().ok());
  EXPECT_TRUE(logind.waitForLocksHeld(1, 10s));
}

} // namespace
} // namespace kestrin
