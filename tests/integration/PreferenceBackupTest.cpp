// Preference backups between real agents over real sockets: moved from one workstation to
// another with ambrant, and the hostile calls of the maker's tool front-ends made by several
// clients at once while the agent goes on serving.

#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/MakerTools.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileBytes.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::RunningAgent;

fs::path made(const fs::path& folder) {
  fs::create_directories(folder);
  return folder;
}

// An agent whose Feldane records its arguments in <root>/feldane.args, with a backup of its
// own and the given temporary folder.
class BackupAgent {
public:
  explicit BackupAgent(const fs::path& temporary)
      : agent({}, {{"TMPDIR", made(temporary).string()}}, [](const fs::path& root) {
          testing::makeMakerTool(root / "Applications/Quorvane", "Feldane", "com.quorvane.Feldane",
                                 plist::Array{}, 0,
                                 testing::recordingArguments(root / "feldane.args"));
          fs::create_directories(root / "Backups/Suite.pmb2/Preferences");
          std::ofstream(root / "Backups/Suite.pmb2/Preferences/com.apple.motion.plist")
              << "<plist><dict/></plist>";
        }) {}

  fs::path root() const { return agent.home().parent_path() / "root"; }
  fs::path backup() const { return root() / "Backups/Suite.pmb2"; }
  std::optional<std::vector<std::string>> feldaneRan() const {
    return testing::recordedArguments(root() / "feldane.args");
  }
  std::string address() { return "127.0.0.1:" + std::to_string(agent.waitForPort()); }
  std::unique_ptr<transport::RpcClient> connect() {
    auto client = transport::RpcClient::connectTcp("127.0.0.1", agent.waitForPort(), 10s);
    EXPECT_TRUE(client.ok());
    return client ? std::move(*client) : nullptr;
  }

  RunningAgent agent;
};

class PreferenceBackup : public ::testing::Test {
protected:
  testing::TempDir scratch;
  fs::path temporaryOfB = scratch.path() / "tmp-b";
  BackupAgent a{scratch.path() / "tmp-a"};
  BackupAgent b{temporaryOfB};
};

TEST_F(PreferenceBackup, ABackupSavedFromOneAgentIsRestoredOnAnother) {
  fs::path file = scratch.path() / "suite.zip";
  auto [saved, savedOut] = testing::runAmbrant("backup " + a.address() + " '" +
                                               a.backup().string() + "' " + file.string());
  ASSERT_EQ(saved, 0) << savedOut << a.agent.logText();
  // Start-up gathered Sevrin's profile on its own, no call asking for it.
  EXPECT_TRUE(a.agent.logContains("Getting system info for Sevrin..."));
  EXPECT_NE(savedOut.find("Received "), std::string::npos) << savedOut;
  EXPECT_FALSE(fs::exists(a.backup().string() + ".zip"));

  auto [restored, restoredOut] =
      testing::runAmbrant("restore " + b.address() + " " + file.string());
  ASSERT_EQ(restored, 0) << restoredOut;
  auto ran = b.feldaneRan();
  ASSERT_TRUE(ran && ran->size() == 2) << b.agent.logText();
  EXPECT_EQ(ran->at(0), "-restore");
  fs::path unpacked = ran->at(1);
  EXPECT_EQ(unpacked.parent_path(), temporaryOfB);
  EXPECT_EQ(unpacked.extension(), ".pmb2");
  EXPECT_EQ(testing::readText(unpacked / "Preferences/com.apple.motion.plist"),
            "<plist><dict/></plist>");

  // The agent answers null for a backup it cannot send: a clear failure, no file.
  fs::path none = scratch.path() / "none.zip";
  auto [missing, missingOut] =
      testing::runAmbrant("backup " + a.address() + " /nowhere.pmb2 " + none.string());
  EXPECT_EQ(missing, 1) << missingOut;
  EXPECT_FALSE(fs::exists(none));
}

TEST_F(PreferenceBackup, SeveralClientsSendingHostileCallsAtOnceLeaveTheAgentServing) {
  fs::path evil = scratch.path() / "evil.zip";
  std::string script = "import sys, zipfile\nz = zipfile.ZipFile(sys.argv[1], 'w')\n"
                       "z.writestr('../../escaped.plist', 'x')\nz.close()\n";
  ASSERT_EQ(QVTaskEx::terminationCodeFromTask("/usr/bin/python3", {"-c", script, evil}), 0);
  auto evilBytes = platform::readFileBytes(evil.string(), 1 << 20);
  ASSERT_TRUE(evilBytes.ok());
  std::string keys;
  for (int i = 0; i < 10'000; ++i) {
    keys += "-k" + std::to_string(i) + "\n";
  }
  std::vector<std::future<Value>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::async(std::launch::async, [&] {
      auto client = a.connect();
      auto call = [&](const std::string& selector, std::vector<Value> arguments) {
        return client->root()->invoke(selector, std::move(arguments));
      };
      EXPECT_THROW(call("tibbetAddTask:settings:", {Value(), Value(5)}), NamedException);
      EXPECT_THROW(call("orrickTrashCaches:settings:", {Value(), plist::Dictionary{}}),
                   NamedException);
      EXPECT_THROW(call("feldaneBackupData:", {Value(plist::Array{})}), NamedException);
      call("feldaneRestoreRemoteBackup:", {Value(plist::Data{'P', 'K', 3, 4})});
      call("feldaneRestoreRemoteBackup:", {Value(*evilBytes)});
      EXPECT_TRUE(call("feldaneBackupData:", {Value(a.root().string())}).isNull());
      call("feldaneLockSelected:", {Value(keys)});
      return call("feldaneBackupData:", {Value(a.backup().string())});
    }));
  }
  // Each client receives the whole archive, though they all asked for it at once.
  std::vector<Value> answers;
  for (auto& client : clients) {
    answers.push_back(client.get());
    ASSERT_TRUE(answers.back().asData()) << a.agent.logText();
    EXPECT_EQ(answers.back().asData()->size(), answers.front().asData()->size());
  }
  EXPECT_FALSE(fs::exists(scratch.path() / "escaped.plist"));
  // Feldane ran with the key list as one argument, never with a restore of bad bytes.
  EXPECT_EQ(a.feldaneRan(), (std::vector<std::string>{"-lock", keys}));
  EXPECT_TRUE(a.agent.logContains("Unable to decompress backup"));
  EXPECT_TRUE(a.connect()->root()->invoke("lintrowPaths", {}).isNull());
}

} // namespace
} // namespace kestrin
