#include "app/Installer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"
#include "platform/ToolTable.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using platform::Tool;
using platform::ToolTable;
using testing::readText;
using testing::ThrowawayMachine;

class InstallerTest : public ::testing::Test {
protected:
  explicit InstallerTest(uid_t uid = 1000, std::optional<std::string> console = std::nullopt)
      : machine(uid, console), bundle(machine.makeBundle(machine.root() / "Applications", "Kestrin",
                                                         "com.quorvane.Kestrin", "100")),
        tools({{Tool::Chown, machine.makeRecordingTool("chown")},
               {Tool::Chmod, machine.makeRecordingTool("chmod")},
               {Tool::Systemctl, machine.makeRecordingTool("systemctl")},
               {Tool::Umount, machine.makeRecordingTool("umount")},
               {Tool::Id, machine.makeRecordingTool("id", "echo 1000\n")}}) {}

  Installer installer(std::optional<std::string> bundlePath) {
    return Installer({machine.paths(), tools, std::move(bundlePath), privilegedMove,
                      [this](std::chrono::seconds s) { slept.push_back(s.count()); }});
  }
  Installer installer() { return installer(bundle.string()); }
  std::string commands() const { return readText(machine.commandLog()); }
  fs::path unitFolder() const { return machine.root() / "etc/systemd/user"; }

  ThrowawayMachine machine;
  fs::path bundle;
  ToolTable tools;
  std::vector<long> slept;
  std::function<bool(const std::string&, const std::string&)> privilegedMove;
};

TEST_F(InstallerTest, SetupWritesTheUnitProtectsItAndEnablesIt) {
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

  std::string helper = (bundle / "Contents/MacOS/kestrin-auth").string();
  EXPECT_EQ(commands(), "chown root:root " + unit.string() + "\n" + "chmod 644 " + unit.string() +
                            "\n" + "systemctl --root=" + machine.root().string() +
                            " --global enable com.quorvane.Kestrin.service\n" + "chown root:root " +
                            helper + "\n" + "chmod 4755 " + helper + "\n");
  EXPECT_TRUE(slept.empty());
}

TEST_F(InstallerTest, AnUnwritableUnitFolderFallsBackToAPrivilegedMoveOfADocumentsCopy) {
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
  EXPECT_NE(commands().find("chmod 644 " + unit.string()), std::string::npos);
}

TEST_F(InstallerTest, AFailedPrivilegedMoveIsLoggedAndTheModesAreStillSet) {
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
  EXPECT_NE(cmds.find("umount " + media + "/Kestrin\n"), std::string::npos);
  EXPECT_NE(cmds.find("umount " + media + "/Kestrin 2.1\n"), std::string::npos);
  EXPECT_EQ(std::count(cmds.begin(), cmds.end(), '\n'), 2);
  EXPECT_NE(machine.logText().find("Unmounting disk image Kestrin 2.1..."), std::string::npos);
}

class InstallerAsRootTest : public InstallerTest {
protected:
  InstallerAsRootTest() : InstallerTest(0, "alice") {}
};

TEST_F(InstallerAsRootTest, RunClientRestartsTheUnitInTheConsoleUsersManager) {
  installer().runClient();
  EXPECT_EQ(commands(), "systemctl --user --machine=alice@ daemon-reload\n"
                        "systemctl --user --machine=alice@ stop com.quorvane.Kestrin.service\n"
                        "systemctl --user --machine=alice@ start com.quorvane.Kestrin.service\n");
  EXPECT_EQ(slept, std::vector<long>{3});
}

TEST_F(InstallerAsRootTest, ConsoleUsersRemovableMediaAreCleanedToo) {
  fs::create_directories(machine.root() / "run/media/alice/Kestrin Installer");
  installer().cleanupMountedDisks();
  EXPECT_EQ(commands(),
            "umount " + (machine.root() / "run/media/alice/Kestrin Installer").string() + "\n");
}

TEST_F(InstallerTest, RealOwnerAndModeWhenRunAsRoot) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "needs root to give the unit to root";
  }
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
