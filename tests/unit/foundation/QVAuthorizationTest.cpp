#include "foundation/QVAuthorization.h"

#include <fstream>
#include <regex>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "fixtures/ThrowawayMachine.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using testing::ThrowawayMachine;

void touch(const fs::path& path) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << "x";
}

class QVAuthorizationTest : public ::testing::Test {
protected:
  QVAuthorization asRoot(const platform::ToolTable& tools) {
    return QVAuthorization({machine.paths(), tools, true}, false);
  }

  ThrowawayMachine machine{0};
  platform::ToolTable tools;
};

TEST_F(QVAuthorizationTest, SystemDirectoriesAreRefusedWithoutRunningAnything) {
  platform::ToolTable recording{{platform::Tool::Rm, machine.makeRecordingTool("rm").string()},
                                {platform::Tool::Mv, machine.makeRecordingTool("mv").string()}};
  QVAuthorization authorization = asRoot(recording);
  std::string library = machine.paths().libraryDirectory(false).value();
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(authorization.authRemoveFile(library));
  EXPECT_FALSE(authorization.authTrashFile(library));
  EXPECT_FALSE(authorization.authTrashFolderContents(library));
  EXPECT_FALSE(authorization.authMoveFile(library, "/tmp/elsewhere"));
  EXPECT_FALSE(authorization.authMoveFolderContents(library, "/tmp/elsewhere"));
  std::string said = ::testing::internal::GetCapturedStderr();
  for (const std::string& text :
       {"Unable to delete path " + library + " because it is a system directory.",
        "Unable to trash path " + library + " because it is a system directory.",
        "Unable to trash folder contents of path " + library + " because it is a system directory.",
        "Unable to move path " + library + " because it is a system directory.",
        "Unable to move contents of path " + library + " because it is a system directory."}) {
    EXPECT_NE(said.find(text), std::string::npos) << text;
  }
  EXPECT_FALSE(fs::exists(machine.commandLog()));
}

TEST_F(QVAuthorizationTest, TrashingATakenNameAddsTheStampBeforeTheExtension) {
  QVAuthorization authorization = asRoot(tools);
  fs::path trash = machine.paths().trashDirectory().value();
  fs::path work = machine.root() / "work";
  for (const char* name : {"report.txt", "notes"}) {
    touch(trash / name);
    touch(work / name);
    ASSERT_TRUE(authorization.authTrashFile((work / name).string()));
    EXPECT_FALSE(fs::exists(work / name));
  }
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(trash)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), 4u);
  EXPECT_TRUE(std::regex_match(names[1], std::regex(R"(notes_\d{14}\.)"))) << names[1];
  EXPECT_TRUE(std::regex_match(names[3], std::regex(R"(report_\d{14}\.txt)"))) << names[3];

  fs::create_directories(work / "empty");
  EXPECT_TRUE(authorization.authTrashFolderContents((work / "empty").string()));
}

TEST_F(QVAuthorizationTest, MissingToolsPathsAndAuthorisationAreFailures) {
  QVAuthorization root = asRoot(tools);
  EXPECT_EQ(root.authExecTask("/nonexistent/tool", {}), -2);
  EXPECT_FALSE(root.authMoveFile(std::nullopt, "/tmp/x"));
  EXPECT_FALSE(root.authCopyFile("/nonexistent/source", "/tmp/x"));
  EXPECT_TRUE(root.isAuthorized());
  EXPECT_TRUE(root.authStartWithUser(std::nullopt, std::nullopt)); // root needs none

  QVAuthorization user({machine.paths(), tools, false}, false);
  EXPECT_FALSE(user.isAuthorized());
  EXPECT_FALSE(user.authStart());
  EXPECT_FALSE(user.authStartWithUser("someone", std::nullopt));
  EXPECT_EQ(user.authExecTask("/bin/true", {}, false), -1);
}

// Through the setuid helper, with throwaway accounts (CI runs as root).
class QVAuthorizationHelper : public testing::ThrowawayAccounts {
protected:
  static void SetUpTestSuite() {
    ThrowawayAccounts::SetUpTestSuite();
    if (::geteuid() != 0) {
      return;
    }
    // PAM reads the helper's service from a private folder, so /etc/pam.d stays untouched.
    confdir_ = std::make_unique<testing::TempDir>();
    fs::copy_file(KESTRIN_SOURCE_DIR "/resources/pam.d/kestrin-auth",
                  confdir_->path() / "kestrin-auth");
    for (const char* included : {"common-auth", "common-account"}) {
      fs::copy_file(fs::path("/etc/pam.d") / included, confdir_->path() / included);
    }
  }
  static void TearDownTestSuite() {
    confdir_.reset();
    ThrowawayAccounts::TearDownTestSuite();
  }
  // The agent as a non-root user would use it: everything goes through the helper.
  std::unique_ptr<QVAuthorization> helperAuthorization() {
    tools_ = std::make_unique<platform::ToolTable>(
        std::initializer_list<std::pair<platform::Tool, std::string>>{
            {platform::Tool::KestrinAuth, helper_->path().string()}});
    return std::make_unique<QVAuthorization>(
        QVAuthorization::Environment{
            machine.paths(), *tools_, false, {"--pam-confdir", confdir_->path().string()}},
        false);
  }

  ThrowawayMachine machine;
  std::unique_ptr<platform::ToolTable> tools_;
  static std::unique_ptr<testing::TempDir> confdir_;
};

std::unique_ptr<testing::TempDir> QVAuthorizationHelper::confdir_;

TEST_F(QVAuthorizationHelper, AnAdministratorsMoveReallyMovesARootOwnedFile) {
  auto authorization = helperAuthorization();
  ASSERT_TRUE(authorization->authStartWithUser(administrator_->name(), administrator_->password()));
  fs::path protectedDir = machine.root() / "protected";
  touch(protectedDir / "settings.plist");
  ASSERT_EQ(::chown(protectedDir.c_str(), 0, 0), 0);
  ::chmod(protectedDir.c_str(), 0755);
  EXPECT_TRUE(authorization->authMoveFile((protectedDir / "settings.plist").string(),
                                          (protectedDir / "moved.plist").string()));
  EXPECT_TRUE(fs::exists(protectedDir / "moved.plist"));
  EXPECT_FALSE(fs::exists(protectedDir / "settings.plist"));

  authorization->authEnd();
  EXPECT_FALSE(authorization->isAuthorized());
  EXPECT_EQ(authorization->authExecTask("/bin/true", {}, false), -1);
}

TEST_F(QVAuthorizationHelper, AWrongPasswordOrAnOrdinaryUserIsRefused) {
  auto authorization = helperAuthorization();
  EXPECT_FALSE(authorization->authStartWithUser(administrator_->name(), "not the password"));
  EXPECT_FALSE(authorization->authStartWithUser(ordinary_->name(), ordinary_->password()));
  EXPECT_FALSE(authorization->isAuthorized());
  EXPECT_NE(machine.logText().find("Authorization failed. Invalid username or password"),
            std::string::npos);
}

} // namespace
} // namespace kestrin
