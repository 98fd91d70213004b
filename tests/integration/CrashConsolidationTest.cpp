// Consolidation of crash reports with an administrator's rights: the agent runs as an ordinary
// console user, Tovell's LogConsolidator runs as root through the setuid helper, and its
// notification on the session bus ends the consolidation. Needs root for the throwaway
// accounts and the setuid helper.

#include <csignal>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "fixtures/AgentProcess.h"
#include "fixtures/MakerTools.h"
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
using ::testing::ElementsAre;
using testing::eventually;
using testing::readText;
using testing::RecordingObject;
using testing::writeText;

constexpr int kStaged = 12;

// A session bus that every user may join: the agent runs as the administrator, the helper as
// root, and a bus admits only its own user unless told otherwise.
class SharedSessionBus {
public:
  SharedSessionBus() {
    ::chmod(dir_.path().c_str(), 0755);
    writeText(dir_ / "bus.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig><type>session</type><listen>unix:path=" +
                  (dir_ / "bus").string() +
                  "</listen><auth>EXTERNAL</auth>"
                  "<policy context=\"default\"><allow user=\"*\"/><allow send_destination=\"*\"/>"
                  "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
    std::string command = "dbus-daemon --config-file='" + (dir_ / "bus.conf").string() +
                          "' --fork --print-address=1 --print-pid=1";
    FILE* out = ::popen(command.c_str(), "r");
    char line[512];
    if (out != nullptr && std::fgets(line, sizeof line, out) != nullptr) {
      address_ = std::string(line).substr(0, std::strlen(line) - 1);
      if (std::fgets(line, sizeof line, out) != nullptr) {
        pid_ = std::atoi(line);
      }
    }
    if (out != nullptr) {
      ::pclose(out);
    }
  }
  ~SharedSessionBus() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
    }
  }
  const std::string& address() const { return address_; }

private:
  testing::TempDir dir_;
  std::string address_;
  pid_t pid_ = -1;
};

