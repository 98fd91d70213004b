// Crash reports and logs through the real agent: several admins at once, hostile paths and
// arguments, and ambrant's delegate and log saving.

#include <fstream>
#include <future>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::RecordingObject;
using testing::RunningAgent;
using testing::writeText;

constexpr const char* kAddLogs = "tovellAddLogs:hostName:";

std::vector<std::string> linesOf(const std::string& text, const std::string& prefix = "") {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(prefix, 0) == 0) {
      lines.push_back(line);
    }
  }
  return lines;
}

class CrashLogs : public ::testing::Test {
protected:
  CrashLogs()
      : agent({}, {}, [](const fs::path& root) {
          // Tovell names each report by its first line, taking its time over it.
          testing::makeMakerTool(root / "Applications/Quorvane", "Tovell", "com.quorvane.Tovell",
                                 plist::Array{}, 0,
                                 "[ \"$1\" = -cause ] || exit 0\nshift\nsleep 0.3\n"
                                 "for f in \"$@\"; do head -n 1 -- \"$f\"; done");
          fs::path reports = root.parent_path() / "home/Library/Logs/CrashReporter";
          for (int i = 0; i < 23; ++i) {
            writeText(reports / fmt::format("Motion_{:02}.crash", i), "Motion crashed\n");
          }
          writeText(reports / "Kestrin_2026-11-23-120000_studio.crash", "Thread 0 Crashed\n");
          writeText(reports / "Kestrin_new\nline:colon.crash", "odd name\n");
          writeText(reports / "Motion_binary.txt", std::string("\xff\xfe\x00\x01", 4));
          fs::create_directories(reports / "Motion_folder.crash");
        }) {}

  void SetUp() override {
    port = agent.waitForPort();
    ASSERT_NE(port, 0) << testing::readText(agent.output());
  }
  std::unique_ptr<transport::RpcClient> connect() {
    auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    EXPECT_TRUE(client.ok()) << client.message();
    return client ? std::move(*client) : nullptr;
  }
  fs::path reports() const { return agent.home() / "Library/Logs/CrashReporter"; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port); }

  RunningAgent agent;
  int port = 0;
};

TEST_F(CrashLogs, SeveralAdminsGetTheirOwnBatchesWhileHostileCallsAreRefused) {
  constexpr int kAdmins = 4;
  std::vector<std::future<std::vector<std::size_t>>> admins;
  for (int i = 0; i < kAdmins; ++i) {
    admins.push_back(std::async(std::launch::async, [this] {
      auto client = connect();
      auto delegate = std::make_shared<RecordingObject>(std::set<std::string>{kAddLogs});
      client->root()->invoke("crashLogsSinceDate:delegate:",
                             {Value(), Value(plist::ObjectRef(delegate))});
      std::vector<std::size_t> sizes;
      for (const auto& call : delegate->calls()) {
        sizes.push_back(call.arguments.at(0).asArray()->size());
      }
      return sizes;
    }));
  }

  auto hostile = connect();
  auto call = [&](const std::string& selector, std::vector<Value> arguments) {
    return hostile->root()->invoke(selector, std::move(arguments));
  };
  std::string escape = (reports() / "../../../../../../etc/passwd").string();
  for (const std::string& path :
       {std::string("/etc/passwd"), escape, reports().string(),
        (reports() / "Motion_folder.crash").string(), (reports() / "Motion_binary.txt").string(),
        (reports() / "Motion_missing.crash").string()}) {
    EXPECT_TRUE(call("logWithFilename:", {Value(path)}).isNull()) << path;
    EXPECT_TRUE(call("fcsCrashLog:", {Value(path)}).isNull()) << path;
    EXPECT_TRUE(call("tovellGetDefinition:", {Value(path)}).isNull()) << path;
  }
  for (const std::string& path : {std::string("/etc/passwd"), escape, reports().string(),
                                  (reports() / "Motion_folder.crash").string()}) {
    EXPECT_EQ(call("tovellRemoveLogFilename:", {Value(path)}), Value(false)) << path;
  }
  plist::Array tooMany(101, Value((reports() / "Motion_00.crash").string()));
  EXPECT_TRUE(call("crashLogObjectsForFiles:", {Value(tooMany)}).isNull());
  EXPECT_THROW(call("crashLogsSinceDate:delegate:", {Value("yesterday"), Value()}), NamedException);
  EXPECT_THROW(call("logWithFilename:", {Value(plist::Array{})}), NamedException);
  EXPECT_EQ(call("fcsCrashLog:", {Value((reports() / "Kestrin_new\nline:colon.crash").string())}),
            Value("odd name\n"));

  for (auto& admin : admins) {
    ASSERT_EQ(admin.wait_for(60s), std::future_status::ready);
    EXPECT_THAT(admin.get(), ElementsAre(10, 10, 3));
  }
  EXPECT_TRUE(fs::exists("/etc/passwd"));
  EXPECT_TRUE(fs::exists(reports() / "Motion_00.crash"));
  EXPECT_TRUE(fs::is_directory(reports() / "Motion_folder.crash"));
  EXPECT_EQ(call("clientVersion", {}), Value(KESTRIN_BUNDLE_VERSION)); // still serving
}

