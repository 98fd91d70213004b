// The agent as an ordinary console user runs it: not root, so every task with rights goes
// through the setuid helper with the administrator's credentials the admin sends encrypted;
// and as root, where the helper still checks every caller's credentials. Needs root to create
// the throwaway accounts and to install the helper setuid.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
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

// Where in the memory of process `pid` the text lies ("" when nowhere), read through
// /proc/<pid>/mem as only root may for a process that is not dumpable.
std::string memoryHolding(pid_t pid, const std::string& text) {
  std::string procOf = "/proc/" + std::to_string(pid);
  std::ifstream maps(procOf + "/maps");
  int memory = ::open((procOf + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  if (memory < 0) {
    return "(unreadable)";
  }
  std::size_t scanned = 0;
  std::string found;
  for (std::string line; found.empty() && std::getline(maps, line);) {
    unsigned long begin = 0, end = 0;
    char permissions[5] = {};
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, permissions) != 3 ||
        permissions[0] != 'r' || line.find("[vvar]") != std::string::npos) {
      continue;
    }
    // A sanitizer's shadow is terabytes of reserved, untouched pages: nothing of the
    // agent's own lies there.
    if (end - begin > (1ul << 32)) {
      continue;
    }
    constexpr std::size_t kChunk = 16u << 20;
    std::string bytes;
    for (unsigned long at = begin; found.empty() && at < end;) {
      // Each chunk keeps the tail of the one before, so a text across the seam is found.
      std::size_t keep = std::min(bytes.size(), text.size());
      bytes.erase(0, bytes.size() - keep);
      std::size_t want = std::min<std::size_t>(kChunk, end - at);
      bytes.resize(keep + want);
      ssize_t got = ::pread(memory, bytes.data() + keep, want, static_cast<off_t>(at));
      if (got <= 0) {
        break;
      }
      bytes.resize(keep + static_cast<std::size_t>(got));
      scanned += static_cast<std::size_t>(got);
      if (auto hit = bytes.find(text); hit != std::string::npos) {
        found = line + " + " + std::to_string(at - begin + hit - keep);
      }
      at += static_cast<unsigned long>(got);
    }
  }
  ::close(memory);
  return scanned < (1u << 20) && found.empty() ? "(too little read)" : found;
}

class AdministratorRights : public testing::ThrowawayAccounts {
protected:
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
    fs::remove(marker()); // the accounts, and so their homes, serve the whole suite
    root = home / "machine";
    fs::create_directories(root / "Applications");
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    makeTool(root / "Applications", marker());
    chownTree(home, administrator_->identity());

