#include <fstream>

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningAgent.h"
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

// A maker's tool bundle whose executable records its arguments and exits with `status`.
// It also prints them, for the runs whose output reaches the admin. `body`, when given,
// replaces the whole script after the shebang line.
void makeTool(const fs::path& folder, const std::string& name, const std::string& identifier,
              const Value& tasks, int status = 0, const std::string& body = {}) {
  fs::path bundle = folder / (name + ".app");
  fs::create_directories(bundle / "Contents/MacOS");
  fs::create_directories(bundle / "Contents/Resources");
  ASSERT_TRUE(plist::writeFile(bundle / "Contents/Info.plist",
                               Value(plist::Dictionary{{"CFBundleIdentifier", identifier},
                                                       {"CFBundleName", name},
                                                       {"CFBundleIconFile", name}}))
                  .ok());
  ASSERT_TRUE(
      plist::writeFile(bundle / "Contents/QVUpdates.plist", Value(plist::Dictionary{})).ok());
  ASSERT_TRUE(plist::writeFile(bundle / "Contents/Resources/QVTasks.plist",
                               Value(plist::Dictionary{{"QVTasks", tasks}}))
                  .ok());
  fs::path exe = bundle / "Contents/MacOS" / name;
  if (body.empty()) {
    std::ofstream(exe) << "#!/bin/sh\necho \"$@\" >> \"" << (folder / (name + ".args")).string()
                       << "\"\necho \"ran $@\"\nexit " << status << "\n";
  } else {
    std::ofstream(exe) << "#!/bin/sh\n" << body << "\n";
  }
  fs::permissions(exe, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
}

Value task(const char* id, plist::Array command) {
  return plist::Dictionary{{"id", id}, {"command", command}, {"description", "a task"}};
}

class TaskExecution : public ::testing::Test {
protected:
  TaskExecution()
      : agent({}, {}, [](const fs::path& root) {
          fs::path quorvane = root / "Applications/Quorvane";
          makeTool(quorvane, "Tibbet", "com.quorvane.Tibbet",
                   plist::Array{task("clean", {"--clean", "--all"}), task("fail", {"--fail"})});
          makeTool(quorvane, "Orrick", "com.quorvane.Orrick", plist::Array{task("x", {"--x"})}, 42);
          makeTool(quorvane, "Sevrin", "com.quorvane.Sevrin", plist::Array{task("hang", {"-h"})}, 0,
                   "exec sleep 300");
          // Tibbet brings its own icon; the others get the generic one.
          fs::copy_file(fs::path(KESTRIN_AGENT_PATH).parent_path() / "../Resources/spanner-18.png",
                        quorvane / "Tibbet.app/Contents/Resources/Tibbet.png");
          makeTool(quorvane, "Hembry", "com.quorvane.Hembry",
                   plist::Dictionary{{"--scan ### --deep", "Scan deeply"}});
          // Same name, other identifier: passed over.
          makeTool(root / "Applications", "Scallin", "com.other.Scallin",
                   plist::Array{task("x", {"-x"})});
          // Never scanned: an Avid folder and a Help folder.
          makeTool(root / "Applications/Avid Media Composer", "Lintrow", "com.quorvane.Lintrow",
                   plist::Array{task("x", {"-x"})});
          makeTool(root / "Applications/HELP", "Feldane", "com.quorvane.Feldane",
                   plist::Array{task("x", {"-x"})});
          makeTool(root / "Applications", "Quorvane Software Update", "com.quorvane.SoftwareUpdate",
                   plist::Array{task("x", {"-x"})});
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

TEST_F(TaskExecution, EveryFailureReachesTheCallbacksWithItsCode) {
  auto codeOf = [&](std::vector<Value> arguments) -> Value {
    std::size_t before = callback->calls().size();
    call("executeTask:bundleID:options:", std::move(arguments));
    if (callback->calls().size() == before) {
      return Value();
    }
    return callback->calls().back().arguments[0];
  };
  auto error = [](std::int64_t code, std::optional<std::string> info = std::nullopt) {
    plist::ErrorRecord record{"ambrantDomain", code, {}};
    if (info) {
      record.userInfo.set("info", *info);
    }
    return Value(record);
  };
  EXPECT_EQ(codeOf({Value("x"), Value("com.quorvane.Missing"), Value()}),
            error(1000, "com.quorvane.Missing"));
  EXPECT_EQ(codeOf({Value("x"), Value("com.quorvane.Hembry"), Value()}),
            error(1002, "com.quorvane.Hembry")); // the old format cannot run
  EXPECT_EQ(codeOf({Value("nope"), Value("com.quorvane.Tibbet"), Value()}), error(1003));
  EXPECT_EQ(codeOf({Value("x"), Value("com.quorvane.Orrick"), Value()}), error(42));
  EXPECT_EQ(codeOf({Value("x"), Value("com.quorvane.Scallin"), Value()}),
            error(1000, "com.quorvane.Scallin"));
}

TEST_F(TaskExecution, LookupAndListingFollowTheNameRulesAndSkipForeignFolders) {
  fs::path applications = quorvane().parent_path();
  EXPECT_EQ(call("pathForAppWithBundleID:", {Value("com.quorvane.SoftwareUpdate")}),
            Value((applications / "Quorvane Software Update.app").string()));
  EXPECT_TRUE(call("pathForAppWithBundleID:", {Value("com.other.Nothing")}).isNull());

  Value listed = call("qvAppTasks", {});
  std::vector<std::string> names;
  for (const Value& entry : *listed.asArray()) {
    names.push_back(*entry.get("name")->asString());
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("Tibbet", "Orrick", "Hembry", "Sevrin",
                                                     "Quorvane Software Update"));
  for (const Value& entry : *listed.asArray()) {
    if (*entry.get("name")->asString() == "Hembry") {
      EXPECT_EQ(
          *entry.get("tasks"),
          Value(plist::Array{plist::Dictionary{{"description", "Scan deeply"},
                                               {"command", plist::Array{"--scan", "--deep"}}}}));
    }
  }
}

bool isTiff(const Value* icon) {
  const plist::Data* bytes = icon ? icon->asData() : nullptr;
  if (bytes == nullptr || bytes->size() < 8) {
    return false;
  }
  std::string magic(bytes->begin(), bytes->begin() + 4);
  return magic == std::string("II*\0", 4) || magic == std::string("MM\0*", 4);
}

// An image's pixels as 8-bit RGBA, decoded by GraphicsMagick.
plist::Data pixelsOf(const Value& image) {
  testing::TempDir scratch;
  auto file = platform::writeTemporaryFile(scratch.path().string(),
                                           image.asData() ? *image.asData() : plist::Data{});
  if (!file) {
    return {};
  }
  return QVTaskEx::dataFromTask(platform::ToolTable().path(platform::Tool::Gm),
                                {"convert", *file, "-depth", "8", "RGBA:-"})
      .value_or(plist::Data{});
}

TEST_F(TaskExecution, EveryListedApplicationCarriesATiffIconItsOwnOrTheGenericOne) {
  std::map<std::string, Value> icons;
  Value listed = call("qvAppTasks", {});
  ASSERT_NE(listed.asArray(), nullptr) << plist::describe(listed);
  for (const Value& entry : *listed.asArray()) {
    const Value* name = entry.get("name");
    ASSERT_TRUE(name && name->asString()) << plist::describe(entry);
    const Value* icon = entry.get("icon");
    EXPECT_TRUE(isTiff(icon)) << *name->asString();
    icons[*name->asString()] = icon ? *icon : Value();
  }
  // The files carry the converter's scratch names; their pixels are what must match.
  EXPECT_NE(pixelsOf(icons["Tibbet"]), pixelsOf(icons["Orrick"]));
  EXPECT_EQ(pixelsOf(icons["Orrick"]), pixelsOf(icons["Hembry"]));

  // A replaced icon file is converted afresh, not served from the agent's cache.
  fs::copy_file(fs::path(KESTRIN_AGENT_PATH).parent_path() / "../Resources/largeServiceIcon.png",
                quorvane() / "Tibbet.app/Contents/Resources/Tibbet.png",
                fs::copy_options::overwrite_existing);
  Value again = call("qvAppTasks", {});
  for (const Value& entry : *again.asArray()) {
    if (*entry.get("name")->asString() == "Tibbet") {
      EXPECT_NE(pixelsOf(*entry.get("icon")), pixelsOf(icons["Tibbet"]));
    }
  }
}

TEST_F(TaskExecution, AHungTaskIsEndedAtItsTimeLimitAndItsStatusPosted) {
  auto started = std::chrono::steady_clock::now();
  call("executeTask:bundleID:options:", {Value("hang"), Value("com.quorvane.Sevrin"), Value()});
  auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, 29s);
  EXPECT_LT(took, 120s);
  ASSERT_EQ(callback->calls().size(), 1u);
  const plist::ErrorRecord* error = callback->calls()[0].arguments[0].asError();
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->code, 0);
  EXPECT_TRUE(agent.logContains("Task finished with an error."));
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
  if (::getuid() == 0) {
    // A root agent runs with rights without asking; the tool's own output comes back.
    EXPECT_EQ(outputOf("clean", "com.quorvane.Tibbet"), Value("ran --clean --all --now\n"));
  } else {
    EXPECT_EQ(outputOf("clean", "com.quorvane.Tibbet"),
              Value("Error: Unable to authorize. Username and password may be incorrect."));
  }
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

} // namespace
} // namespace kestrin