TEST_F(CrashLogs, AnAdminThatVanishesHalfwayEndsOnlyItsOwnDelivery) {
  // An admin whose process dies at its first batch: ambrant, killed as the batch arrives.
  int errors[2];
  ASSERT_EQ(::pipe(errors), 0);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
  ::posix_spawn_file_actions_addclose(&actions, errors[0]);
  std::string program = "/usr/bin/env";
  testing::TempDir console;
  std::vector<std::string> arguments{program,
                                     "XDG_CONFIG_HOME=" + console.path().string(),
                                     KESTRIN_AMBRANT_PATH,
                                     "call",
                                     address(),
                                     "crashLogsSinceDate:delegate:",
                                     "null",
                                     "{\"$delegate\":{}}"};
  std::vector<char*> argv;
  for (auto& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  ASSERT_EQ(::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(errors[1]);
  std::string seen;
  char c;
  while (seen.find("delegate tovellAddLogs") == std::string::npos &&
         ::read(errors[0], &c, 1) == 1) {
    seen += c;
  }
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::close(errors[0]);
  ASSERT_NE(seen.find("delegate tovellAddLogs"), std::string::npos) << seen;

  EXPECT_TRUE(testing::eventually([&] {
    return agent.logContains("Exception in -[AppController crashLogsSinceDate:delegate:]. " +
                             std::string(kInvalidSendPortException));
  })) << agent.logText();
  auto other = connect();
  auto delegate = std::make_shared<RecordingObject>(std::set<std::string>{kAddLogs});
  other->root()->invoke("crashLogsSinceDate:delegate:",
                        {Value(), Value(plist::ObjectRef(delegate))});
  EXPECT_EQ(delegate->calls().size(), 3u);
  // The end of a consolidation is not a remote caller's to announce.
  other->root()->invoke("consolidateCrashLogsDidFinish:", {Value()});
  EXPECT_TRUE(agent.logContains("consolidateCrashLogsDidFinish: refused"));
  EXPECT_FALSE(agent.logContains("Reconnecting"));
}

TEST_F(CrashLogs, AmbrantPrintsWhatItsDelegateReceivesAndSavesEveryLogOnce) {
  testing::TempDir scratch;
  testing::AmbrantRun delivered = testing::runAmbrantIn(
      scratch.path(),
      "call " + address() + " crashLogsSinceDate:delegate: null '{\"$delegate\":{}}'");
  EXPECT_EQ(delivered.status, 0) << delivered.err;
  auto batches = linesOf(delivered.err, "delegate ");
  ASSERT_EQ(batches.size(), 3u) << delivered.err;
  EXPECT_THAT(batches[0], HasSubstr("delegate tovellAddLogs:hostName: [[{\"hostname\":"));
  EXPECT_THAT(batches[2], HasSubstr("\"cause\":\"Motion crashed\""));

  fs::path saved = scratch.path() / "logs";
  testing::AmbrantRun logs =
      testing::runAmbrantIn(scratch.path(), "logs " + address() + " '" + saved.string() + "'");
  EXPECT_EQ(logs.status, 0) << logs.err;
  auto lines = linesOf(logs.out);
  ASSERT_EQ(lines.size(), 3u) << logs.out; // the agent's log and its two crash reports
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator(saved)) {
    files.insert(entry.path().filename().string());
  }
  std::string prefix = reports().string().substr(1);
  std::replace(prefix.begin(), prefix.end(), '/', '_');
  EXPECT_EQ(files.count(prefix + "_Kestrin_2026-11-23-120000_studio.crash"), 1u);
  EXPECT_EQ(files.count(prefix + "_Kestrin_new_line:colon.crash"), 1u);
  EXPECT_EQ(testing::readText(saved / (prefix + "_Kestrin_new_line:colon.crash")), "odd name\n");
  EXPECT_THAT(logs.out, HasSubstr("(9 bytes) from \"" + reports().string() +
                                  "/Kestrin_new\\nline:colon.crash\"\n"));
}

} // namespace
} // namespace kestrin
