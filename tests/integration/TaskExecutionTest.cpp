#include <fstream>
#include <future>

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileBytes.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::eventually;
using testing::RecordingObject;
using testing::RunningAgent;

using testing::makeMakerTool;
using testing::makerTask;

class TaskExecution : public ::testing::Test {
protected:
  TaskExecution()
      : agent({}, {}, [](const fs::path& root) {
          fs::path quorvane = root / "Applications/Quorvane";
          makeMakerTool(quorvane, "Tibbet", "com.quorvane.Tibbet",
                        plist::Array{makerTask("clean", {"--clean", "--all"})});
          makeMakerTool(quorvane, "Hembry", "com.quorvane.Hembry",
                        plist::Dictionary{{"--scan ### --deep", "Scan deeply"}});
        }) {}

  void SetUp() override {
    int port = agent.waitForPort();
    ASSERT_NE(port, 0);
    auto connected = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    ASSERT_TRUE(connected.ok());
    client = std::move(*connected);
    client->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});
  }
  Value call(const std::string& selector, std::vector<Value> arguments) {
    return client->root()->invoke(selector, std::move(arguments));
  }
  fs::path quorvane() const { return agent.home().parent_path() / "root/Applications/Quorvane"; }

  RunningAgent agent;
  std::unique_ptr<transport::RpcClient> client;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
};

TEST_F(TaskExecution, ATaskRunsItsCommandFollowedByTheOptionsInOrder) {
  call("executeTask:bundleID:options:", {Value("clean"), Value("com.quorvane.Tibbet"),
                                         Value(plist::Array{"--verbose", "two words"})});
  EXPECT_EQ(testing::readText(quorvane() / "Tibbet.args"), "--clean --all --verbose two words\n");
  EXPECT_TRUE(callback->calls().empty());
  EXPECT_TRUE(agent.logContains("Task finished successfully."));
}

TEST_F(TaskExecution, TheCallbackVariantReportsFailuresAndOutputToItsCallbackOnly) {
  auto outputOf = [&](const char* taskId, const char* bundleId) -> Value {
    auto relay = std::make_shared<RecordingObject>(std::set<std::string>{"postCallback:"});
    call("authExecuteTask:bundleID:options:username:password:callback:callbackName:",
         {Value(taskId), Value(bundleId), Value(plist::Array{"--now"}), Value("admin"),
          Value(plist::Data{}), Value(plist::ObjectRef(relay)), Value("QVTaskOutput")});
    auto calls = relay->calls();
    EXPECT_EQ(calls.size(), 1u);
    const Value* output = calls.empty() ? nullptr : calls[0].arguments.at(0).get("output");
    return output ? *output : Value();
  };
  EXPECT_EQ(outputOf("x", "com.quorvane.Missing"), Value("Error: Cannot find application"));
  EXPECT_EQ(outputOf("x", "com.quorvane.Hembry"),
            Value("Error: Application uses old task format. Please update the application."));
  EXPECT_EQ(outputOf("nope", "com.quorvane.Tibbet"), Value("Error: Task not found."));
  // Root or not, the agent asks about the caller's credentials: running as root is no password.
  EXPECT_EQ(outputOf("clean", "com.quorvane.Tibbet"),
            Value("Error: Unable to authorize. Username and password may be incorrect."));
  EXPECT_TRUE(callback->calls().empty()); // nothing went to the error channel

  call("authExecuteTask:bundleID:options:username:password:callback:callbackName:",
       {Value("clean"), Value("com.quorvane.Tibbet"), Value(), Value("admin"), Value(), Value(),
        Value("QVTaskOutput")});
  EXPECT_TRUE(agent.logContains("Error: No callback specified."));
}

// Hostile property lists from the fuzz corpus, sent as any caller could: 53 bytes on which the
// system library asserted and took the agent down, 162 bytes that expand to 2^31 values, 4 KiB
// that expand to 32 MiB of text. Each answers null at once; the agent stays up and small, and
// still reads a good list after them.
TEST_F(TaskExecution, HostilePropertyListDataIsRefusedAndTheAgentStaysSmall) {
  for (const char* name : {"finding-nul-key.bplist", "finding-shared-expansion.bplist",
                           "finding-shared-string.bplist"}) {
    std::ifstream in(std::string(KESTRIN_FUZZ_CORPUS) + "/plist_binary/" + name, std::ios::binary);
    plist::Data bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(bytes.empty()) << name;
    EXPECT_TRUE(call("dictionaryFromData:", {Value(bytes)}).isNull()) << name;
  }
  Value good = plist::Dictionary{{"updates", plist::Array{"one"}}};
  EXPECT_EQ(call("dictionaryFromData:", {Value(*plist::toBinary(good))}), good);
  EXPECT_TRUE(agent.logContains("Could not convert data to dictionary"));

  std::ifstream status("/proc/" + std::to_string(agent.process().pid()) + "/status");
  std::string line;
  long peakKiB = 0;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) {
      peakKiB = std::stol(line.substr(6));
    }
  }
  EXPECT_GT(peakKiB, 0);
  EXPECT_LT(peakKiB, 512 * 1024) << "peak resident memory of the agent, KiB";
}

// Links that make a folder contain itself, twice over: followed, they make a tree with no end
// (2^n paths at depth n). The walk follows none of them, and the agent keeps serving.
TEST_F(TaskExecution, ALinkLoopInAScannedFolderEndsAtOnce) {
  fs::path loop = agent.home() / "loop";
  fs::create_directories(loop / "inner");
  fs::create_directory_symlink(".", loop / "again");
  fs::create_directory_symlink("..", loop / "inner/up");
  fs::create_directory_symlink(loop, loop / "inner/top");
  auto scan = std::async(std::launch::async,
                         [&] { return call("qvAppsInFolder:", {Value(loop.string())}); });
  if (scan.wait_for(20s) != std::future_status::ready) {
    agent.process().signal(SIGKILL); // so the call, and this test, can end
    FAIL() << "the walk did not end";
  }
  EXPECT_EQ(scan.get(), Value(plist::Array{}));
  EXPECT_TRUE(call("ping", {}).isNull());
}

} // namespace
} // namespace kestrin
