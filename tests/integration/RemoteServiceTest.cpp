#include <csignal>
#include <cstdio>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "admin/AdminClient.h"
#include "admin/JsonValue.h"
#include "admin/QVCallback.h"
#include "fixtures/PrivateBus.h"
#include "fixtures/RecordingObject.h"
#include "foundation/QVEncryption.h"
#include "platform/NotificationCenter.h"
#include "support/NamedException.h"

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using plist::Value;
using testing::eventually;
using testing::RecordingObject;
using testing::runAmbrant;
using testing::RunningAgent;

class RemoteService : public ::testing::Test {
protected:
  void SetUp() override {
    port = agent.waitForPort();
    ASSERT_NE(port, 0) << testing::readText(agent.output());
  }
  std::unique_ptr<transport::RpcClient> connect() {
    auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    EXPECT_TRUE(client.ok()) << client.message();
    return std::move(*client);
  }
  std::shared_ptr<RecordingObject> registeredCallback(transport::RpcClient& client,
                                                      std::set<std::string> selectors = {}) {
    auto callback = std::make_shared<RecordingObject>(
        selectors.empty() ? testing::errorCallbackSelectors() : std::move(selectors));
    client.root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});
    return callback;
  }

  RunningAgent agent;
  int port = 0;
};

TEST_F(RemoteService, AmbrantCallsOperationsAndReportsErrorsByExitStatus) {
  std::string where = "127.0.0.1:" + std::to_string(port);
  EXPECT_EQ(runAmbrant("call " + where + " ping"), std::make_pair(0, std::string("null\n")));
  EXPECT_EQ(runAmbrant("call " + where + " clientVersion"),
            std::make_pair(0, std::string("\"" KESTRIN_BUNDLE_VERSION "\"\n")));
  EXPECT_EQ(runAmbrant("call " + where + " noSuchOperation:").first, 1);
  EXPECT_EQ(runAmbrant("call " + where + " setErrorCallback: 12").first, 1);
  EXPECT_EQ(runAmbrant("call 127.0.0.1:1 ping").first, 2);
  EXPECT_EQ(runAmbrant("call " + where + " ping '{'").first, 2);
}

TEST_F(RemoteService, EveryRegisteredCallbackReceivesPostedErrorsOnce) {
  auto admin = connect();
  auto callback = registeredCallback(*admin);
  admin->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))}); // again
  auto other = connect();
  auto second = registeredCallback(*other);

  admin->root()->invoke("postErrorWithCode:infoString:", {Value(1000), Value("Tibbet")});
  auto calls = callback->calls();
  std::vector<std::string> selectors;
  for (const auto& call : calls) {
    selectors.push_back(call.selector);
  }
  // Pinged by its own second registration and by the other admin's, then the error, once.
  EXPECT_THAT(selectors, ::testing::ElementsAre("ping", "ping", "addErrorToQueue:userInfo:"));
  EXPECT_EQ(calls.back().arguments[0],
            Value(plist::ErrorRecord{"ambrantDomain", 1000, {{"info", "Tibbet"}}}));
  EXPECT_EQ(second->selectorsCalled().size(), 1u);
}

TEST_F(RemoteService, ACallbackLackingASelectorStopsThatEventForTheOthers) {
  auto first = connect();
  auto lacking = registeredCallback(*first, {"ping"});
  auto second = connect();
  auto complete = registeredCallback(*second);
  first->root()->invoke("incrementRemoteProgress", {});
  EXPECT_TRUE(complete->calls().empty());
  EXPECT_TRUE(eventually([&] {
    return agent.logContains(
        "Error: error callback object does not respond to selector incrementProgress.");
  }));
}

TEST_F(RemoteService, TheFinishedTaskDeadlineSendsTaskFinishedOnce) {
  auto admin = connect();
  auto callback = registeredCallback(*admin);
  admin->root()->invoke("shouldPostFinishedTaskWithTimeout:", {Value(0.2)});
  ASSERT_TRUE(eventually([&] { return !callback->calls().empty(); }, 5s));
  EXPECT_THAT(callback->selectorsCalled(), ::testing::ElementsAre("taskFinished"));
  EXPECT_TRUE(agent.logContains("Task timed out. Finishing..."));
  admin->root()->invoke("postFinishedTask", {});
  EXPECT_EQ(callback->calls().size(), 1u);
}

TEST_F(RemoteService, AClientKilledWhileTheAgentCallsIntoItCostsNothingButItsCallback) {
  pid_t child = ::fork();
  if (child == 0) {
    // An admin whose callback never answers, so the agent is stuck calling into it.
    auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    struct Stuck : plist::RemoteObject {
      std::string description() const override { return "<stuck>"; }
      bool respondsTo(const std::string&) override { return true; }
      Value invoke(const std::string&, std::vector<Value>) override {
        ::pause();
        return {};
      }
    };
    (*client)->root()->invoke("setErrorCallback:",
                              {Value(plist::ObjectRef(std::make_shared<Stuck>()))});
    (*client)->root()->invoke("incrementRemoteProgress", {});
    ::_exit(0);
  }
  std::this_thread::sleep_for(500ms);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);

  auto admin = connect();
  EXPECT_TRUE(admin->root()->invoke("ping", {}).isNull());
  auto callback = registeredCallback(*admin); // prunes the dead one on the way
  admin->root()->invoke("postErrorString:", {Value("after the crash")});
  EXPECT_EQ(callback->calls().back().arguments[0], Value("after the crash"));
}

