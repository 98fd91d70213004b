// A facility's fleet on one machine: fifty real agents on loopback ports, each in a throwaway
// machine of its own, listed in a hosts file with five ports that accept and stay silent and
// five that refuse.

#include <regex>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "RunningAgent.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::eventually;
using testing::readText;
using testing::RunningAgent;

constexpr int kAgents = 50;
constexpr int kSilent = 5;
constexpr int kRefusing = 5;

class FleetTest : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    fleet_ = new Fleet;
    std::string hosts = "# the render room\n";
    // Started all at once: they come up side by side.
    for (int i = 0; i < kAgents; ++i) {
      fleet_->agents.push_back(std::make_unique<RunningAgent>());
    }
    for (auto& agent : fleet_->agents) {
      int port = agent->waitForPort(60s);
      ASSERT_NE(port, 0) << readText(agent->output());
      fleet_->addresses.push_back("127.0.0.1:" + std::to_string(port));
      hosts += fleet_->addresses.back() + "\n";
    }
    for (int i = 0; i < kSilent; ++i) {
      // Listening without ever accepting: the kernel completes the connection, nothing answers.
      int port = 0;
      fleet_->silent.push_back(testing::listeningOnLoopback(port));
      hosts += "127.0.0.1:" + std::to_string(port) + "  # silent\n";
    }
    for (int i = 0; i < kRefusing; ++i) {
      hosts += "127.0.0.1:" + std::to_string(testing::freePort()) + "\n";
    }
    testing::writeText(fleet_->hostsFile(), hosts);
  }
  static void TearDownTestSuite() {
    delete fleet_;
    fleet_ = nullptr;
  }

  static std::pair<int, std::string> ambrant(const std::string& arguments,
                                             const std::string& redirection = "2>/dev/null") {
    return testing::runAmbrantCommand(arguments, redirection, fleet_->console.path().string());
  }

  struct Fleet {
    fs::path hostsFile() const { return folder.path() / "hosts"; }
    std::vector<std::unique_ptr<RunningAgent>> agents;
    std::vector<std::string> addresses;
    std::vector<platform::FileDescriptor> silent;
    testing::TempDir folder;
    testing::TempDir console;
  };
  static Fleet* fleet_;
};

FleetTest::Fleet* FleetTest::fleet_ = nullptr;

TEST_F(FleetTest, PingAnswersEveryAgentAndTheDeadCostNoMoreThanTheirLimit) {
  auto start = std::chrono::steady_clock::now();
  auto [status, out] =
      ambrant("fleet ping --hosts '" + fleet_->hostsFile().string() + "' --timeout 3");
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(status, 2) << out; // some agents did not answer
  EXPECT_NE(out.find("\n50 answered, 5 failed, 5 timed out\n"), std::string::npos) << out;
  for (const std::string& address : fleet_->addresses) {
    EXPECT_TRUE(std::regex_search(out, std::regex(address + "\t[0-9]+ ms\tnull\n"))) << address;
  }
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), kAgents + kSilent + kRefusing + 1);
  // The silent ones wait out their limit side by side, not one after another (3 s each).
  EXPECT_LT(took, 3s + 12s);

  // The same as JSON, one object a line, and only the answers that pass the test.
  auto [jsonStatus, json] = ambrant("fleet ping --json --hosts '" + fleet_->hostsFile().string() +
                                    "' --timeout 3 --where 'x!=y'");
  EXPECT_EQ(jsonStatus, 2);
  EXPECT_EQ(static_cast<int>(std::count(json.begin(), json.end(), '\n')),
            kAgents + kSilent + kRefusing);
  std::size_t answered = 0;
  for (std::size_t at = json.find("\"outcome\":\"answered\""); at != std::string::npos;
       at = json.find("\"outcome\":\"answered\"", at + 1)) {
    ++answered;
  }
  EXPECT_EQ(answered, static_cast<std::size_t>(kAgents)) << json;
}

TEST_F(FleetTest, WatchHearsAnEventPostedOnEachAgentTaggedWithItsAddress) {
  testing::TempDir folder;
  fs::path output = folder.path() / "watch.out";
  testing::AgentProcess watch(
      KESTRIN_AMBRANT_PATH,
      {"fleet", "watch", "--hosts", fleet_->hostsFile().string(), "--timeout", "3"},
      {{"XDG_CONFIG_HOME", fleet_->console.path().string()}, {"PATH", "/usr/bin:/bin"}}, output);
  auto joined = [&] {
    std::string text = readText(output);
    return std::count(text.begin(), text.end(), '\n') >= kAgents + kSilent + kRefusing + 1;
  };
  ASSERT_TRUE(eventually(joined, 60s)) << readText(output);

  // Every agent broadcasts one error to the callbacks registered with it.
  auto [status, out] =
      ambrant("fleet performErrorCallbackSelector:withObject:withObject: "
              "'\"addStringToQueue:hostname:\"' '\"render node full\"' '\"studio.\"' --hosts '" +
              fleet_->hostsFile().string() + "' --timeout 3");
  EXPECT_NE(out.find("\n50 answered, 5 failed, 5 timed out\n"), std::string::npos) << out;
  auto heardAll = [&] {
    std::string text = readText(output);
    for (const std::string& address : fleet_->addresses) {
      if (text.find(address + " event error ") == std::string::npos) {
        return false;
      }
    }
    return true;
  };
  EXPECT_TRUE(eventually(heardAll, 20s)) << readText(output);
  std::string text = readText(output);
  EXPECT_NE(text.find("render node full"), std::string::npos);
  // The dead are named once each, and no event is told twice.
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2 * kAgents + kSilent + kRefusing + 1);

  // An agent that ends is reported once.
  std::string last = fleet_->addresses.back();
  fleet_->agents.back()->process().signal(SIGTERM);
  EXPECT_TRUE(eventually(
      [&] { return readText(output).find(last + " gone\n") != std::string::npos; }, 20s));
  watch.signal(SIGTERM);
  auto ended = watch.waitForExit(10s);
  ASSERT_TRUE(ended);
  EXPECT_TRUE(WIFEXITED(*ended) && WEXITSTATUS(*ended) == 0);
}

} // namespace
} // namespace kestrin
