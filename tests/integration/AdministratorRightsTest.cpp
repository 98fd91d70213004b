// The agent as an ordinary console user runs it: not root, so every task with rights goes
// through the setuid helper with the administrator's credentials the admin sends encrypted.
// Needs root to create the throwaway accounts and to install the helper setuid.

#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "auth/PamService.h"
#include "fixtures/AgentProcess.h"
#include "fixtures/RecordingObject.h"
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
using testing::RecordingObject;

constexpr const char* kPamService = "/etc/pam.d/kestrin-auth";

void chownTree(const fs::path& top, const testing::Identity& owner) {
  ASSERT_EQ(::chown(top.c_str(), owner.uid, owner.gid), 0);
  for (const auto& entry : fs::recursive_directory_iterator(top)) {
    ASSERT_EQ(::lchown(entry.path().c_str(), owner.uid, owner.gid), 0);
  }
}

// A maker's tool whose one task reports who ran it.
void makeTool(const fs::path& applications, const fs::path& marker) {
  fs::path bundle = applications / "Quorvane/Tibbet.app";
  fs::create_directories(bundle / "Contents/MacOS");
  fs::create_directories(bundle / "Contents/Resources");
  ASSERT_TRUE(
      plist::writeFile(bundle / "Contents/Info.plist",
                       Value(plist::Dictionary{{"CFBundleIdentifier", "com.quorvane.Tibbet"},
                                               {"CFBundleName", "Tibbet"}}))
          .ok());
  ASSERT_TRUE(
      plist::writeFile(bundle / "Contents/QVUpdates.plist", Value(plist::Dictionary{})).ok());
  plist::Array tasks{plist::Dictionary{{"id", "whoami"}, {"command", plist::Array{"--whoami"}}}};
  ASSERT_TRUE(plist::writeFile(bundle / "Contents/Resources/QVTasks.plist",
                               Value(plist::Dictionary{{"QVTasks", tasks}}))
                  .ok());
  fs::path exe = bundle / "Contents/MacOS/Tibbet";
  std::ofstream(exe) << "#!/bin/sh\nid -u > '" << marker.string()
                     << "'\necho \"ran as $(id -u)\"\n";
  fs::permissions(exe, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec |
                           fs::perms::group_read | fs::perms::others_read);
}

class AdministratorRights : public testing::ThrowawayAccounts {
protected:
  static void SetUpTestSuite() {
    ThrowawayAccounts::SetUpTestSuite();
    // The service that -setup installs; put in place only for this run when missing.
    if (::geteuid() == 0 && !fs::exists(kPamService)) {
      testing::writeText(kPamService, std::string(auth::kPamServiceText));
      installedPamService_ = true;
    }
  }
  static void TearDownTestSuite() {
    if (installedPamService_) {
      fs::remove(kPamService);
      installedPamService_ = false;
    }
    ThrowawayAccounts::TearDownTestSuite();
  }

  void SetUp() override {
    ThrowawayAccounts::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    // The user cannot reach the build tree: the agent's bundle is copied where it can.
    ASSERT_EQ(::chmod(bundleCopy.path().c_str(), 0755), 0);
    fs::path built = fs::path(KESTRIN_AGENT_PATH).parent_path().parent_path().parent_path();
    fs::copy(built, bundleCopy.path() / "Kestrin.app", fs::copy_options::recursive);

    fs::path home = administrator_->home();
    root = home / "machine";
    fs::create_directories(root / "Applications");
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    makeTool(root / "Applications", marker());
    chownTree(home, administrator_->identity());

    testing::Identity who = administrator_->identity();
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
    int port = waitForPort();
    ASSERT_NE(port, 0) << readText(output.path() / "agent.out");
    auto connected = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    ASSERT_TRUE(connected.ok()) << connected.message();
    client = std::move(*connected);
    client->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});
  }
  void TearDown() override {
    client.reset();
    agent.reset(); // kills the agent before its user goes
  }

  int waitForPort() {
    int port = 0;
    eventually([&] {
      std::string text = readText(output.path() / "agent.out");
      auto at = text.rfind("Listening on port ");
      if (at != std::string::npos) {
        port = std::atoi(text.c_str() + at + 18);
      }
      return port != 0;
    });
    return port;
  }
  Value call(const std::string& selector, std::vector<Value> arguments) {
    return client->root()->invoke(selector, std::move(arguments));
  }
  fs::path marker() const { return administrator_->home() + "/marker"; }
  Value password(const std::string& text) const {
    return Value(QVEncryption::encryptPassword(text));
  }
  bool callbackGotCode(std::int64_t code) const {
    for (const auto& entry : callback->calls()) {
      const plist::ErrorRecord* error =
          entry.arguments.empty() ? nullptr : entry.arguments[0].asError();
      if (error && error->code == code) {
        return true;
      }
    }
    return false;
  }
  std::string relayedOutput(const Value& encryptedPassword) {
    auto relay = std::make_shared<RecordingObject>(std::set<std::string>{"postCallback:"});
    call("authExecuteTask:bundleID:options:username:password:callback:callbackName:",
         {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value(administrator_->name()),
          encryptedPassword, Value(plist::ObjectRef(relay)), Value("QVTaskOutput")});
    auto calls = relay->calls();
    const Value* out = calls.size() == 1 ? calls[0].arguments.at(0).get("output") : nullptr;
    return out && out->asString() ? *out->asString() : "(no output)";
  }

  testing::TempDir bundleCopy;
  testing::TempDir output;
  fs::path root;
  std::unique_ptr<AgentProcess> agent;
  std::unique_ptr<transport::RpcClient> client;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());

  static bool installedPamService_;
};

bool AdministratorRights::installedPamService_ = false;

TEST_F(AdministratorRights, TheRightPasswordRunsTheTaskAsRootAndAWrongOneGives1006) {
  EXPECT_EQ(call("validateUsername:password:",
                 {Value(administrator_->name()), password("not " + administrator_->password())}),
            Value(false));
  // Trailing spaces and line ends are not part of the password.
  EXPECT_EQ(call("validateUsername:password:",
                 {Value(administrator_->name()), password(administrator_->password() + " \n")}),
            Value(true));

  call("authExecuteTask:bundleID:options:username:password:",
       {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value(administrator_->name()),
        password("wrong")});
  EXPECT_TRUE(callbackGotCode(1006));
  EXPECT_FALSE(fs::exists(marker()));

  call("authExecuteTask:bundleID:options:username:password:",
       {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value(administrator_->name()),
        password(administrator_->password())});
  ASSERT_TRUE(eventually([&] { return readText(marker()) == "0\n"; }))
      << readText(output.path() / "agent.out");
}

TEST_F(AdministratorRights, TheCallbackFormRelaysTheOutputOfARunWithRights) {
  EXPECT_EQ(relayedOutput(password(administrator_->password())), "ran as 0\n");
  EXPECT_EQ(relayedOutput(password("wrong")),
            "Error: Unable to authorize. Username and password may be incorrect.");
  EXPECT_TRUE(callback->calls().empty());
}

} // namespace
} // namespace kestrin