TEST_F(RemoteService, EncryptedPasswordsFromAmbrantOpenRightsOnlyForValidCredentials) {
  std::string command =
      "echo 'pass word ' | " + std::string(KESTRIN_AMBRANT_PATH) + " encrypt-password";
  FILE* pipe = ::popen(command.c_str(), "r");
  char line[256] = {};
  ASSERT_NE(std::fgets(line, sizeof line, pipe), nullptr);
  ASSERT_EQ(::pclose(pipe), 0);
  std::string encoded(line);
  encoded.erase(encoded.find_last_not_of("\n") + 1);
  auto data = admin::base64Decode(encoded);
  ASSERT_TRUE(data.ok());
  EXPECT_EQ(QVEncryption::decryptPassword(*data).view(), "pass word");

  auto admin = connect();
  Value answer = admin->root()->invoke(
      "authWithDict:",
      {Value(plist::Dictionary{{"authUser", "nobody-here"}, {"authPass", *data}})});
  // Also an agent running as root asks: running as root is no password.
  EXPECT_EQ(answer, Value(plist::ErrorRecord{"ambrantDomain", 1006, {}}));
  EXPECT_TRUE(agent.logContains("Unable to authorize. Username and password may be incorrect."));
}

TEST(RemoteServiceInstances, ASecondAgentRegistersUnderAUuidPrefixedName) {
  RunningAgent first;
  ASSERT_NE(first.waitForPort(), 0);
  RunningAgent second(first.runtime());
  ASSERT_NE(second.waitForPort(), 0);
  EXPECT_TRUE(second.logContains("Failed to register name - make sure there are no other "
                                 "copies of this application running on this computer."));
  std::string log = second.logText();
  std::smatch match;
  ASSERT_TRUE(std::regex_search(
      log, match,
      std::regex("Registering name [0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                 "[0-9A-F]{12}Kestrin - ")));
  // The callback endpoint's name is taken as well, and the holder is named.
  EXPECT_TRUE(eventually([&] {
    return testing::readText(second.output()).find("Name occupied by pid ") != std::string::npos;
  }));
}

// The agent on a private session bus, and the test's own connection to that bus.
class AgentNotifications : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(bus.running());
    auto connected = platform::NotificationCenter::connectSessionBus();
    ASSERT_TRUE(connected.ok()) << connected.message();
    center = std::move(*connected);
    agent = std::make_unique<RunningAgent>();
    port = agent->waitForPort();
    ASSERT_NE(port, 0);
    // Observing starts after the endpoint is up; wait for the last step of start-up.
    ASSERT_TRUE(eventually([&] { return agent->logContains("Loading settings..."); }));
    std::this_thread::sleep_for(200ms);
  }

  testing::PrivateBus bus{testing::PrivateBus::Kind::Session};
  std::unique_ptr<platform::NotificationCenter> center;
  std::unique_ptr<RunningAgent> agent;
  int port = 0;
};

// A field of /proc/<pid>/status ("Threads", "VmSize" in kB), or -1.
long statusField(pid_t pid, const std::string& field) {
  std::istringstream status(testing::readText("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) {
      return std::stol(line.substr(field.size() + 1));
    }
  }
  return -1;
}

TEST_F(AgentNotifications, AThousandNotificationsLeaveThreadsAndMemoryFlat) {
  std::atomic<int> answered{0};
  auto observation =
      center->observe("QVKestrinStatusUpdate", [&](const plist::Dictionary&) { ++answered; });
  auto burst = [&](int count) {
    int before = answered;
    for (int i = 0; i < count; ++i) {
      center->post("QVKestrinCurrentStatus", {});
    }
    return eventually([&] { return answered >= before + count; }, 60s);
  };
  pid_t pid = agent->process().pid();
  long threads = statusField(pid, "Threads");
  long virtualKb = statusField(pid, "VmSize");
  ASSERT_TRUE(burst(1000));
  // Every handler ran on the agent's worker pool, which never holds more than its cap of
  // threads: the count stays bounded however many notifications come, and so does memory
  // (it grew by about 8 GB per thousand when each handler kept a thread of its own).
  constexpr long kPoolCap = 64;
  EXPECT_LE(statusField(pid, "Threads"), threads + kPoolCap);
  EXPECT_LT(statusField(pid, "VmSize") - virtualKb, 2L * 1024 * 1024);
}

TEST_F(AgentNotifications, AToolsErrorNotificationReachesTheRegisteredCallbacks) {
  auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(client.ok());
  auto callback = std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
  (*client)->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});

  center->post("QVAmbrantTaskError", {{"errorCode", 1003}});
  ASSERT_TRUE(eventually([&] { return !callback->calls().empty(); }, 10s));
  EXPECT_EQ(callback->calls()[0].arguments[0],
            Value(plist::ErrorRecord{"ambrantDomain", 1003, {}}));

  center->post("QVAmbrantTaskProgressIncrement", {});
  ASSERT_TRUE(eventually([&] { return callback->calls().size() == 2; }, 10s));
  EXPECT_EQ(callback->calls()[1].selector, "incrementProgress");
}

