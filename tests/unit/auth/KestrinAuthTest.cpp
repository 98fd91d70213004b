// kestrin-auth as it is installed: a setuid-root copy run by throwaway non-root users.

#include "auth/AuthStatus.h"

#include <memory>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ThrowawayAccounts.h"
#include "auth/PamService.h"

namespace kestrin::auth {
namespace {

using testing::credentialFrame;
using testing::InstalledCopy;
using testing::runProgram;
using testing::RunResult;
using testing::ThrowawayUser;

int statusOf(AuthStatus status) {
  return static_cast<int>(status);
}

class KestrinAuth : public testing::ThrowawayAccounts {
protected:
  // Runs the installed helper as `user` with that user's own credentials unless told otherwise.
  static RunResult run(const ThrowawayUser& user, std::vector<std::string> arguments,
                       std::optional<std::string> input = std::nullopt) {
    arguments.insert(arguments.begin(), helper_->path().string());
    return runProgram(arguments, input.value_or(credentialFrame(user.name(), user.password())),
                      user.identity());
  }
};

TEST_F(KestrinAuth, AdministratorRunsTheProgramAsRootWithItsExitStatus) {
  auto ids = run(*administrator_, {"/bin/sh", "-c", "id -u; id -ru; id -g; id -rg; exit 7"});
  EXPECT_EQ(ids.status, 7);
  EXPECT_EQ(ids.output, "0\n0\n0\n0\n");

  auto check = run(*administrator_, {std::string(kCheckOption)});
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.output, "");
}

TEST_F(KestrinAuth, ProgramSeesOnlyTheSafePathAndNeverTheCredentialChannel) {
  auto environment = run(*administrator_, {"--", "/usr/bin/env"});
  EXPECT_EQ(environment.status, 0);
  EXPECT_EQ(environment.output, std::string(kSafePath) + "\n");

  auto input = run(*administrator_, {"/bin/cat"},
                   credentialFrame(administrator_->name(), administrator_->password()) +
                       "bytes after the frame");
  EXPECT_EQ(input.status, 0);
  EXPECT_EQ(input.output, "");
}

// Two failures only: each costs PAM's delay of about two seconds.
TEST_F(KestrinAuth, WrongPasswordAndUnknownUserAreRefusedDistinctly) {
  auto wrong = run(*administrator_, {"/usr/bin/id"},
                   credentialFrame(administrator_->name(), administrator_->password() + "x"));
  EXPECT_EQ(wrong.status, statusOf(AuthStatus::WrongPassword));
  EXPECT_EQ(wrong.output, "");

  auto unknown = run(*administrator_, {"/usr/bin/id"},
                     credentialFrame("kt-nobody-" + administrator_->name(), "anything"));
  EXPECT_EQ(unknown.status, statusOf(AuthStatus::UnknownUser));
  EXPECT_EQ(unknown.output, "");
}

TEST_F(KestrinAuth, OrdinaryUserIsRefusedDespiteTheRightPassword) {
  auto result = run(*ordinary_, {"/usr/bin/id"});
  EXPECT_EQ(result.status, statusOf(AuthStatus::NotAdministrator));
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(run(*ordinary_, {std::string(kCheckOption)}).status,
            statusOf(AuthStatus::NotAdministrator));
}

TEST_F(KestrinAuth, MissingProgramIsRefusedOnlyAfterAuthentication) {
  EXPECT_EQ(run(*administrator_, {"/nonexistent/kestrin-tool"}).status,
            statusOf(AuthStatus::ProgramMissing));
  // An ordinary user learns nothing about which root-only paths exist.
  EXPECT_EQ(run(*ordinary_, {"/nonexistent/kestrin-tool"}).status,
            statusOf(AuthStatus::NotAdministrator));
}

TEST_F(KestrinAuth, MalformedInvocationsAndFramesAreRefusedBeforePam) {
  const std::vector<std::vector<std::string>> invocations = {
      {},
      {"id"},
      {"--", "usr/bin/id"},
      {std::string(kCheckOption), "/usr/bin/id"},
      {"--unknown", "/usr/bin/id"},
      {std::string(kPamConfdirOption)},
  };
  for (const auto& arguments : invocations) {
    EXPECT_EQ(run(*administrator_, arguments).status, statusOf(AuthStatus::BadInvocation))
        << ::testing::PrintToString(arguments);
  }
  EXPECT_EQ(run(*administrator_, {"/usr/bin/id"}, "not a frame").status,
            statusOf(AuthStatus::BadInvocation));
  EXPECT_EQ(run(*administrator_, {"/usr/bin/id"}, "").status, statusOf(AuthStatus::BadInvocation));
}

TEST_F(KestrinAuth, RefusesToRunWithoutTheSetuidBit) {
  InstalledCopy plain(KESTRIN_AUTH_HELPER, false);
  ASSERT_TRUE(plain.unusableBecause().empty()) << plain.unusableBecause();
  auto result = runProgram({plain.path().string(), "/usr/bin/id"},
                           credentialFrame(administrator_->name(), administrator_->password()),
                           administrator_->identity());
  EXPECT_EQ(result.status, statusOf(AuthStatus::NotSetuidRoot));
  EXPECT_EQ(result.output, "");
}

// An ordinary caller must not bring a stack of their own (one that accepts any password).
TEST_F(KestrinAuth, PamFolderOfTheCallersChoosingIsRefusedUnlessTheCallerIsRoot) {
  testing::TempDir permissive;
  testing::writeText(permissive / "kestrin-auth", "auth sufficient pam_permit.so\n"
                                                  "account sufficient pam_permit.so\n");
  ::chmod(permissive.path().c_str(), 0755);
  const std::vector<std::string> arguments = {std::string(kPamConfdirOption),
                                              permissive.path().string(), "/usr/bin/id", "-u"};
  auto refused =
      run(*administrator_, arguments, credentialFrame(administrator_->name(), "not the password"));
  EXPECT_EQ(refused.status, statusOf(AuthStatus::BadInvocation));
  EXPECT_EQ(refused.output, "");

  std::vector<std::string> asRoot = arguments;
  asRoot.insert(asRoot.begin(), KESTRIN_AUTH_HELPER);
  auto accepted = runProgram(asRoot, credentialFrame(administrator_->name(), "not the password"));
  EXPECT_EQ(accepted.status, 0);
  EXPECT_EQ(accepted.output, "0\n");
}

// The service file that -setup installs, against this machine's common stacks.
TEST_F(KestrinAuth, ShippedPamServiceAcceptsAnAdministratorAndRefusesAWrongPassword) {
  testing::TempDir confdir;
  testing::writeText(confdir / "kestrin-auth", std::string(kPamServiceText));
  for (const char* included : {"common-auth", "common-account"}) {
    std::filesystem::copy_file(std::filesystem::path("/etc/pam.d") / included, confdir / included);
  }
  auto check = [&](const std::string& password) {
    return runProgram({KESTRIN_AUTH_HELPER, std::string(kPamConfdirOption), confdir.path().string(),
                       std::string(kCheckOption)},
                      credentialFrame(administrator_->name(), password))
        .status;
  };
  EXPECT_EQ(check(administrator_->password()), 0);
  EXPECT_EQ(check(administrator_->password() + "x"), statusOf(AuthStatus::WrongPassword));
}

} // namespace
} // namespace kestrin::auth
