// QVFileManager where only root can show it: the file system's immutable flag, and the
// escalation ladder of an agent that runs as an ordinary user in a folder only root can write.

#include "foundation/QVFileManager.h"

#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "fixtures/TempDir.h"
#include "fixtures/ThrowawayMachine.h"
#include "platform/Clock.h"
#include "platform/ToolTable.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::writeText;

TEST(QVFileManagerLocking, LockedFilesResistChangesUntilTheFileManagerUnlocksThem) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "the immutable flag needs root";
  }
  testing::ThrowawayMachine machine;
  fs::path work = machine.root() / "work";
  writeText(work / "clip.mov", "x");
  writeText(work / "project/sub/edit.fcp", "x");
  fs::create_symlink(work / "clip.mov", work / "project/link");
  if (!QVFileManager::lockFile((work / "clip.mov").string())) {
    GTEST_SKIP() << "this file system keeps no immutable flag";
  }
  EXPECT_TRUE(QVFileManager::isFileLocked((work / "clip.mov").string()));
  EXPECT_NE(::unlink((work / "clip.mov").c_str()), 0);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(QVFileManager::removeFile((work / "clip.mov").string(), false));
  EXPECT_FALSE(fs::exists(work / "clip.mov"));

  QVFileManager::lockFolder((work / "project").string());
  EXPECT_TRUE(QVFileManager::isFileLocked((work / "project/sub/edit.fcp").string()));
  EXPECT_FALSE(QVFileManager::isFileLocked((work / "project/sub").string()));
  QVFileManager::unlockFolder((work / "project").string());
  EXPECT_FALSE(QVFileManager::isFileLocked((work / "project/sub/edit.fcp").string()));

  // A locked folder takes new entries once the copy has unlocked it.
  QVFileManager::lockFile((work / "project/sub").string());
  EXPECT_TRUE(QVFileManager::copyFile((work / "project/sub/edit.fcp").string(),
                                      (work / "project/sub/copy.fcp").string(), false));
  QVFileManager::lockFile((work / "project/sub/copy.fcp").string());
  QVFileManager::Environment environment{machine.paths(), platform::ToolTable::shared(),
                                         platform::Clock::system()};
  EXPECT_TRUE(QVFileManager::trashFile((work / "project/sub/copy.fcp").string(), false, nullptr,
                                       environment));
  EXPECT_EQ(machine.logText().find("Unable to unlock file"), std::string::npos);
  QVFileManager::unlockFile((work / "project/sub").string());
}

// The agent as an ordinary console user with an administrator's credentials, in a folder that
// only root can write.
class QVFileManagerLadder : public testing::ThrowawayAccounts {
protected:
  void SetUp() override {
    ThrowawayAccounts::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    ::chmod(folder.path().c_str(), 0755);
    fs::create_directories(protectedDir);
    ::chmod(protectedDir.c_str(), 0755);
    for (const char* name : {"a", "b", "c", "e"}) {
      writeText(protectedDir / name, name);
    }
    child = std::make_unique<testing::InstalledCopy>(FILE_MANAGER_CHILD, false);
    ASSERT_TRUE(child->unusableBecause().empty()) << child->unusableBecause();
  }

  // Runs the steps as the ordinary user, with the administrator's credentials when asked;
  // answers the child's output and the log it wrote, split at each step.
  std::pair<std::string, std::vector<std::string>> run(std::vector<std::string> steps,
                                                       bool withRights) {
    steps.insert(steps.begin(), {child->path().string(), helper_->path().string()});
    std::string credentials =
        withRights ? administrator_->name() + "\n" + administrator_->password() + "\n" : "";
    auto result =
        testing::runProgram(steps, credentials, ordinary_->identity(),
                            {"HOME=" + ordinary_->home(), "PATH=/usr/bin:/bin", "LANG=C.UTF-8"});
    EXPECT_EQ(result.status, 0) << result.output;
    std::string log = readText(fs::path(ordinary_->home()) / "Library/Logs/Quorvane/Kestrin.1.log");
    std::vector<std::string> perStep;
    for (std::size_t at = log.find("step "); at != std::string::npos;) {
      std::size_t next = log.find("step ", at + 1);
      perStep.push_back(log.substr(at, next == std::string::npos ? next : next - at));
      at = next;
    }
    return {result.output, perStep};
  }
  std::string in(const char* name) const { return (protectedDir / name).string(); }

  testing::TempDir folder;
  fs::path protectedDir = folder.path() / "protected";
  std::unique_ptr<testing::InstalledCopy> child;
};

TEST_F(QVFileManagerLadder, OrdinaryAttemptsFailThenRightsSucceedWithTheirLogLines) {
  auto [plain, plainLog] =
      run({"remove", "1", in("a"), "move", "0", in("b"), in("x"), "lock", "0", in("c")}, false);
  EXPECT_EQ(plain, "remove 0\nmove 0\nlock 0\n");
  ASSERT_EQ(plainLog.size(), 3u);
  EXPECT_NE(
      plainLog[0].find("Error removing file: " + in("a") + ": Permission denied. Authorizing..."),
      std::string::npos)
      << plainLog[0];
  EXPECT_NE(plainLog[1].find("Error moving file: " + in("b") + ": Permission denied."),
            std::string::npos)
      << plainLog[1];
  EXPECT_EQ(plainLog[1].find("Authorizing..."), std::string::npos);
  EXPECT_NE(plainLog[2].find("Unable to unlock file " + in("c") + ": Operation not permitted"),
            std::string::npos)
      << plainLog[2];

  auto [escalated, log] = run({"remove", "0",     in("a"), "remove", "1",     in("a"),  "trash",
                               "1",      in("b"), "move",  "1",      in("c"), in("d"),  "copy",
                               "1",      in("e"), in("f"), "mkdir",  "1",     in("g/h")},
                              true);
  EXPECT_EQ(escalated, "remove 0\nremove 1\ntrash 1\nmove 1\ncopy 1\nmkdir 1\n");
  ASSERT_EQ(log.size(), 6u);
  EXPECT_NE(log[0].find("Error removing file: "), std::string::npos) << "logged without escalating";
  EXPECT_FALSE(fs::exists(protectedDir / "a"));
  EXPECT_EQ(log[2].find("Error"), std::string::npos) << "trash escalates silently: " << log[2];
  EXPECT_FALSE(fs::exists(protectedDir / "b"));
  EXPECT_EQ(readText(fs::path(ordinary_->home()) / ".Trash/b"), "b");
  EXPECT_NE(log[3].find("Authorizing..."), std::string::npos) << log[3];
  EXPECT_EQ(readText(protectedDir / "d"), "c");
  EXPECT_NE(log[4].find("Error copying file: "), std::string::npos) << log[4];
  EXPECT_EQ(readText(protectedDir / "f"), "e");
  EXPECT_NE(log[5].find("Error creating folder: "), std::string::npos) << log[5];
  EXPECT_TRUE(fs::is_directory(protectedDir / "g/h"));
}

} // namespace
} // namespace kestrin
