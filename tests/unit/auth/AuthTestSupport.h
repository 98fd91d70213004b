#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "fixtures/TempDir.h"

// Root-only helpers for the tests of kestrin-auth and of the agent's privileged operations:
// throwaway user accounts, a setuid-root copy of the helper, and running a program as one of
// those users.
namespace kestrin::testing {

// Who a child runs as: all user ids, all group ids and the supplementary groups.
struct Identity {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
};

struct RunResult {
  int status = -1;    // exit status, or 128 + the signal that ended the child
  std::string output; // standard output (standard error goes to the test's own)
};

// Runs argv[0] (an absolute path) with `input` on its standard input, followed by end of file,
// as `identity` when given (otherwise as this process). Only the descriptors 0..2 reach it.
// `environment` ("NAME=value" entries) replaces ours unless it is empty.
RunResult runProgram(const std::vector<std::string>& argv, const std::string& input = {},
                     const std::optional<Identity>& identity = std::nullopt,
                     const std::vector<std::string>& environment = {});

// A user account that exists for the life of the object: created with a home (useradd -m), a
// random password containing a space, and membership of sudo when asked; removed with its home
// (userdel -r) by the destructor, whatever the test's outcome. Needs root.
class ThrowawayUser {
public:
  explicit ThrowawayUser(bool administrator);
  ~ThrowawayUser();
  ThrowawayUser(const ThrowawayUser&) = delete;
  ThrowawayUser& operator=(const ThrowawayUser&) = delete;

  // False when the account could not be created (the reason is in error()).
  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }
  const std::string& name() const { return name_; }
  const std::string& password() const { return password_; }
  const std::string& home() const { return home_; }
  Identity identity() const;

private:
  std::string name_;
  std::string password_;
  std::string home_;
  bool created_ = false;
  bool ok_ = false;
  std::string error_;
};

// A copy of a built program in a fresh folder that everybody may enter, owned by root, with the
// set-user-id bit (mode 4755) when asked, otherwise 0755. The build output itself is never made
// setuid, and the build tree need not be reachable by the throwaway users.
class InstalledCopy {
public:
  explicit InstalledCopy(const std::filesystem::path& built, bool setuidRoot = true);

  // Empty when the copy is usable; otherwise why not (for GTEST_SKIP), such as a temporary
  // folder on a file system mounted nosuid.
  const std::string& unusableBecause() const { return unusableBecause_; }
  const std::filesystem::path& path() const { return path_; }

private:
  TempDir folder_;
  std::filesystem::path path_;
  std::string unusableBecause_;
};

// The frame kestrin-auth reads from its standard input.
std::string credentialFrame(const std::string& user, const std::string& password);

} // namespace kestrin::testing