    testing::Identity who = administrator_->identity();
    std::string program = (bundleCopy.path() / "Kestrin.app/Contents/MacOS/Kestrin").string();
    std::vector<std::string> asUser = {"--reuid=" + std::to_string(who.uid),
                                       "--regid=" + std::to_string(who.gid), "--init-groups", "--",
                                       program};
    agent = std::make_unique<AgentProcess>(
        agentRunsAsRoot() ? program : "/usr/bin/setpriv",
        agentRunsAsRoot() ? std::vector<std::string>{} : asUser,
        std::map<std::string, std::string>{{"HOME", home.string()},
                                           {"KESTRIN_ROOT", root.string()},
                                           {"XDG_RUNTIME_DIR", (home / "run").string()},
                                           {"KESTRIN_TOOL_KESTRIN_AUTH", helper_->path().string()},
                                           {"PATH", "/usr/bin:/bin"}},
        output.path() / "agent.out");
    port = waitForPort();
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
  virtual bool agentRunsAsRoot() const { return false; }
  std::string logText() const {
    return readText((agentRunsAsRoot() ? root : fs::path(administrator_->home())) /
                    "Library/Logs/Quorvane/Kestrin.1.log");
  }
  std::size_t countInLog(const std::string& line) const {
    std::string text = logText();
    std::size_t count = 0;
    for (auto at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
      ++count;
    }
    return count;
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
  int port = 0;
  std::unique_ptr<AgentProcess> agent;
  std::unique_ptr<transport::RpcClient> client;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
};

TEST_F(AdministratorRights, TheRightPasswordRunsTheTaskAsRootAndAWrongOneGives1006) {
  // Trailing spaces and line ends are not part of the password.
  EXPECT_EQ(call("validateUsername:password:",
                 {Value(administrator_->name()), password(administrator_->password() + " \n")}),
            Value(true));
  call("authExecuteTask:bundleID:options:username:password:",
       {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value(administrator_->name()),
        password(administrator_->password())});
  ASSERT_TRUE(eventually([&] { return readText(marker()) == "0\n"; }))
      << readText(output.path() / "agent.out");
  fs::remove(marker());

  // Wrong ones last: once an address has failed, its next check waits.
  EXPECT_EQ(call("validateUsername:password:",
                 {Value(administrator_->name()), password("not " + administrator_->password())}),
            Value(false));
  call("authExecuteTask:bundleID:options:username:password:",
       {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value(administrator_->name()),
        password("wrong")});
  EXPECT_TRUE(callbackGotCode(1006));
  EXPECT_FALSE(fs::exists(marker()));
}

TEST_F(AdministratorRights, TheCallbackFormRelaysTheOutputOfARunWithRights) {
  EXPECT_EQ(relayedOutput(password(administrator_->password())), "ran as 0\n");
  EXPECT_EQ(relayedOutput(password("wrong")),
            "Error: Unable to authorize. Username and password may be incorrect.");
  EXPECT_TRUE(callback->calls().empty());
}

TEST_F(AdministratorRights, AToolFrontEndGivenCredentialsRunsItsToolThroughTheHelper) {
  auto credentials = [&](const std::string& text) {
    return Value(
        plist::Dictionary{{"authUser", administrator_->name()}, {"authPass", password(text)}});
  };
  Value settings(plist::Dictionary{{"obj2", true}});
  fs::remove(marker()); // the account, and its home, serve the whole suite
  call("tibbetEnableTask:settings:", {credentials(administrator_->password()), settings});
  ASSERT_TRUE(eventually([&] { return readText(marker()) == "0\n"; }))
      << readText(output.path() / "agent.out");
  fs::remove(marker());
  // The wrong one last: once an address has failed, its next check waits.
  call("tibbetEnableTask:settings:", {credentials("wrong"), settings});
  EXPECT_TRUE(callbackGotCode(1006));
  EXPECT_FALSE(fs::exists(marker()));
}

TEST_F(AdministratorRights, AnUpdateIsInstalledAsRootWithTheUpdatersSwitchesAndNeedsCredentials) {
  fs::path bundle = root / "Applications/Quorvane/Quorvane Software Update.app";
  fs::create_directories(bundle / "Contents/MacOS");
  ASSERT_TRUE(plist::writeFile(
                  bundle / "Contents/Info.plist",
                  Value(plist::Dictionary{{"CFBundleIdentifier", "com.quorvane.SoftwareUpdate"},
                                          {"CFBundleVersion", "1300"}}))
                  .ok());
  fs::path exe = bundle / "Contents/MacOS/Quorvane Software Update";
  std::ofstream(exe) << "#!/bin/sh\necho \"$(id -u) $*\" > '" << marker().string() << "'\n";
  fs::permissions(exe, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec |
                           fs::perms::group_read | fs::perms::others_read);
  Value settings(plist::Dictionary{{"obj1", "full"}, {"obj2", "com.quorvane.Tool"}});
  fs::remove(marker()); // the account, and its home, serve the whole suite
  call("installQuorvaneSoftwareUpdate:settings:",
       {Value(plist::Dictionary{{"authUser", administrator_->name()},
                                {"authPass", password(administrator_->password())}}),
        settings});
  ASSERT_TRUE(eventually([&] {
    return readText(marker()) == "0 -install full com.quorvane.Tool\n";
  })) << readText(output.path() / "agent.out");
  fs::remove(marker());
  call("installQuorvaneSoftwareUpdate:settings:", {Value(), settings});
  EXPECT_TRUE(callbackGotCode(1006));
  EXPECT_FALSE(fs::exists(marker()));
}

// Guessing: fifty wrong passwords at once from one address. Without a throttle all fifty reach
// PAM within its delay of about two seconds (some 16 tries a second); with it, only the few
// allowed at once from one address are checked and the rest are refused without a check.
TEST_F(AdministratorRights, ParallelGuessesReachThePasswordCheckOnlyAFewAtATime) {
  constexpr int kGuesses = 50;
  std::vector<std::future<Value>> guesses;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kGuesses; ++i) {
    guesses.push_back(std::async(std::launch::async, [&, i] {
      auto own = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
      if (!own.ok()) {
        return Value("not connected");
      }
      return (*own)->root()->invoke(
          "validateUsername:password:",
          {Value(administrator_->name()), password("guess " + std::to_string(i))});
    }));
  }
  for (auto& guess : guesses) {
    EXPECT_EQ(guess.get(), Value(false));
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string checked = "Authorization failed. Invalid username or password";
  eventually([&] { return countInLog(checked) > 0; });
  std::size_t checks = countInLog(checked);
  std::cout << "[ measured ] " << checks << " of " << kGuesses << " guesses reached the password "
            << "check in " << seconds << " s: " << checks / seconds << " tries a second\n";
  EXPECT_LE(checks, 2u);
  EXPECT_TRUE(eventually([&] {
    return countInLog("Credential check for user " + administrator_->name() +
                      " from 127.0.0.1 refused: ") >= kGuesses - checks;
  }));
}

// What the agent holds is not its console user's to read: not its memory (where passwords
// passed through), not its environment, and no password is left in it after use.
TEST_F(AdministratorRights, AnAuthenticatedTaskLeavesNothingForTheAgentsOwnUserToRead) {
  // The admin side takes the password on standard input, never on its command line.
  testing::TempDir console;
  auto ran = testing::runProgram(
      {"/usr/bin/env", "XDG_CONFIG_HOME=" + console.path().string(), KESTRIN_AMBRANT_PATH, "call",
       "127.0.0.1:" + std::to_string(port), "authExecuteTask:bundleID:options:username:password:",
       "\"whoami\"", "\"com.quorvane.Tibbet\"", "null", "{\"$user\":null}", "{\"$password\":null}",
       "--user", administrator_->name(), "--password-stdin"},
      administrator_->password() + "\n");
  EXPECT_EQ(ran.status, 0) << ran.output;
  ASSERT_TRUE(eventually([&] { return readText(marker()) == "0\n"; }));

  std::string procOf = "/proc/" + std::to_string(agent->pid());
  auto asTheUser = testing::runProgram(
      {"/bin/sh", "-c",
       "for f in mem environ; do (exec 3< " + procOf + "/$f) 2>/dev/null && echo $f; done"},
      "", administrator_->identity());
  EXPECT_EQ(asTheUser.output, "") << "the agent's own user could open these";

  // As root, which may: the password appears nowhere in the agent's memory.
  std::string where = memoryHolding(agent->pid(), administrator_->password());
  EXPECT_EQ(where, "") << "the password is in the agent's memory at " << where;
}

// An agent that runs as root (as root's own service manager would start it, were the unit not
// kept from doing so) gives a caller root's rights only for an administrator's password.
class RootAgent : public AdministratorRights {
protected:
  bool agentRunsAsRoot() const override { return true; }
};

TEST_F(RootAgent, RunsWorkWithRightsOnlyForAnAdministratorsPassword) {
  std::string writeMarker = "id -u > '" + marker().string() + "'";
  auto launch = [&](const std::string& user, const std::string& text) {
    return call("launchAuthTask:arguments:authInfo:",
                {Value("/bin/sh"), Value(plist::Array{"-c", writeMarker}),
                 Value(plist::Dictionary{{"authUser", user}, {"authPass", password(text)}})});
  };
  const Value refused = plist::ErrorRecord{"ambrantDomain", 1006, {}};
  EXPECT_TRUE(launch(administrator_->name(), administrator_->password()).isNull());
  ASSERT_TRUE(eventually([&] { return readText(marker()) == "0\n"; }));
  fs::remove(marker());

  // Both checked by the helper (two at once from one address): an ordinary user's own right
  // password is no administrator's, and a wrong one is wrong even to an agent that is root.
  auto ordinary = std::async(std::launch::async,
                             [&] { return launch(ordinary_->name(), ordinary_->password()); });
  auto wrong = std::async(std::launch::async, [&] {
    return launch(administrator_->name(), administrator_->password() + "x");
  });
  EXPECT_EQ(ordinary.get(), refused);
  EXPECT_EQ(wrong.get(), refused);
  EXPECT_TRUE(eventually(
      [&] { return countInLog("Authorization failed. Invalid username or password") == 2; }));
  call("authExecuteTask:bundleID:options:username:password:",
       {Value("whoami"), Value("com.quorvane.Tibbet"), Value(), Value("root"),
        password("anything")});
  EXPECT_TRUE(callbackGotCode(1006));
  EXPECT_FALSE(fs::exists(marker()));
}

} // namespace
} // namespace kestrin
