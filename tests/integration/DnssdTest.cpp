// Runs inside tests/scripts/with-avahi-netns: a network namespace with only its loopback
// interface and an avahi-daemon of its own, so nothing is advertised beyond this machine.

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "platform/ServiceBrowser.h"

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::RunningAgent;

std::string run(const std::string& command) {
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  std::string out;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) {
    out.append(buffer, n);
  }
  ::pclose(pipe);
  return out;
}

std::string hostShortName() {
  char name[256] = {};
  ::gethostname(name, sizeof name - 1);
  return name;
}

TEST(Dnssd, AmbrantBrowseFindsTheAgentWithItsTxtEntriesAndKey) {
  RunningAgent agent;
  testing::TempDir console;
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);
  std::string line;
  ASSERT_TRUE(eventually(
      [&] {
        line = run("XDG_CONFIG_HOME='" + console.path().string() + "' " + KESTRIN_AMBRANT_PATH +
                   " browse --timeout 2");
        return line.find("\t" + std::to_string(port)) != std::string::npos;
      },
      15s))
      << line;
  EXPECT_NE(line.find("name=Kestrin - "), std::string::npos) << line;
  // The advertised key is the one the agent presents, and this console has not met it yet.
  std::string log = agent.logText();
  std::string marker = "TLS certificate fingerprint ";
  ASSERT_NE(log.find(marker), std::string::npos);
  std::string fingerprint = log.substr(log.find(marker) + marker.size(), 64);
  EXPECT_NE(line.find("\tnew\tconsistent\t"), std::string::npos) << line;
  EXPECT_NE(line.find("\tfp=" + fingerprint), std::string::npos) << line;
  EXPECT_TRUE(agent.logContains("Broadcasting on any interface."));
  EXPECT_TRUE(agent.logContains("Publishing..."));
}

TEST(Dnssd, AFleetCommandFindsAndCallsEveryAdvertisedAgent) {
  constexpr int kAgents = 10;
  // One runtime folder: each agent meets the others' names there and takes a name of its own,
  // which is the name it advertises.
  testing::TempDir runtime;
  std::vector<std::unique_ptr<RunningAgent>> agents;
  for (int i = 0; i < kAgents; ++i) {
    agents.push_back(std::make_unique<RunningAgent>(runtime.path()));
  }
  std::vector<int> ports;
  for (auto& agent : agents) {
    ports.push_back(agent->waitForPort());
    ASSERT_NE(ports.back(), 0);
  }
  testing::TempDir console;
  std::string out;
  // The responder takes a moment to publish ten names after their conflicts are settled.
  EXPECT_TRUE(eventually(
      [&] {
        out = run("XDG_CONFIG_HOME='" + console.path().string() + "' " + KESTRIN_AMBRANT_PATH +
                  " fleet ping --browse 2 --timeout 5");
        return out.find("10 answered, 0 failed, 0 timed out") != std::string::npos;
      },
      30s))
      << out;
  for (int port : ports) {
    EXPECT_NE(out.find(":" + std::to_string(port) + "\t"), std::string::npos) << port;
  }
}

TEST(Dnssd, AnAbsentResponderDelaysTheAdvertisementWithoutFailingIt) {
  run("avahi-daemon -k");
  ASSERT_TRUE(eventually([] { return run("avahi-daemon --check; echo $?").find("0\n") != 0; }));
  RunningAgent agent;
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);
  ASSERT_TRUE(eventually([&] { return agent.logContains("DNS-SD is unavailable"); }, 10s));
  EXPECT_FALSE(agent.logContains("Failed to publish"));

  run(std::string("avahi-daemon --no-drop-root --no-chroot -D -f ") +
      std::getenv("KESTRIN_AVAHI_CONFIG"));
  EXPECT_TRUE(eventually(
      [&] {
        auto found = platform::browseServices("_kestrin._tcp.", 2s);
        if (!found) {
          return false;
        }
        for (const auto& service : *found) {
          if (service.port == port) {
            return true;
          }
        }
        return false;
      },
      20s));
}

TEST(Dnssd, AHostNameTakenByAnotherServiceIsReplacedByAnAlternative) {
  std::string publisher =
      "avahi-publish -s '" + hostShortName() + "' _kestrin._tcp 4000 >/dev/null 2>&1 & echo $!";
  std::string pid = run(publisher);
  std::this_thread::sleep_for(1s);
  RunningAgent agent;
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);
  testing::TempDir console;
  std::string line;
  EXPECT_TRUE(eventually(
      [&] {
        line = run("XDG_CONFIG_HOME='" + console.path().string() + "' " + KESTRIN_AMBRANT_PATH +
                   " browse --timeout 2");
        return line.find(hostShortName() + " #2\t") != std::string::npos &&
               line.find("\t" + std::to_string(port) + "\t") != std::string::npos;
      },
      15s))
      << line;
  EXPECT_FALSE(agent.logContains("Failed to publish"));
  run("kill " + pid);
}

} // namespace
} // namespace kestrin
