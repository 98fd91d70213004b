#include "operations/CredentialThrottle.h"

#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/ThrowawayMachine.h"
#include "platform/ManualClock.h"
#include "platform/ToolTable.h"

// The throttle in front of the real authorization, whose helper is a script here: it accepts
// the password "right horse" and counts how often it was asked.

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class CredentialThrottleTest : public ::testing::Test {
protected:
  CredentialThrottleTest()
      : helper(machine.makeRecordingTool("kestrin-auth", "while [ -e '" +
                                                             (machine.root() / "hold").string() +
                                                             "' ]; do sleep 0.02; done\n"
                                                             "grep -qa 'right horse' && exit 0\n"
                                                             "exit 242\n")),
        tools({{platform::Tool::KestrinAuth, helper.string()}}),
        authorization({machine.paths(), tools, false}, false) {}

  bool check(CredentialThrottle& throttle, const std::string& peer, const std::string& user,
             const std::string& password) {
    return throttle.startSession(Caller{peer, 1}, user, SecretBuffer::copyOf(password))
        .isAuthorized();
  }
  // How often the helper was asked.
  long asked() const {
    std::string log = testing::readText(machine.commandLog());
    return std::count(log.begin(), log.end(), '\n');
  }

  testing::ThrowawayMachine machine;
  fs::path helper;
  platform::ToolTable tools;
  QVAuthorization authorization;
  platform::ManualClock clock;
};

TEST_F(CredentialThrottleTest, FailuresBackOffPerAddressAndUserWhileACleanAddressGetsIn) {
  CredentialThrottle throttle(authorization, clock);
  EXPECT_FALSE(check(throttle, "10.0.0.9", "admin", "guess"));
  EXPECT_EQ(asked(), 1);
  // Waiting: not even the right password is checked, so the answer tells the guesser nothing.
  EXPECT_FALSE(check(throttle, "10.0.0.9", "admin", "right horse"));
  EXPECT_EQ(asked(), 1);
  // The administrator at a console that has not been failing gets in at once.
  EXPECT_TRUE(check(throttle, "10.0.0.20", "admin", "right horse"));
  EXPECT_EQ(asked(), 2);

  // Doubling waits for the guessing address, up to a minute.
  long expectedAsks = 2;
  for (auto wait : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s}) {
    clock.advance(wait - 1s);
    EXPECT_FALSE(check(throttle, "10.0.0.9", "admin", "guess"));
    EXPECT_EQ(asked(), expectedAsks) << "checked before its wait of " << wait.count() << " s";
    clock.advance(1s);
    EXPECT_FALSE(check(throttle, "10.0.0.9", "admin", "guess"));
    EXPECT_EQ(asked(), ++expectedAsks) << "not checked after its wait of " << wait.count() << " s";
  }

  // A second guessing address waits for the user name as well as for itself.
  EXPECT_FALSE(check(throttle, "10.0.0.10", "nobody", "guess"));
  clock.advance(1s);
  EXPECT_FALSE(check(throttle, "10.0.0.10", "admin", "right horse"));
  EXPECT_EQ(asked(), expectedAsks + 1);
  clock.advance(60s);
  EXPECT_TRUE(check(throttle, "10.0.0.10", "admin", "right horse"));

  std::string log = machine.logText();
  EXPECT_NE(log.find("Credential check for user admin from 10.0.0.9 failed; next check from "
                     "there in 60 s."),
            std::string::npos);
  EXPECT_NE(log.find("Credential check for user admin from 10.0.0.9 refused: too many failed "
                     "attempts; next check in 1 s."),
            std::string::npos);
}

TEST_F(CredentialThrottleTest, OnlyAFewChecksRunAtOncePerAddressAndInAll) {
  CredentialThrottle throttle(authorization, clock, {.perPeer = 2, .total = 3});
  testing::writeText(machine.root() / "hold", "");
  std::vector<std::future<bool>> held;
  for (const char* peer : {"10.0.0.9", "10.0.0.9", "10.0.0.10"}) {
    held.push_back(std::async(std::launch::async,
                              [&, peer] { return check(throttle, peer, "admin", "right horse"); }));
    ASSERT_TRUE(testing::eventually([&] { return asked() == static_cast<long>(held.size()); }));
  }
  EXPECT_FALSE(check(throttle, "10.0.0.9", "admin", "right horse"));  // third from one address
  EXPECT_FALSE(check(throttle, "10.0.0.11", "admin", "right horse")); // fourth in all
  EXPECT_EQ(asked(), 3);
  fs::remove(machine.root() / "hold");
  for (auto& result : held) {
    EXPECT_TRUE(result.get());
  }
  EXPECT_TRUE(check(throttle, "10.0.0.9", "admin", "right horse"));
  EXPECT_NE(machine.logText().find("Credential check for user admin from 10.0.0.11 refused: too "
                                   "many checks at once."),
            std::string::npos);
}

} // namespace
} // namespace kestrin::operations
