#include "foundation/QVAuthorization.h"

#include <fstream>
#include <latch>
#include <optional>
#include <regex>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ThrowawayAccounts.h"
#include "auth/AuthStatus.h"
#include "auth/PamService.h"
#include "fixtures/AgentProcess.h"
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
  auto session = authorization.authStart();
  std::string library = machine.paths().libraryDirectory(false).value();
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(session.authRemoveFile(library));
  EXPECT_FALSE(session.authTrashFile(library));
  EXPECT_FALSE(session.authTrashFolderContents(library));
  EXPECT_FALSE(session.authMoveFile(library, "/tmp/elsewhere"));
  EXPECT_FALSE(session.authMoveFolderContents(library, "/tmp/elsewhere"));
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

// A caller's name that begins with "-" must reach rm, mv and cp as a path, never as an option
// ("--no-preserve-root", "-t /etc").
TEST_F(QVAuthorizationTest, EveryPathGoesToTheToolsAfterTheEndOfOptions) {
  platform::ToolTable recording{
      {platform::Tool::Rm, machine.makeRecordingTool("rm").string()},
      {platform::Tool::Mv, machine.makeRecordingTool("mv").string()},
      {platform::Tool::Cp, machine.makeRecordingTool("cp").string()},
      {platform::Tool::Mkdir, machine.makeRecordingTool("mkdir").string()}};
  QVAuthorization authorization = asRoot(recording);
  auto session = authorization.authStart();
  fs::path work = machine.root() / "work";
  std::string dashed = (work / "-rf").string();
  touch(dashed);
  fs::create_directories(work / "-folder");
  touch(work / "-folder/-entry");
  EXPECT_TRUE(session.authRemoveFile(dashed));
  EXPECT_TRUE(session.authMoveFile(dashed, "-t"));
  EXPECT_TRUE(session.authCopyFile(dashed, "-t"));
  EXPECT_TRUE(session.authCreateDir("-m777"));
  QVAuthorization rootAccount({machine.paths(), recording, true}, false);
  EXPECT_TRUE(rootAccount.authStart().authTrashFolderContents((work / "-folder").string(), true));
  std::string commands; // cp and mkdir are only started by a root agent
  testing::eventually([&] {
    commands = testing::readText(machine.commandLog());
    return commands.find("cp ") != std::string::npos && commands.find("mkdir") != std::string::npos;
  });
  for (const std::string& line :
       {"rm -Rdf -- " + dashed + "\n", "mv -f -- " + dashed + " -t\n",
        "cp -f -p -R -- " + dashed + " -t\n", std::string("mkdir -p -- -m777\n")}) {
    EXPECT_NE(commands.find(line), std::string::npos) << line << commands;
  }
  EXPECT_NE(commands.find(" -- " + (work / "-folder/-entry").string()), std::string::npos)
      << commands;
}

