#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "AuthTestSupport.h"

namespace kestrin::testing {

// A suite that needs the setuid helper installed and two throwaway accounts, one administrator
// and one ordinary user, made once for the whole suite, and the helper's PAM service, put in
// place for the suite when the machine lacks it (as "-setup" would install it). Every test
// skips unless run as root or when the helper cannot be installed setuid here.
class ThrowawayAccounts : public ::testing::Test {
protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  static std::unique_ptr<InstalledCopy> helper_;
  static std::unique_ptr<ThrowawayUser> administrator_;
  static std::unique_ptr<ThrowawayUser> ordinary_;

private:
  static bool installedPamService_;
};

} // namespace kestrin::testing
