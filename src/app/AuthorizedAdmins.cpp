#include "app/AuthorizedAdmins.h"

#include <sstream>

#include <sys/stat.h>

#include <fmt/format.h>

#include "foundation/QVLog.h"
#include "platform/FileBytes.h"
#include "transport/TlsIdentity.h"

namespace kestrin {

namespace {

// Thousands of consoles fit in far less.
constexpr std::size_t kMaxListBytes = 1024 * 1024;

} // namespace

bool AuthorizedAdmins::FileState::operator==(const FileState& other) const {
  return inode == other.inode && size == other.size && modified.tv_sec == other.modified.tv_sec &&
         modified.tv_nsec == other.modified.tv_nsec && changed.tv_sec == other.changed.tv_sec &&
         changed.tv_nsec == other.changed.tv_nsec;
}

AuthorizedAdmins::AuthorizedAdmins(std::string path, uid_t owner)
    : path_(std::move(path)), owner_(owner) {}

AuthorizedAdmins::Verdict AuthorizedAdmins::judge(const std::optional<std::string>& fingerprint) {
  struct stat status {};
  std::lock_guard lock(mutex_);
  if (::lstat(path_.c_str(), &status) != 0) {
    if (seen_) {
      QVLog::fastAppendLog("{} is gone: every admin console is accepted again", path_);
    }
    seen_.reset();
    listed_.reset();
    return {true, ""};
  }
  FileState state{status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
  if (!seen_ || !(*seen_ == state)) {
    seen_ = state;
    if (!S_ISREG(status.st_mode)) {
      listed_.reset();
      unusable_ = "it is not a regular file";
    } else if (status.st_uid != owner_ || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      listed_.reset();
      unusable_ = "anyone but root could have changed it";
    } else {
      reload();
    }
    if (!listed_) {
      QVLog::fastAppendLog("Refusing every admin console: {} is unusable: {}", path_, unusable_);
    }
  }
  if (!listed_) {
    return {false, fmt::format("{} is unusable: {}", path_, unusable_)};
  }
  if (!fingerprint) {
    return {false, "it presented no certificate"};
  }
  if (listed_->count(*fingerprint) == 0) {
    return {false, fmt::format("its fingerprint {} is not in {}", *fingerprint, path_)};
  }
  return {true, ""};
}

void AuthorizedAdmins::reload() {
  listed_.reset();
  auto bytes = platform::readFileBytes(path_, kMaxListBytes);
  if (!bytes) {
    unusable_ = bytes.message();
    return;
  }
  std::istringstream lines(std::string(bytes->begin(), bytes->end()));
  std::set<std::string> listed;
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    std::istringstream words(line);
    std::string first;
    if (!(words >> first) || first[0] == '#') {
      continue;
    }
    auto fingerprint = transport::normalizedFingerprint(first);
    if (!fingerprint) {
      unusable_ = fmt::format("line {} holds no fingerprint", number);
      return;
    }
    listed.insert(*fingerprint);
  }
  listed_ = std::move(listed);
}

} // namespace kestrin
