#include "app/Installer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "auth/PamService.h"
#include "fixtures/ThrowawayMachine.h"
#include "platform/ToolTable.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using platform::Tool;
using platform::ToolTable;
using testing::readText;
using testing::ThrowawayMachine;

// Set-up trusts only a bundle that root alone may change all the way up, so the machine lives
// in such a folder when the test runs as root.
class InstallerTest : public ::testing::Test {
protected:
  explicit InstallerTest(uid_t uid = 1000, std::optional<std::string> console = std::nullopt)
      : machine(uid, console, testing::rootOnlyTemporaryParent()),
        bundle(machine.makeBundle(machine.root() / "Applications", "Kestrin",
                                  "com.quorvane.Kestrin", "100")),
        tools({{Tool::Chown, machine.makeRecordingTool("chown")},
               {Tool::Chmod, machine.makeRecordingTool("chmod")},
               {Tool::Systemctl, machine.makeRecordingTool("systemctl")},
               {Tool::Umount, machine.makeRecordingTool("umount")},
               {Tool::Id, machine.makeRecordingTool("id", "echo 1000\n")}}) {}

  Installer installer(std::optional<std::string> bundlePath) {
    return Installer({machine.paths(), tools, std::move(bundlePath), privilegedMove,
                      [this](std::chrono::seconds s) { slept.push_back(s.count()); },
                      machine.root().string()});
  }
  Installer installer() { return installer(bundle.string()); }
  // Whether set-up can trust anything here: only root can make files that are root's alone.
  static bool trusted() { return testing::rootOnlyTemporaryParent().has_value(); }
  std::string commands() const { return readText(machine.commandLog()); }
  fs::path unitFolder() const { return machine.root() / "etc/systemd/user"; }

  ThrowawayMachine machine;
  fs::path bundle;
  ToolTable tools;
  std::vector<long> slept;
  std::function<bool(const std::string&, const std::string&)> privilegedMove;
};

#define SKIP_UNLESS_TRUSTED()                                                                      \
  if (!trusted()) {                                                                                \
    GTEST_SKIP() << "needs root and a folder that only root may change";                           \
  }

