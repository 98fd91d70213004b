#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/ThrowawayMachine.h"

namespace kestrin {
namespace {

using namespace std::chrono_literals;
using testing::AgentProcess;
using testing::readText;
using testing::ThrowawayMachine;

TEST(SetupMode, InstallsTheUnitAgainstTheLocalRootAndNeverStartsTheAgent) {
  ThrowawayMachine machine;
  std::filesystem::create_directories(machine.root() / "etc/systemd/user");
  std::map<std::string, std::string> env{
      {"HOME", machine.home().string()},
      {"KESTRIN_ROOT", machine.root().string()},
      {"XDG_RUNTIME_DIR", machine.runtimeDirectory().string()},
      {"PATH", "/usr/bin:/bin"},
      {"KESTRIN_TOOL_SYSTEMCTL", machine.makeRecordingTool("systemctl").string()},
      {"KESTRIN_TOOL_UMOUNT", machine.makeRecordingTool("umount").string()},
      {"KESTRIN_TOOL_ID", machine.makeRecordingTool("id", "echo 1234\n").string()}};
  if (::getuid() != 0) { // only root may give files to root
    env["KESTRIN_TOOL_CHOWN"] = machine.makeRecordingTool("chown").string();
    env["KESTRIN_TOOL_CHMOD"] = machine.makeRecordingTool("chmod").string();
  }
  auto output = machine.root() / "setup.out";
  AgentProcess setup(KESTRIN_AGENT_PATH, {"-setup", "-wait"}, env, output);
  auto status = setup.waitForExit(30s);
  ASSERT_TRUE(status.has_value()) << readText(output);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);

  std::string out = readText(output);
  EXPECT_NE(out.find("Setting up client..."), std::string::npos);
  EXPECT_NE(out.find("uid: 1234"), std::string::npos);
  EXPECT_NE(out.find("Running client..."), std::string::npos);
  EXPECT_EQ(out.find("Starting up..."), std::string::npos); // the agent itself never ran

  auto unit = machine.root() / "etc/systemd/user/com.quorvane.Kestrin.service";
  std::string text = readText(unit);
  std::string exe = std::filesystem::canonical(KESTRIN_AGENT_PATH).string();
  EXPECT_NE(text.find("ExecStart=" + exe + "\n"), std::string::npos) << text;
  // The helper's PAM service comes from the bundle.
  EXPECT_NE(readText(machine.root() / "etc/pam.d/kestrin-auth").find("@include common-auth"),
            std::string::npos);
  EXPECT_NE(readText(machine.commandLog())
                .find("systemctl --root=" + machine.root().string() +
                      " --global enable com.quorvane.Kestrin.service"),
            std::string::npos);
  if (::getuid() == 0) {
    struct stat info {};
    ASSERT_EQ(::stat(unit.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
  }
}

} // namespace
} // namespace kestrin
