// Replacing a plug-in in a folder only root may write, with the agent running as an ordinary
// console user: the update climbs its ladder (archive in Documents, trash and move with the
// administrator's rights through the setuid helper). Needs root for the throwaway accounts.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "fixtures/AgentProcess.h"
#include "fixtures/StoredZip.h"
#include "fixtures/TempDir.h"
#include "foundation/QVEncryption.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::AgentProcess;
using testing::eventually;
using testing::readText;
using testing::writeText;

void chownTree(const fs::path& top, uid_t uid, gid_t gid) {
  ASSERT_EQ(::lchown(top.c_str(), uid, gid), 0);
  for (const auto& entry : fs::recursive_directory_iterator(top)) {
    ASSERT_EQ(::lchown(entry.path().c_str(), uid, gid), 0);
  }
}

plist::Data glowArchive(const std::string& version) {
  return testing::storedZip({{"Glow.fxplug/", ""},
                             {"Glow.fxplug/Contents/", ""},
                             {"Glow.fxplug/Contents/MacOS/", ""},
                             {"Glow.fxplug/Contents/MacOS/Glow", "Glow " + version}});
}

class PluginRights : public testing::ThrowawayAccounts {
protected:
  void SetUp() override {
    ThrowawayAccounts::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    ASSERT_EQ(::chmod(bundleCopy.path().c_str(), 0755), 0);
    fs::path built = fs::path(KESTRIN_AGENT_PATH).parent_path().parent_path().parent_path();
    fs::copy(built, bundleCopy.path() / "Kestrin.app", fs::copy_options::recursive);

    fs::path home = administrator_->home();
    fs::path root = home / "machine";
    plugin = root / "Library/Plug-Ins/FxPlug/Glow.fxplug";
    writeText(plugin / "Contents/MacOS/Glow", "Glow 1.0");
    fs::create_directories(home / "Documents");
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    testing::Identity who = administrator_->identity();
    chownTree(home, who.uid, who.gid);
    // The computer-wide plug-in folder is root's, as the package installs it.
    chownTree(root / "Library/Plug-Ins", 0, 0);
    for (const auto& entry : fs::recursive_directory_iterator(root / "Library/Plug-Ins")) {
      ::chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644);
    }

    agent = std::make_unique<AgentProcess>(
        "/usr/bin/setpriv",
        std::vector<std::string>{
            "--reuid=" + std::to_string(who.uid), "--regid=" + std::to_string(who.gid),
            "--init-groups", "--",
            (bundleCopy.path() / "Kestrin.app/Contents/MacOS/Kestrin").string()},
        std::map<std::string, std::string>{{"HOME", home.string()},
                                           {"KESTRIN_ROOT", root.string()},
                                           {"XDG_RUNTIME_DIR", (home / "run").string()},
                                           {"KESTRIN_TOOL_KESTRIN_AUTH", helper_->path().string()},
                                           {"PATH", "/usr/bin:/bin"}},
        output.path() / "agent.out");
    int port = 0;
    eventually([&] {
      std::string text = readText(output.path() / "agent.out");
      auto at = text.rfind("Listening on port ");
      if (at != std::string::npos) {
        port = std::atoi(text.c_str() + at + 18);
      }
      return port != 0;
    });
    ASSERT_NE(port, 0) << readText(output.path() / "agent.out");
    auto connected = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    ASSERT_TRUE(connected.ok()) << connected.message();
    client = std::move(*connected);
  }
  void TearDown() override {
    client.reset();
    agent.reset();
  }

  void update(const Value& credentials, const std::string& version) {
    client->root()->invoke(
        "vantryUpdatePlugin:settings:",
        {credentials, plist::Dictionary{{"obj1", plist::Dictionary{{"fullPath", plugin.string()}}},
                                        {"obj2", glowArchive(version)}}});
  }
  std::string agentLog() const {
    return readText(fs::path(administrator_->home()) / "Library/Logs/Quorvane/Kestrin.1.log");
  }

  testing::TempDir bundleCopy;
  testing::TempDir output;
  fs::path plugin;
  std::unique_ptr<AgentProcess> agent;
  std::unique_ptr<transport::RpcClient> client;
};

TEST_F(PluginRights, AnUpdateWithRightsReplacesAPluginInARootOnlyFolder) {
  // Without rights the ladder stops before anything is trashed.
  update(Value(), "1.5");
  EXPECT_EQ(readText(plugin / "Contents/MacOS/Glow"), "Glow 1.0");
  EXPECT_NE(agentLog().find("Unable to trash old file " + plugin.string() + "."), std::string::npos)
      << agentLog();

  plist::Dictionary credentials{
      {"authUser", administrator_->name()},
      {"authPass", QVEncryption::encryptPassword(administrator_->password())}};
  update(credentials, "2.0");
  EXPECT_EQ(readText(plugin / "Contents/MacOS/Glow"), "Glow 2.0") << agentLog();
  std::string log = agentLog();
  EXPECT_NE(log.find("Unable to write plugin data to disk. Authorizing..."), std::string::npos);
  EXPECT_NE(log.find("Unable to trash old file " + plugin.string() + ". Authorizing..."),
            std::string::npos);
  EXPECT_NE(log.find("Decompressing to " + administrator_->home() + "/Documents/Glow.fxplug..."),
            std::string::npos);
  EXPECT_EQ(log.find("Unable to auth move plugin"), std::string::npos);
  // The old one went to the trash; nothing is left in Documents.
  fs::path home = administrator_->home();
  EXPECT_EQ(readText(home / ".Trash/Glow.fxplug/Contents/MacOS/Glow"), "Glow 1.0");
  EXPECT_FALSE(fs::exists(home / "Documents/Glow.fxplug"));
  EXPECT_FALSE(fs::exists(home / "Documents/Glow.fxplug.zip"));
}

} // namespace
} // namespace kestrin