TEST_F(InstallerTest, SetupWritesTheUnitProtectsItAndEnablesIt) {
  SKIP_UNLESS_TRUSTED();
  fs::create_directories(unitFolder());
  testing::writeText(bundle / "Contents/MacOS/kestrin-auth", "helper");
  installer().setupClient();

  fs::path unit = unitFolder() / "com.quorvane.Kestrin.service";
  std::string exe = (bundle / "Contents/MacOS/Kestrin").string();
  EXPECT_EQ(readText(unit), Installer::unitText(exe, (bundle / "Contents/MacOS").string()));
  std::string text = readText(unit);
  EXPECT_NE(text.find("ExecStart=" + exe + "\n"), std::string::npos);
  EXPECT_NE(text.find("Restart=on-failure\n"), std::string::npos);
  EXPECT_NE(text.find("[Unit]\nDescription=Kestrin maintenance agent\nConditionUser=!root\n"),
            std::string::npos);
  EXPECT_NE(text.find("WantedBy=default.target\n"), std::string::npos);

  EXPECT_EQ(commands(), "chown root:root -- " + unit.string() + "\n" + "chmod 644 -- " +
                            unit.string() + "\n" + "systemctl --root=" + machine.root().string() +
                            " --global enable com.quorvane.Kestrin.service\n");
  EXPECT_TRUE(slept.empty());

  // The helper: a new root-owned setuid copy in a fixed place; the bundle's own stays as it was.
  fs::path helper = machine.root() / "usr/lib/kestrin/kestrin-auth";
  EXPECT_EQ(helper.string(), installer().helperPath());
  EXPECT_EQ(readText(helper), "helper");
  struct stat info {};
  ASSERT_EQ(::stat(helper.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  EXPECT_EQ(info.st_mode & 07777, 04755u);
  ASSERT_EQ(::stat((bundle / "Contents/MacOS/kestrin-auth").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 06000, 0u);
  fs::path pam = machine.root() / "etc/pam.d/kestrin-auth";
  EXPECT_EQ(readText(pam), std::string(auth::kPamServiceText));
  ASSERT_EQ(::stat(pam.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0644u);
}

// Whoever can change the bundle would choose what runs as every user, and as root.
TEST_F(InstallerTest, ABundleThatOthersCouldChangeIsRefusedAndNothingIsInstalled) {
  SKIP_UNLESS_TRUSTED();
  fs::create_directories(unitFolder());
  fs::path helper = bundle / "Contents/MacOS/kestrin-auth";
  testing::writeText(helper, "helper");
  fs::path payload = machine.root() / "payload";
  testing::writeText(payload, "a user's program");
  ASSERT_EQ(::chown(payload.c_str(), 65534, 65534), 0);
  auto refused = [&](const std::string& why) {
    installer().setupClient();
    bool said = machine.logText().find("Error - refusing to set up from " + bundle.string() + ": " +
                                       why + ".") != std::string::npos;
    bool nothing = !fs::exists(unitFolder() / "com.quorvane.Kestrin.service") &&
                   !fs::exists(machine.root() / "usr/lib/kestrin") &&
                   !fs::exists(machine.root() / "etc/pam.d") && commands().empty();
    struct stat info {};
    bool payloadAlone =
        ::stat(payload.c_str(), &info) == 0 && info.st_uid == 65534 && (info.st_mode & 06000) == 0;
    return said && nothing && payloadAlone;
  };

  ::chmod(bundle.c_str(), 0777);
  EXPECT_TRUE(refused(bundle.string() + " may be changed by users other than root"));
  ::chmod(bundle.c_str(), 0755);

  ASSERT_EQ(::chown((machine.root() / "Applications").c_str(), 65534, 65534), 0);
  EXPECT_TRUE(
      refused((machine.root() / "Applications").string() + " belongs to user 65534, not to root"));
  ASSERT_EQ(::chown((machine.root() / "Applications").c_str(), 0, 0), 0);

  fs::remove(helper);
  fs::create_symlink(payload, helper);
  EXPECT_TRUE(refused(helper.string() + " is a symbolic link"));
}

TEST_F(InstallerTest, AnUnwritableUnitFolderFallsBackToAPrivilegedMoveOfADocumentsCopy) {
  SKIP_UNLESS_TRUSTED();
  fs::path copy = machine.home() / "Documents/com.quorvane.Kestrin.service";
  fs::create_directories(copy.parent_path());
  std::vector<std::pair<std::string, std::string>> moves;
  privilegedMove = [&](const std::string& from, const std::string& to) {
    moves.emplace_back(from, to);
    EXPECT_TRUE(fs::exists(from));
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to);
    return true;
  };
  installer().setupClient();

  fs::path unit = unitFolder() / "com.quorvane.Kestrin.service";
  ASSERT_EQ(moves.size(), 1u);
  EXPECT_EQ(moves[0], std::make_pair(copy.string(), unit.string()));
  EXPECT_EQ(slept, std::vector<long>{1});
  EXPECT_FALSE(fs::exists(copy)); // removed after the pause
  EXPECT_TRUE(fs::exists(unit));
  EXPECT_NE(commands().find("chmod 644 -- " + unit.string()), std::string::npos);
}

TEST_F(InstallerTest, AFailedPrivilegedMoveIsLoggedAndTheModesAreStillSet) {
  SKIP_UNLESS_TRUSTED();
  fs::create_directories(machine.home() / "Documents");
  privilegedMove = [](const std::string&, const std::string&) { return false; };
  installer().setupClient();
  EXPECT_NE(machine.logText().find("Error: Unable to create LaunchAgent. Please check you have "
                                   "correct permissions for the directory " +
                                   unitFolder().string()),
            std::string::npos);
  EXPECT_NE(commands().find("chown root:root"), std::string::npos);
  EXPECT_FALSE(fs::exists(machine.home() / "Documents/com.quorvane.Kestrin.service"));
}

TEST_F(InstallerTest, NoWritableFolderAtAllStopsBeforeRunningAnything) {
  SKIP_UNLESS_TRUSTED();
  installer().setupClient(); // neither the unit folder nor Documents exists
  EXPECT_NE(machine.logText().find("Error: Unable to write LaunchAgent data."), std::string::npos);
  EXPECT_EQ(commands(), "");
}

TEST_F(InstallerTest, TheAgentInsideItsPreferencePaneIsFound) {
  fs::path pane = machine.makeBundle(machine.root() / "Library/PreferencePanes", "Kestrin",
                                     "com.quorvane.Kestrin", "100");
  fs::path paneBundle = machine.root() / "Library/PreferencePanes/Kestrin.prefPane";
  fs::rename(pane, paneBundle);
  EXPECT_EQ(installer(std::nullopt).programPath(),
            (paneBundle / "Contents/MacOS/Kestrin").string());
  fs::remove_all(paneBundle);
  EXPECT_EQ(installer(std::nullopt).programPath(), std::nullopt);
}

TEST_F(InstallerTest, OnlyVolumesWhoseNamesBeginWithTheProductAreDetached) {
  for (const char* name : {"Kestrin", "Kestrin 2.1", "Old Kestrin", "kestrin", "Other"}) {
    fs::create_directories(machine.root() / "media" / name);
  }
  installer().cleanupMountedDisks();
  std::string media = (machine.root() / "media").string();
  std::string cmds = commands();
  EXPECT_NE(cmds.find("umount -- " + media + "/Kestrin\n"), std::string::npos);
  EXPECT_NE(cmds.find("umount -- " + media + "/Kestrin 2.1\n"), std::string::npos);
  EXPECT_EQ(std::count(cmds.begin(), cmds.end(), '\n'), 2);
  EXPECT_NE(machine.logText().find("Unmounting disk image Kestrin 2.1..."), std::string::npos);
}

TEST_F(InstallerTest, AnInstalledPackagesUnitIsOnlyEnabled) {
  SKIP_UNLESS_TRUSTED();
  fs::path packaged = machine.root() / "usr/lib/systemd/user/com.quorvane.Kestrin.service";
  testing::writeText(packaged, "packaged");
  testing::writeText(bundle / "Contents/MacOS/kestrin-auth", "helper");
  installer().setupClient();
  // Nothing of set-up's own that would outlive the package's removal.
  EXPECT_FALSE(fs::exists(unitFolder() / "com.quorvane.Kestrin.service"));
  EXPECT_FALSE(fs::exists(machine.root() / "usr/lib/kestrin"));
  EXPECT_FALSE(fs::exists(machine.root() / "etc/pam.d"));
  EXPECT_EQ(readText(packaged), "packaged");
  EXPECT_EQ(commands(), "systemctl --root=" + machine.root().string() +
                            " --global enable com.quorvane.Kestrin.service\n");
}

class InstallerAsRootTest : public InstallerTest {
protected:
  InstallerAsRootTest() : InstallerTest(0, "alice") {}
};

TEST_F(InstallerAsRootTest, RunClientRestartsTheUnitInTheConsoleUsersManager) {
  tools =
      ToolTable({{Tool::Systemctl, "/bin/systemctl"},
                 {Tool::Runuser,
                  machine.makeRecordingTool("runuser", "echo \"$XDG_RUNTIME_DIR\" >> '" +
                                                           machine.commandLog().string() + "'\n")},
                 {Tool::Id, machine.makeRecordingTool("id", "echo 1000\n")}});
  installer().runClient();
  EXPECT_EQ(commands(), "id -u -- alice\n"
                        "runuser -u alice -- /bin/systemctl --user daemon-reload\n/run/user/1000\n"
                        "runuser -u alice -- /bin/systemctl --user stop "
                        "com.quorvane.Kestrin.service\n/run/user/1000\n"
                        "runuser -u alice -- /bin/systemctl --user start "
                        "com.quorvane.Kestrin.service\n/run/user/1000\n");
  EXPECT_EQ(slept, std::vector<long>{3});
}

TEST_F(InstallerAsRootTest, ConsoleUsersRemovableMediaAreCleanedToo) {
  fs::create_directories(machine.root() / "run/media/alice/Kestrin Installer");
  installer().cleanupMountedDisks();
  EXPECT_EQ(commands(),
            "umount -- " + (machine.root() / "run/media/alice/Kestrin Installer").string() + "\n");
}

TEST_F(InstallerTest, RealOwnerAndModeWhenRunAsRoot) {
  SKIP_UNLESS_TRUSTED();
  tools = ToolTable({{Tool::Systemctl, machine.makeRecordingTool("systemctl")}});
  fs::create_directories(unitFolder());
  installer().setupClient();
  struct stat info {};
  ASSERT_EQ(::stat((unitFolder() / "com.quorvane.Kestrin.service").c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  EXPECT_EQ(info.st_mode & 07777, 0644u);
}

} // namespace
} // namespace kestrin
