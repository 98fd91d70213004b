#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "auth/PamService.h"
#include "fixtures/AgentProcess.h"
#include "fixtures/ThrowawayMachine.h"

// "-setup" through the real agent, as root installs it: against a throwaway local root, with
// every program it runs but chown and chmod pointed at recording fakes.

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::AgentProcess;
using testing::readText;
using testing::ThrowawayMachine;

class SetupMode : public ::testing::Test {
protected:
  void SetUp() override {
    if (!testing::rootOnlyTemporaryParent()) {
      GTEST_SKIP() << "needs root and a folder that only root may change";
    }
    fs::create_directories(machine.root() / "etc/systemd/user");
    // The built bundle, copied where root alone may change it, as a package installs it.
    fs::create_directories(machine.root() / "opt");
    fs::copy(fs::path(KESTRIN_AGENT_PATH).parent_path().parent_path().parent_path(),
             machine.root() / "opt/Kestrin.app", fs::copy_options::recursive);
  }

  // Runs "-setup" of the copy; answers what it printed.
  std::string runSetup() {
    std::map<std::string, std::string> env{
        {"HOME", machine.home().string()},
        {"KESTRIN_ROOT", machine.root().string()},
        {"KESTRIN_SYSTEM_ROOT", machine.root().string()},
        {"XDG_RUNTIME_DIR", machine.runtimeDirectory().string()},
        {"PATH", "/usr/bin:/bin"},
        {"KESTRIN_TOOL_SYSTEMCTL", machine.makeRecordingTool("systemctl").string()},
        {"KESTRIN_TOOL_RUNUSER", machine.makeRecordingTool("runuser").string()},
        {"KESTRIN_TOOL_UMOUNT", machine.makeRecordingTool("umount").string()},
        {"KESTRIN_TOOL_ID", machine.makeRecordingTool("id", "echo 1234\n").string()}};
    auto output = machine.root() / "setup.out";
    AgentProcess setup(agent().string(), {"-setup", "-wait"}, env, output);
    auto status = setup.waitForExit(30s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << readText(output);
    return readText(output);
  }
  fs::path bundle() const { return machine.root() / "opt/Kestrin.app"; }
  fs::path agent() const { return bundle() / "Contents/MacOS/Kestrin"; }
  fs::path unit() const { return machine.root() / "etc/systemd/user/com.quorvane.Kestrin.service"; }
  fs::path installedHelper() const { return machine.root() / "usr/lib/kestrin/kestrin-auth"; }

  ThrowawayMachine machine{0, std::nullopt, testing::rootOnlyTemporaryParent()};
};

// Every setuid file below `top`.
std::vector<std::string> setuidFiles(const fs::path& top) {
  std::vector<std::string> found;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(top, ec), end; !ec && it != end; it.increment(ec)) {
    struct stat info {};
    if (::lstat(it->path().c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        (info.st_mode & S_ISUID) != 0) {
      found.push_back(it->path().string());
    }
  }
  return found;
}

TEST_F(SetupMode, InstallsTheUnitAHelperCopyAndThePamServiceAndNeverStartsTheAgent) {
  std::string out = runSetup();
  EXPECT_NE(out.find("Setting up client..."), std::string::npos);
  EXPECT_NE(out.find("uid: 1234"), std::string::npos);
  EXPECT_NE(out.find("Running client..."), std::string::npos);
  EXPECT_EQ(out.find("Starting up..."), std::string::npos); // the agent itself never ran

  std::string text = readText(unit());
  EXPECT_NE(text.find("ExecStart=" + agent().string() + "\n"), std::string::npos) << text;
  EXPECT_NE(readText(machine.commandLog())
                .find("systemctl --root=" + machine.root().string() +
                      " --global enable com.quorvane.Kestrin.service"),
            std::string::npos);
  struct stat info {};
  ASSERT_EQ(::stat(unit().c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  EXPECT_EQ(info.st_mode & 07777, 0644u);

  // A setuid copy where the agent looks for it; the bundle's own helper stays unprivileged.
  ASSERT_EQ(::stat(installedHelper().c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  EXPECT_EQ(info.st_mode & 07777, 04755u);
  EXPECT_EQ(readText(installedHelper()), readText(bundle() / "Contents/MacOS/kestrin-auth"));
  EXPECT_EQ(setuidFiles(bundle()), std::vector<std::string>{});
  fs::path pam = machine.root() / "etc/pam.d/kestrin-auth";
  EXPECT_EQ(readText(pam), std::string(auth::kPamServiceText));
  ASSERT_EQ(::stat(pam.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0644u);

  // Nothing this suite runs as root leaves a setuid program in the build tree.
  EXPECT_EQ(setuidFiles(KESTRIN_BUILD_DIR), std::vector<std::string>{});
}

// A bundle an ordinary user can write, whose helper that user has made a link to a program of
// their own: set-up must give them neither a setuid root program nor a PAM stack of their choice.
TEST_F(SetupMode, RefusesABundleAUserCouldChangeAndInstallsNothing) {
  fs::path helper = bundle() / "Contents/MacOS/kestrin-auth";
  fs::path payload = machine.root() / "opt/payload";
  fs::copy_file(helper, payload);
  fs::remove(helper);
  fs::create_symlink(payload, helper);
  for (const fs::path& path : {payload, bundle()}) {
    ASSERT_EQ(::lchown(path.c_str(), 65534, 65534), 0);
  }
  ASSERT_EQ(::lchown(helper.c_str(), 65534, 65534), 0);

  std::string out = runSetup();
  EXPECT_NE(out.find("Error - refusing to set up from " + bundle().string() + ": " +
                     bundle().string() + " belongs to user 65534, not to root."),
            std::string::npos)
      << out;
  EXPECT_FALSE(fs::exists(unit()));
  EXPECT_FALSE(fs::exists(fs::symlink_status(installedHelper())));
  EXPECT_FALSE(fs::exists(machine.root() / "etc/pam.d"));
  struct stat info {};
  ASSERT_EQ(::stat(payload.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 65534u);
  EXPECT_EQ(setuidFiles(machine.root()), std::vector<std::string>{});
}

} // namespace
} // namespace kestrin
