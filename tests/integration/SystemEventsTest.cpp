// The agent through the workstation's own life, with a login manager of the test's own: run
// through tests/scripts/with-private-login (root), which gives the test its own /run/systemd.

#include <atomic>
#include <csignal>
#include <sstream>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/FakeLogind.h"
#include "fixtures/MakerTools.h"
#include "fixtures/PrivateBus.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::eventually;
using testing::FakeLogind;
using testing::PrivateBus;
using testing::RunningAgent;

constexpr uid_t kNobody = 65534;

// A port nobody listens on now, for the agent's custom port.
int freePort() {
  platform::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

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
    // The agent's own user (root) is at the console when it starts.
    logind = std::make_unique<FakeLogind>(::getuid());
    port = freePort();
    // As root the agent keeps its settings in the console user's home: this namespace's /root.
    fs::path settings = "/root/Library/Preferences/com.quorvane.Kestrin.plist";
    fs::create_directories(settings.parent_path());
    ASSERT_TRUE(plist::writeFile(
                    settings, Value(plist::Dictionary{{"customPortSet", 1}, {"customPort", port}}))
                    .ok());
    agent = std::make_unique<RunningAgent>(
        fs::path{},
        std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", systemBus.address()}},
        [](const fs::path& root) {
          testing::makeMakerTool(root / "Applications/Quorvane", "Tibbet", "com.quorvane.Tibbet",
                                 plist::Array{testing::makerTask("slow", {"--slow"})}, 0,
                                 "touch \"$0.started\"\nsleep 2\necho done");
        });
    ASSERT_EQ(agent->waitForPort(), port) << testing::readText(agent->output());
    ASSERT_TRUE(logind->waitForLocksHeld(1, 20s));
  }

  // Whether the agent's port takes a connection now.
  bool accepting() const {
    platform::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  std::string log() const { return agent->logText(); }

  PrivateBus systemBus{PrivateBus::Kind::System};
  std::unique_ptr<FakeLogind> logind;
  std::unique_ptr<RunningAgent> agent;
  int port = 0;
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
  fs::path started = agent->home().parent_path() /
                     "root/Applications/Quorvane/Tibbet.app/Contents/MacOS/Tibbet.started";
  ASSERT_TRUE(eventually([&] { return fs::exists(started); }));

  logind->activate(kNobody);
  EXPECT_TRUE(eventually([&] { return !accepting(); }));
  EXPECT_TRUE(eventually([&] { return returned.load(); }));
  caller.join();

  logind->activate(::getuid());
  EXPECT_TRUE(eventually([&] { return accepting(); }));
  std::string text = log();
  auto out = text.find("User logged out: nobody");
  auto in = text.find("User logged in: root");
  ASSERT_NE(out, std::string::npos) << text;
  ASSERT_NE(in, std::string::npos) << text;
  EXPECT_LT(out, in);
  EXPECT_LT(text.find("System event: user logged out."), in);
  EXPECT_NE(text.find("System event: user logged in.", in), std::string::npos);

  // The login screen is nobody at the console: the agent's user has left.
  logind->activate(std::nullopt);
  EXPECT_TRUE(
      eventually([&] { return log().find("User logged out: (null)") != std::string::npos; }));
  EXPECT_TRUE(eventually([&] { return !accepting(); }));
}

TEST_F(SystemEventsTest, SleepReleasesTheLockOnlyOnceStoppedAndEveryWakeRestarts) {
  logind->prepareForSleep(true);
  ASSERT_TRUE(logind->waitForLocksHeld(0, 20s));
  EXPECT_FALSE(accepting()); // the service had stopped when the lock went
  std::string text = log();
  EXPECT_LT(text.find("System event: entering sleep mode..."), text.rfind("Disconnected"));

  logind->prepareForSleep(false);
  EXPECT_TRUE(logind->waitForLocksHeld(1, 20s));
  EXPECT_TRUE(eventually([&] { return accepting(); }));
  EXPECT_EQ(logind->locksGranted(), 2u);

  // A wake with no sleep before it restarts all the same, and holds on to the one lock.
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

  logind->prepareForSleep(true);
  ASSERT_TRUE(logind->waitForLocksHeld(0, 20s));

  long threads = -1;
  auto threadCount = [&] {
    std::istringstream status(
        testing::readText("/proc/" + std::to_string(agent->process().pid()) + "/status"));
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("Threads:", 0) == 0) {
        return std::stol(line.substr(8));
      }
    }
    return -1L;
  };
  threads = threadCount();
  for (int i = 0; i < 1000; ++i) {
    logind->prepareForSleep(false);
    logind->prepareForSleep(true);
  }
  logind->prepareForSleep(false);
  EXPECT_TRUE(logind->waitForLocksHeld(1, 60s));
  EXPECT_TRUE(eventually([&] { return accepting(); }, 60s));
  auto lastEvent = [&] {
    std::string text = log();
    return text.substr(text.rfind("System event: "), 30);
  };
  EXPECT_TRUE(eventually([&] { return lastEvent().find("woke from sleep") != std::string::npos; }));
  EXPECT_LE(threadCount(), threads + 4); // a few idle workers at most, not one per event

  logind->prepareForSleep(true);
  EXPECT_TRUE(logind->waitForLocksHeld(0, 20s));
  EXPECT_FALSE(accepting());
  EXPECT_EQ(agent->process().waitForExit(0ms), std::nullopt); // alive
}

TEST_F(SystemEventsTest, ShutdownEndsTheAgentWithoutReconnecting) {
  logind->prepareForShutdown(true);
  auto status = agent->process().waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_EQ(logind->locksHeld(), 0u);
  std::string text = log();
  auto shutdown = text.find("System event: shutdown.");
  ASSERT_NE(shutdown, std::string::npos);
  EXPECT_NE(text.find("Preparing to disconnect...", shutdown), std::string::npos);
  EXPECT_EQ(text.find("Listening on port", shutdown), std::string::npos);
  EXPECT_EQ(text.find("Reconnecting in", shutdown), std::string::npos);
}

} // namespace
} // namespace kestrin