TEST_F(AgentNotifications, StatusIsBroadcastOnRequest) {
  std::mutex mutex;
  std::vector<std::string> statuses;
  auto observation = center->observe("QVKestrinStatusUpdate", [&](const plist::Dictionary& info) {
    std::lock_guard lock(mutex);
    const plist::Value* status = info.find("status");
    statuses.push_back(status && status->asString() ? *status->asString() : "");
  });
  center->post("QVKestrinCurrentStatus", {});
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return !statuses.empty();
  }));
  std::lock_guard lock(mutex);
  EXPECT_EQ(statuses[0], "Listening on port " + std::to_string(port));
}

TEST_F(AgentNotifications, ADisconnectNotificationEndsEveryInstanceButTheOneItNames) {
  center->post("QVKestrinDisconnect",
               {{"excluded_pid", static_cast<std::int64_t>(agent->process().pid())}});
  EXPECT_FALSE(agent->process().waitForExit(1500ms).has_value());

  center->post("QVKestrinDisconnect", {{"excluded_pid", 1}});
  auto status = agent->process().waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_TRUE(agent->logContains("Preparing to disconnect..."));
}

TEST_F(AgentNotifications, AStartingAgentEndsTheOneAlreadyRunning) {
  RunningAgent newer(agent->runtime());
  auto status = agent->process().waitForExit(20s);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_NE(newer.waitForPort(), 0);
}

TEST_F(AgentNotifications, TheCallbackRelayForwardsOneNotificationOnce) {
  auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(client.ok());
  std::atomic<int> posted{0};
  auto record =
      admin::QVCallback::callbackWithName("render", [&](admin::QVCallback&) { ++posted; });
  (*client)->root()->invoke("setupCallbackListener:withName:",
                            {Value(plist::ObjectRef(record)), Value("QVTestRenderDone")});
  center->post("QVTestRenderDone", {{"frames", 240}});
  ASSERT_TRUE(eventually([&] { return posted == 1; }, 10s));
  EXPECT_EQ(record->info(), (plist::Dictionary{{"frames", 240}}));

  center->post("QVTestRenderDone", {{"frames", 1}});
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(posted, 1);
  EXPECT_TRUE(agent->logContains("Setting up callback listener"));
  EXPECT_TRUE(agent->logContains("Posting callback"));
}

TEST_F(AgentNotifications, TheAgentOutlivesItsSessionBusAndHearsAgainOnceItIsBack) {
  center.reset();
  bus.stop();
  ASSERT_TRUE(
      eventually([&] { return agent->logContains("Distributed notifications are off: "); }));
  ASSERT_TRUE(bus.start());
  ASSERT_TRUE(eventually(
      [&] { return agent->logContains("Distributed notifications are on again."); }, 60s));

  // It lived through it, and observes again what it observed before.
  auto connected = platform::NotificationCenter::connectSessionBus();
  ASSERT_TRUE(connected.ok()) << connected.message();
  std::atomic<int> statuses{0};
  auto observation =
      (*connected)->observe("QVKestrinStatusUpdate", [&](const plist::Dictionary&) { ++statuses; });
  (*connected)->post("QVKestrinCurrentStatus", {});
  EXPECT_TRUE(eventually([&] { return statuses > 0; }, 10s));
  EXPECT_FALSE(agent->process().waitForExit(0ms).has_value());
}

// What kestrin-maintenance prints, and its exit status.
std::pair<int, std::string> runMaintenance(const std::string& verb) {
  FILE* pipe = ::popen((std::string(KESTRIN_MAINTENANCE_PATH) + " " + verb).c_str(), "r");
  std::string out;
  char buffer[256];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) {
    out.append(buffer, n);
  }
  int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST_F(AgentNotifications, TheUsersCommandSendsAndCancelsARequestAtEveryAdmin) {
  auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(client.ok());
  auto callback = std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
  (*client)->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});
  Value host = (*client)->root()->invoke("hostName", {});

  EXPECT_EQ(runMaintenance("request"),
            std::make_pair(0, std::string("Maintenance request sent.\n")));
  EXPECT_EQ(runMaintenance("cancel"),
            std::make_pair(0, std::string("Maintenance request canceled.\n")));
  ASSERT_TRUE(eventually([&] { return callback->calls().size() == 2; }, 10s));
  EXPECT_EQ(callback->selectorsCalled(),
            (std::vector<std::string>{"requestMaintenance:", "cancelMaintenance:"}));
  EXPECT_EQ(callback->calls()[0].arguments, std::vector<Value>{host});
  EXPECT_EQ(runMaintenance("now").first, 2);
}

} // namespace
} // namespace kestrin