class CrashConsolidation : public testing::ThrowawayAccounts {
protected:
  void SetUp() override {
    ThrowawayAccounts::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    ASSERT_FALSE(bus.address().empty());
    fs::path home = administrator_->home();
    fs::path root = home / "machine";
    // The reports the helper gathers from the machine, and one the user's folder already had.
    for (int i = 0; i < kStaged; ++i) {
      writeText(root / fmt::format("staged/Motion_{:02}.crash", i), fmt::format("cause {}\n", i));
    }
    writeText(crashFolder() / "Motion_old.crash", "already here\n");
    // Readable by root alone: the agent, as its user, cannot read it.
    writeText(crashFolder() / "Motion_secret.crash", "root only\n");

    plist::Data empty = *plist::toBinary(Value(plist::Dictionary{}));
    std::string bytes;
    for (std::uint8_t b : empty) {
      bytes += (bytes.empty() ? "" : ",") + std::to_string(b);
    }
    fs::path applications = root / "Applications/Quorvane";
    testing::makeMakerTool(applications, "Tovell", "com.quorvane.Tovell", plist::Array{}, 0,
                           "[ \"$1\" = -cause ] && head -n 1 -- \"$2\"");
    fs::path helper = applications / "Tovell.app/Contents/Helpers/LogConsolidator";
    writeText(helper, "#!/bin/sh\nid -u > '" + marker().string() + "'\ncp '" +
                          (root / "staged").string() + "'/*.crash '" + crashFolder().string() +
                          "'/\nDBUS_SESSION_BUS_ADDRESS='" + bus.address() +
                          "' dbus-send --session --type=signal /com/quorvane/Tovell "
                          "com.quorvane.Kestrin.Notifications.Notification "
                          "string:QVTovellConsolidateFinished array:byte:" +
                          bytes + "\n");
    fs::permissions(helper, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);

    // The user cannot reach the build tree: the agent's bundle is copied where it can.
    ASSERT_EQ(::chmod(bundleCopy.path().c_str(), 0755), 0);
    fs::path built = fs::path(KESTRIN_AGENT_PATH).parent_path().parent_path().parent_path();
    fs::copy(built, bundleCopy.path() / "Kestrin.app", fs::copy_options::recursive);
    testing::Identity who = administrator_->identity();
    ASSERT_EQ(::chown(home.c_str(), who.uid, who.gid), 0);
    for (const auto& entry : fs::recursive_directory_iterator(home)) {
      ASSERT_EQ(::lchown(entry.path().c_str(), who.uid, who.gid), 0);
    }
    ASSERT_EQ(::chown((crashFolder() / "Motion_secret.crash").c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod((crashFolder() / "Motion_secret.crash").c_str(), 0600), 0);

    agent = std::make_unique<AgentProcess>(
        "/usr/bin/setpriv",
        std::vector<std::string>{
            "--reuid=" + std::to_string(who.uid), "--regid=" + std::to_string(who.gid),
            "--init-groups", "--",
            (bundleCopy.path() / "Kestrin.app/Contents/MacOS/Kestrin").string()},
        std::map<std::string, std::string>{{"HOME", home.string()},
                                           {"KESTRIN_ROOT", root.string()},
                                           {"XDG_RUNTIME_DIR", (home / "run").string()},
                                           {"DBUS_SESSION_BUS_ADDRESS", bus.address()},
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
    client->root()->invoke("setErrorCallback:", {Value(plist::ObjectRef(callback))});
  }
  void TearDown() override {
    client.reset();
    agent.reset(); // before its user goes
  }

  fs::path crashFolder() const {
    return fs::path(administrator_->home()) / "Library/Logs/CrashReporter";
  }
  fs::path marker() const { return fs::path(administrator_->home()) / "marker"; }
  Value credentials(const std::string& password) const {
    return plist::Dictionary{{"authUser", administrator_->name()},
                             {"authPass", QVEncryption::encryptPassword(password)}};
  }
  std::vector<RecordingObject::Call> calls(const std::string& selector) const {
    std::vector<RecordingObject::Call> matching;
    for (const auto& call : callback->calls()) {
      if (call.selector == selector) {
        matching.push_back(call);
      }
    }
    return matching;
  }

  SharedSessionBus bus;
  testing::TempDir bundleCopy;
  testing::TempDir output;
  std::unique_ptr<AgentProcess> agent;
  std::unique_ptr<transport::RpcClient> client;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
};

TEST_F(CrashConsolidation, TheHelperRunsAsRootAndTheNewReportsArriveInBatchesOfFive) {
  client->root()->invoke("consolidateCrashLogs:", {credentials(administrator_->password())});
  ASSERT_TRUE(eventually([&] { return calls("tovellAddLogs:hostName:").size() == 3; }, 60s))
      << readText(output.path() / "agent.out");
  EXPECT_EQ(readText(marker()), "0\n");
  std::vector<std::size_t> sizes;
  std::set<std::string> delivered;
  for (const auto& call : calls("tovellAddLogs:hostName:")) {
    sizes.push_back(call.arguments.at(0).asArray()->size());
    for (const Value& record : *call.arguments.at(0).asArray()) {
      delivered.insert(*record.get("filename")->asString());
      std::string name = fs::path(*record.get("filename")->asString()).filename().string();
      EXPECT_EQ(*record.get("cause"),
                Value("cause " + std::to_string(std::stoi(name.substr(7))) + "\n"));
    }
  }
  EXPECT_THAT(sizes, ElementsAre(5, 5, 2));
  EXPECT_EQ(delivered.size(), std::size_t{kStaged});
  EXPECT_EQ(delivered.count((crashFolder() / "Motion_old.crash").string()), 0u);

  // A report only root may read: the agent, as its user, answers null and goes on serving.
  EXPECT_TRUE(
      client->root()
          ->invoke("fcsCrashLog:", {Value((crashFolder() / "Motion_secret.crash").string())})
          .isNull());
  EXPECT_EQ(client->root()->invoke("fcsCrashLog:",
                                   {Value((crashFolder() / "Motion_old.crash").string())}),
            Value("already here\n"));

  // A wrong password last: once an address has failed, its next check waits.
  fs::remove(marker());
  client->root()->invoke("consolidateCrashLogs:", {credentials("not the password")});
  auto refused = calls("addErrorToQueue:userInfo:");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].arguments.at(0).asError()->code, 1006);
  EXPECT_FALSE(fs::exists(marker()));
}

} // namespace
} // namespace kestrin
