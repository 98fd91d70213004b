#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include <capnp/rpc-twoparty.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kj/async-io.h>

#include "RunningAgent.h"
#include "admin/AdminClient.h"
#include "admin/JsonValue.h"
#include "admin/QVCallback.h"
#include "fixtures/MakerTools.h"
#include "fixtures/PrivateBus.h"
#include "fixtures/RecordingObject.h"
#include "foundation/QVEncryption.h"
#include "platform/NotificationCenter.h"
#include "support/NamedException.h"
#include "transport/TlsStream.h"
#include "transport/remote.capnp.h"

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using plist::Value;
using testing::eventually;
using testing::RecordingObject;
using testing::runAmbrant;
using testing::RunningAgent;

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

class RemoteService : public ::testing::Test {
protected:
  explicit RemoteService(const std::function<void(const std::filesystem::path&)>& prepare = {})
      : agent({}, {}, prepare) {}
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

TEST_F(RemoteService, AmbrantCallsOperationsAndReportsEachKindOfFailureByExitStatus) {
  std::string where = "127.0.0.1:" + std::to_string(port);
  EXPECT_EQ(runAmbrant("call " + where + " ping"), std::make_pair(0, std::string("null\n")));
  EXPECT_EQ(runAmbrant("call " + where + " clientVersion"),
            std::make_pair(0, std::string("\"" KESTRIN_BUNDLE_VERSION "\"\n")));
  EXPECT_EQ(runAmbrant("call " + where + " noSuchOperation:").first, 1);
  EXPECT_EQ(runAmbrant("call " + where + " setErrorCallback: 12").first, 1);
  EXPECT_EQ(runAmbrant("call 127.0.0.1:1 ping").first, 2);

  // The agent's own list of what it answers, argument kinds included.
  auto [listed, selectors] = runAmbrant("selectors " + where);
  EXPECT_EQ(listed, 0);
  EXPECT_THAT(selectors, ::testing::HasSubstr("\nping\n"));
  EXPECT_THAT(selectors, ::testing::ContainsRegex("\nfeldaneBackup:type:\t[a-z ]+, [a-z ]+\n"));

  // Every command line that cannot be run is a usage error, told apart from failures.
  testing::TempDir scratch;
  for (const std::string& wrong : std::vector<std::string>{
           "", "frob", "call", "call " + where, "call " + where + " ping '{'", "call nowhere ping",
           "call " + where + " ping --timeout -1", "call " + where + " ping --linger",
           "call " + where + " ping --bogus", "plugins", "logs " + where, "watch a b",
           "config " + where + " extra", "backup " + where + " /p", "help frob"}) {
    EXPECT_EQ(runAmbrant(wrong).first, 64) << wrong;
  }
  auto bare =
      testing::runAmbrantIn(scratch.path(), "call " + where + " feldaneBackup:type: Final 1");
  EXPECT_EQ(bare.status, 64);
  EXPECT_THAT(bare.err, ::testing::HasSubstr("argument 1 (Final) is not JSON"));
  EXPECT_THAT(bare.err, ::testing::HasSubstr("'\"Final\"'"));
  EXPECT_EQ(runAmbrant("help call").first, 0);
  EXPECT_EQ(runAmbrant("--version").second, "ambrant " KESTRIN_VERSION "\n");

  // A port that accepts and never speaks is not an agent, and ambrant does not wait for ever.
  platform::FileDescriptor silent(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(silent.get(), 4), 0);
  ::getsockname(silent.get(), reinterpret_cast<sockaddr*>(&address), &length);
  std::string quiet = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  auto stuck = testing::runAmbrantIn(scratch.path(), "call " + quiet + " ping --timeout 1");
  EXPECT_EQ(stuck.status, 2);
  EXPECT_THAT(stuck.err, ::testing::HasSubstr("did not answer as a Kestrin agent within 1 s"));
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

// A callback lacking the event's selector ends that event for the callbacks its own admin
// registered after it, never for another admin's.
TEST_F(RemoteService, ACallbackLackingASelectorStopsThatEventOnlyForItsOwnAdmin) {
  auto first = connect();
  auto lacking = registeredCallback(*first, {"ping"});
  auto afterLacking = registeredCallback(*first);
  auto second = connect();
  auto complete = registeredCallback(*second);
  first->root()->invoke("incrementRemoteProgress", {});
  EXPECT_THAT(complete->selectorsCalled(), ::testing::ElementsAre("incrementProgress"));
  EXPECT_THAT(afterLacking->selectorsCalled(), ::testing::ElementsAre("ping"));
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

// ---- hostile peers

// What a peer that builds its own messages can send: a call whose argument list claims `count`
// elements of no size, which costs it a few bytes and costs a careless receiver a value each.
// Answers the name and reason of what the agent raised.
std::pair<std::string, std::string> callWithEmptyElements(int port, const std::string& selector,
                                                          unsigned count) {
  try {
    // Over TLS, as the agent speaks nothing else; the messages inside are the peer's own.
    auto io = kj::setupAsyncIo();
    auto stream = io.provider->getNetwork()
                      .parseAddress("127.0.0.1", static_cast<capnp::uint>(port))
                      .wait(io.waitScope)
                      ->connect()
                      .wait(io.waitScope);
    auto context = transport::TlsContext::make(transport::TlsContext::Side::Client, nullptr);
    auto secured = transport::TlsStream::handshake(kj::mv(stream), *context).wait(io.waitScope);
    capnp::TwoPartyClient raw(*secured);
    auto request = raw.bootstrap().castAs<transport::wire::RemoteObject>().typelessRequest(
        capnp::typeId<transport::wire::RemoteObject>(), 0, capnp::MessageSize{16, 0});
    auto params = request.initAsAnyStruct(0, 2);
    params.getPointerSection()[0].setAs<capnp::Text>(selector);
    params.getPointerSection()[1].initAsAnyList(capnp::ElementSize::VOID, count);
    auto response = request.send().wait(io.waitScope);
    auto raised = response.getAs<transport::wire::RemoteObject::InvokeResults>().getRaised();
    return {raised.getName().cStr(), raised.getReason().cStr()};
  } catch (const kj::Exception& e) {
    // Kept as text: a kj exception may not outlive its thread.
    return {"(transport failure)", e.getDescription().cStr()};
  }
}

// The agent's peak resident memory in kB since the last reset.
long peakResidentKb(pid_t pid) {
  return statusField(pid, "VmHWM");
}
void resetPeakResident(pid_t pid) {
  std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

// Four peers at once each send a 40-byte list that claims four million elements; an admin
// keeps calling meanwhile. The agent refuses each before looking at the selector and its peak
// memory grows by less than 64 MiB (it grew by gigabytes when every element became a value).
TEST_F(RemoteService, AmplifyingRequestsAreRefusedAndCostTheAgentNoMemory) {
  pid_t pid = agent.process().pid();
  auto admin = connect();
  ASSERT_TRUE(admin->root()->invoke("ping", {}).isNull());
  resetPeakResident(pid);
  long before = peakResidentKb(pid);
  std::vector<std::future<std::pair<std::string, std::string>>> hostile;
  for (int i = 0; i < 4; ++i) {
    hostile.push_back(std::async(std::launch::async, [&] {
      return callWithEmptyElements(port, "dictionaryFromData:", 4'000'000);
    }));
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(admin->root()->invoke("ping", {}).isNull());
  }
  for (auto& refused : hostile) {
    auto [name, reason] = refused.get();
    EXPECT_EQ(name, "NSInvalidArgumentException");
    EXPECT_THAT(reason, ::testing::HasSubstr("at most 100000 values"));
  }
  EXPECT_LT(peakResidentKb(pid) - before, 64 * 1024);
  EXPECT_FALSE(agent.logContains("dictionaryFromData"));
  EXPECT_TRUE(admin->root()->invoke("ping", {}).isNull());
}

// An admin's error callback that answers its registration ping, then holds every event until
// released, as a hung admin application would.
class StallingCallback : public plist::RemoteObject {
public:
  std::string description() const override { return "<stalling>"; }
  bool respondsTo(const std::string&) override { return true; }
  Value invoke(const std::string& selector, std::vector<Value>) override {
    if (selector == "ping") {
      return {};
    }
    std::unique_lock lock(mutex_);
    ++entered_;
    released_.wait(lock, [this] { return release_; });
    return {};
  }
  int entered() {
    std::lock_guard lock(mutex_);
    return entered_;
  }
  void release() {
    std::lock_guard lock(mutex_);
    release_ = true;
    released_.notify_all();
  }

private:
  std::mutex mutex_;
  std::condition_variable released_;
  int entered_ = 0;
  bool release_ = false;
};

TEST_F(RemoteService, AStalledCallbackHoldsUpNoOtherAdministrator) {
  auto hung = connect();
  auto stalling = std::make_shared<StallingCallback>();
  hung->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(stalling))});
  auto admin = connect();
  auto callback = registeredCallback(*admin);

  auto posting = std::async(std::launch::async, [&] {
    admin->root()->invoke("postErrorString:", {Value("Render node offline")});
  });
  // Before the post is waited for, whatever happens below.
  std::shared_ptr<void> unstall(nullptr, [&](void*) { stalling->release(); });
  // The second admin hears at once and keeps being served while the first holds the event.
  // The agent's own start-up events (its update count's "updateConfig:") may come first.
  auto heard = [&] {
    for (const auto& call : callback->calls()) {
      if (!call.arguments.empty() && call.arguments[0] == Value("Render node offline")) {
        return true;
      }
    }
    return false;
  };
  ASSERT_TRUE(eventually(heard, 5s));
  EXPECT_TRUE(eventually([&] { return stalling->entered() >= 1; }, 5s));
  auto third = connect();
  EXPECT_TRUE(third->root()->invoke("ping", {}).isNull());
  EXPECT_TRUE(admin->root()->invoke("ping", {}).isNull());
  unstall.reset();
  posting.get();
}

TEST_F(RemoteService, CallersCanNeitherForgeLogLinesNorBroadcastWhatTheyLike) {
  auto admin = connect();
  auto callback = registeredCallback(*admin);
  admin->root()->invoke("executeTask:bundleID:options:",
                        {Value("clean"), Value("com.quorvane.Evil\nFORGED LINE\x1b[2J"), Value()});
  ASSERT_TRUE(eventually([&] { return agent.logContains("com.quorvane.Evil\\nFORGED LINE"); }));
  EXPECT_FALSE(agent.logContains("\nFORGED LINE"));
  EXPECT_FALSE(agent.logContains("\x1b"));

  // The reverse interface's events may be broadcast; nothing else may.
  try {
    admin->root()->invoke("performErrorCallbackSelector:withObject:withObject:",
                          {Value("removeStoredPasswordForHost:"), Value("x"), Value()});
    ADD_FAILURE() << "an arbitrary selector was broadcast";
  } catch (const NamedException& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  admin->root()->invoke("performErrorCallbackSelector:withObject:withObject:",
                        {Value("addStringToQueue:hostname:"), Value("hello"), Value("studio.")});
  EXPECT_THAT(callback->selectorsCalled(),
              ::testing::ElementsAre("addErrorToQueue:userInfo:", "addStringToQueue:hostname:"));
}

// The agent with one maker's tool whose task prints a secret, run through the callback form.
class RemoteServiceTasks : public RemoteService {
protected:
  RemoteServiceTasks()
      : RemoteService([](const std::filesystem::path& root) {
          testing::makeMakerTool(root / "Applications/Quorvane", "Tibbet", "com.quorvane.Tibbet",
                                 plist::Array{testing::makerTask("secret", {"--all"})}, 0,
                                 "echo 'the secret'\n");
        }) {}
  // Runs the task with a callback of its own on `client`; answers what that callback received.
  std::vector<RecordingObject::Call> runWithCallback(transport::RpcClient& client,
                                                     const plist::ObjectRef& callback) {
    client.root()->invoke(
        "authExecuteTask:bundleID:options:username:password:callback:callbackName:",
        {Value("secret"), Value("com.quorvane.Tibbet"), Value(), Value("admin"),
         Value(plist::Data{1, 2, 3}), Value(callback), Value("QVTaskOutput")});
    return std::static_pointer_cast<RecordingObject>(callback)->calls();
  }
};

// One admin runs tasks with callbacks while another arms its own relay under the same name as
// fast as it can: each output reaches the caller who ran the task, once, and nobody else.
TEST_F(RemoteServiceTasks, ATasksOutputReachesOnlyTheCallerWhoRanIt) {
  auto runner = connect();
  auto racer = connect();
  auto thief = std::make_shared<RecordingObject>(std::set<std::string>{"postCallback:"}, "thief");
  std::atomic<bool> done{false};
  std::atomic<int> armed{0};
  std::thread racing([&] {
    while (!done) {
      racer->root()->invoke("setupCallbackListener:withName:",
                            {Value(plist::ObjectRef(thief)), Value("QVTaskOutput")});
      ++armed;
    }
  });
  for (int run = 0; run < 3; ++run) {
    auto own = std::make_shared<RecordingObject>(std::set<std::string>{"postCallback:"});
    auto calls = runWithCallback(*runner, own);
    ASSERT_EQ(calls.size(), 1u) << "run " << run;
    EXPECT_EQ(
        calls[0].arguments.at(0),
        Value(plist::Dictionary{
            {"output", "Error: Unable to authorize. Username and password may be incorrect."}}));
  }
  done = true;
  racing.join();
  EXPECT_GT(armed, 3);
  EXPECT_TRUE(thief->calls().empty());
}

// A callback record that raises an exception named like the transport's time-out: its own
// failure, which must not restart the service for everyone.
TEST_F(RemoteServiceTasks, APeersExceptionNamedLikeATimeOutRestartsNothing) {
  struct Forger : plist::RemoteObject {
    std::string description() const override { return "<forger>"; }
    bool respondsTo(const std::string&) override { return true; }
    Value invoke(const std::string&, std::vector<Value>) override {
      throw NamedException("NSPortTimeoutException", "forged");
    }
  };
  auto admin = connect();
  admin->root()->invoke("authExecuteTask:bundleID:options:username:password:callback:callbackName:",
                        {Value("secret"), Value("com.quorvane.Tibbet"), Value(), Value("admin"),
                         Value(), Value(plist::ObjectRef(std::make_shared<Forger>())),
                         Value("QVTaskOutput")});
  ASSERT_TRUE(eventually([&] { return agent.logContains("NSPortTimeoutException - forged"); }));
  std::this_thread::sleep_for(500ms); // a restart would have begun by now
  EXPECT_FALSE(agent.logContains("Stopping vending..."));
  EXPECT_TRUE(admin->root()->invoke("ping", {}).isNull());
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

// Another caller's task that reports under the same name neither takes nor disarms a relay.
TEST_F(AgentNotifications, ARelayOutlivesAnotherCallersTaskReportingUnderItsName) {
  auto waiting = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  auto other = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(waiting.ok() && other.ok());
  std::atomic<int> posted{0};
  auto record =
      admin::QVCallback::callbackWithName("render", [&](admin::QVCallback&) { ++posted; });
  (*waiting)->root()->invoke("setupCallbackListener:withName:",
                             {Value(plist::ObjectRef(record)), Value("QVTestRenderDone")});
  auto own = std::make_shared<RecordingObject>(std::set<std::string>{"postCallback:"});
  (*other)->root()->invoke(
      "authExecuteTask:bundleID:options:username:password:callback:callbackName:",
      {Value("x"), Value("com.quorvane.Missing"), Value(), Value("admin"), Value(),
       Value(plist::ObjectRef(own)), Value("QVTestRenderDone")});
  EXPECT_EQ(own->calls().size(), 1u);
  EXPECT_EQ(posted, 0);

  center->post("QVTestRenderDone", {{"frames", 240}});
  ASSERT_TRUE(eventually([&] { return posted == 1; }, 10s));
  EXPECT_EQ(record->info(), (plist::Dictionary{{"frames", 240}}));
}

} // namespace
} // namespace kestrin
