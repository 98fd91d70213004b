#include "ThrowawayAccounts.h"

#include <filesystem>
#include <string>

#include <unistd.h>

#include "auth/PamService.h"
#include "fixtures/TempDir.h"

namespace kestrin::testing {

std::unique_ptr<InstalledCopy> ThrowawayAccounts::helper_;
std::unique_ptr<ThrowawayUser> ThrowawayAccounts::administrator_;
std::unique_ptr<ThrowawayUser> ThrowawayAccounts::ordinary_;
bool ThrowawayAccounts::installedPamService_ = false;

namespace {
constexpr const char* kPamService = "/etc/pam.d/kestrin-auth";
} // namespace

void ThrowawayAccounts::SetUpTestSuite() {
  if (::geteuid() != 0) {
    return;
  }
  helper_ = std::make_unique<InstalledCopy>(KESTRIN_AUTH_HELPER);
  administrator_ = std::make_unique<ThrowawayUser>(true);
  ordinary_ = std::make_unique<ThrowawayUser>(false);
  if (!std::filesystem::exists(kPamService)) {
    writeText(kPamService, std::string(auth::kPamServiceText));
    installedPamService_ = true;
  }
}

void ThrowawayAccounts::TearDownTestSuite() {
  if (installedPamService_) {
    std::filesystem::remove(kPamService);
    installedPamService_ = false;
  }
  administrator_.reset();
  ordinary_.reset();
  helper_.reset();
}

void ThrowawayAccounts::SetUp() {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root: creates users and installs a setuid-root helper";
  }
  if (!helper_->unusableBecause().empty()) {
    GTEST_SKIP() << helper_->unusableBecause();
  }
  ASSERT_TRUE(administrator_->ok()) << administrator_->error();
  ASSERT_TRUE(ordinary_->ok()) << ordinary_->error();
}

} // namespace kestrin::testing