TEST_F(QVAuthorizationTest, TrashingATakenNameAddsTheStampBeforeTheExtension) {
  QVAuthorization authorization = asRoot(tools);
  auto session = authorization.authStart();
  fs::path trash = machine.paths().trashDirectory().value();
  fs::path work = machine.root() / "work";
  for (const char* name : {"report.txt", "notes"}) {
    touch(trash / name);
    touch(work / name);
    ASSERT_TRUE(session.authTrashFile((work / name).string()));
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
  EXPECT_TRUE(session.authTrashFolderContents((work / "empty").string()));
}

TEST_F(QVAuthorizationTest, OnlyARootAgentsOwnWorkIsAuthorisedWithoutAPassword) {
  QVAuthorization root = asRoot(tools);
  auto local = root.authStart();
  EXPECT_TRUE(local.isAuthorized());
  EXPECT_EQ(local.authExecTask("/nonexistent/tool", {}), -2);
  EXPECT_FALSE(local.authMoveFile(std::nullopt, "/tmp/x"));
  EXPECT_FALSE(local.authCopyFile("/nonexistent/source", "/tmp/x"));
  local.authEnd();
  EXPECT_FALSE(local.isAuthorized());
  EXPECT_EQ(local.authExecTask("/bin/true", {}, false), -1);
  // A caller without credentials gets nothing from a root agent.
  EXPECT_FALSE(root.authStartWithUser(std::nullopt, SecretBuffer()).isAuthorized());

  QVAuthorization user({machine.paths(), tools, false}, false);
  EXPECT_FALSE(user.authStart().isAuthorized());
  auto none = user.authStartWithUser(std::nullopt, SecretBuffer::copyOf("password"));
  EXPECT_FALSE(none.isAuthorized());
  EXPECT_EQ(none.authExecTask("/bin/true", {}, false), -1);
}

// Through the setuid helper, with throwaway accounts (CI runs as root).
class QVAuthorizationHelper : public testing::ThrowawayAccounts {
protected:
  static void SetUpTestSuite() {
    ThrowawayAccounts::SetUpTestSuite();
    if (::geteuid() != 0) {
      return;
    }
    secondAdministrator_ = std::make_unique<testing::ThrowawayUser>(true);
    // PAM reads the helper's service from a private folder, so /etc/pam.d stays untouched.
    confdir_ = std::make_unique<testing::TempDir>();
    testing::writeText(confdir_->path() / "kestrin-auth", std::string(auth::kPamServiceText));
    for (const char* included : {"common-auth", "common-account"}) {
      fs::copy_file(fs::path("/etc/pam.d") / included, confdir_->path() / included);
    }
  }
  static void TearDownTestSuite() {
    confdir_.reset();
    secondAdministrator_.reset();
    ThrowawayAccounts::TearDownTestSuite();
  }
  // The agent as a non-root user would use it (everything goes through the helper), or as root
  // (the helper only checks the caller's credentials).
  std::unique_ptr<QVAuthorization> helperAuthorization(bool runningAsRoot = false) {
    tools_ = std::make_unique<platform::ToolTable>(
        std::initializer_list<std::pair<platform::Tool, std::string>>{
            {platform::Tool::KestrinAuth, helper_->path().string()}});
    return std::make_unique<QVAuthorization>(
        QVAuthorization::Environment{
            machine.paths(), *tools_, runningAsRoot, {"--pam-confdir", confdir_->path().string()}},
        false);
  }
  static SecretBuffer passwordOf(const testing::ThrowawayUser& user) {
    return SecretBuffer::copyOf(user.password());
  }
  // A root-owned folder and a file in it that only root may move.
  fs::path protectedFile() {
    fs::path folder = machine.root() / "protected";
    touch(folder / "settings.plist");
    EXPECT_EQ(::chown(folder.c_str(), 0, 0), 0);
    ::chmod(folder.c_str(), 0755);
    return folder / "settings.plist";
  }

  ThrowawayMachine machine;
  std::unique_ptr<platform::ToolTable> tools_;
  static std::unique_ptr<testing::ThrowawayUser> secondAdministrator_;
  static std::unique_ptr<testing::TempDir> confdir_;
};

std::unique_ptr<testing::ThrowawayUser> QVAuthorizationHelper::secondAdministrator_;
std::unique_ptr<testing::TempDir> QVAuthorizationHelper::confdir_;

TEST_F(QVAuthorizationHelper, AnAdministratorsMoveReallyMovesARootOwnedFile) {
  auto authorization = helperAuthorization();
  auto session =
      authorization->authStartWithUser(administrator_->name(), passwordOf(*administrator_));
  ASSERT_TRUE(session.isAuthorized());
  fs::path file = protectedFile();
  fs::path moved = file.parent_path() / "moved.plist";
  EXPECT_TRUE(session.authMoveFile(file.string(), moved.string()));
  EXPECT_TRUE(fs::exists(moved));
  EXPECT_FALSE(fs::exists(file));

  // An asynchronous run keeps its own copy of the credentials: ending the session at once, as
  // the remote operations do, does not take them from it.
  EXPECT_EQ(session.authExecTask("/bin/mv", {"-f", moved.string(), file.string()}), 0);
  session.authEnd();
  EXPECT_FALSE(session.isAuthorized());
  EXPECT_EQ(session.authExecTask("/bin/true", {}, false), -1);
  EXPECT_TRUE(testing::eventually([&] { return fs::exists(file); }));
}

TEST_F(QVAuthorizationHelper, AWrongPasswordOrAnOrdinaryUserIsRefused) {
  auto authorization = helperAuthorization();
  EXPECT_FALSE(
      authorization
          ->authStartWithUser(administrator_->name(), SecretBuffer::copyOf("not the password"))
          .isAuthorized());
  EXPECT_FALSE(
      authorization->authStartWithUser(ordinary_->name(), passwordOf(*ordinary_)).isAuthorized());
  EXPECT_NE(machine.logText().find("Authorization failed. Invalid username or password"),
            std::string::npos);
}

// Root is no password: a root agent asks the helper about a caller's credentials too, and only
// then does the work itself.
TEST_F(QVAuthorizationHelper, ARootAgentRefusesWrongCredentials) {
  auto authorization = helperAuthorization(true);
  fs::path file = protectedFile();
  fs::path moved = file.parent_path() / "moved.plist";
  for (auto* user : {administrator_.get(), ordinary_.get()}) {
    SecretBuffer password =
        SecretBuffer::copyOf(user == ordinary_.get() ? user->password() : "not the password");
    auto refused = authorization->authStartWithUser(user->name(), password);
    EXPECT_FALSE(refused.isAuthorized()) << user->name();
    EXPECT_FALSE(refused.authMoveFile(file.string(), moved.string()));
    EXPECT_TRUE(fs::exists(file));
  }
  auto session =
      authorization->authStartWithUser(administrator_->name(), passwordOf(*administrator_));
  ASSERT_TRUE(session.isAuthorized());
  EXPECT_TRUE(session.authMoveFile(file.string(), moved.string()));
  EXPECT_TRUE(fs::exists(moved));
}

// Two administrators' sessions on two workers at once: each run uses its own session's
// credentials, and one session's end leaves the other's rights alone.
TEST_F(QVAuthorizationHelper, ConcurrentSessionsKeepTheirOwnCredentials) {
  ASSERT_TRUE(secondAdministrator_->ok()) << secondAdministrator_->error();
  auto authorization = helperAuthorization();
  std::optional<QVAuthorization::Session> first;
  std::optional<QVAuthorization::Session> second;
  {
    std::thread a([&] {
      first.emplace(
          authorization->authStartWithUser(administrator_->name(), passwordOf(*administrator_)));
    });
    std::thread b([&] {
      second.emplace(authorization->authStartWithUser(secondAdministrator_->name(),
                                                      passwordOf(*secondAdministrator_)));
    });
    a.join();
    b.join();
  }
  ASSERT_TRUE(first->isAuthorized());
  ASSERT_TRUE(second->isAuthorized());

  // Once the second administrator's password has changed, only the second session's runs may
  // be refused, however the runs interleave.
  auto setPassword = [&](const std::string& password) {
    ASSERT_EQ(testing::runProgram({"/usr/sbin/chpasswd"},
                                  secondAdministrator_->name() + ":" + password + "\n")
                  .status,
              0);
  };
  setPassword("changed meanwhile");
  constexpr int kRuns = 2;
  std::vector<int> firstStatuses(kRuns), secondStatuses(kRuns);
  {
    std::thread a([&] {
      for (int& status : firstStatuses) {
        status = first->authExecTask("/bin/true", {}, false);
      }
    });
    std::thread b([&] {
      for (int& status : secondStatuses) {
        status = second->authExecTask("/bin/true", {}, false);
      }
    });
    a.join();
    b.join();
  }
  EXPECT_EQ(firstStatuses, std::vector<int>(kRuns, 0));
  EXPECT_EQ(secondStatuses,
            std::vector<int>(kRuns, static_cast<int>(auth::AuthStatus::WrongPassword)));
  setPassword(secondAdministrator_->password());

  // The first session ends on its worker; the second, on its own, still runs with rights.
  std::latch ended(1);
  int afterEnd = -99;
  int secondAfterEnd = -99;
  std::thread a([&] {
    first->authEnd();
    ended.count_down();
    afterEnd = first->authExecTask("/bin/true", {}, false);
  });
  std::thread b([&] {
    ended.wait();
    secondAfterEnd = second->authExecTask("/bin/true", {}, false);
  });
  a.join();
  b.join();
  EXPECT_EQ(afterEnd, -1);
  EXPECT_EQ(secondAfterEnd, 0);
}

} // namespace
} // namespace kestrin
