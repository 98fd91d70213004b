#include "ThrowawayAccounts.h"

#include <unistd.h>

namespace kestrin::testing {

std::unique_ptr<InstalledCopy> ThrowawayAccounts::helper_;
std::unique_ptr<ThrowawayUser> ThrowawayAccounts::administrator_;
std::unique_ptr<ThrowawayUser> ThrowawayAccounts::ordinary_;

void ThrowawayAccounts::SetUpTestSuite() {
  if (::geteuid() != 0) {
    return;
  }
  helper_ = std::make_unique<InstalledCopy>(KESTRIN_AUTH_HELPER);
  administrator_ = std::make_unique<ThrowawayUser>(true);
  ordinary_ = std::make_unique<ThrowawayUser>(false);
}

void ThrowawayAccounts::TearDownTestSuite() {
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
