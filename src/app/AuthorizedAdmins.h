#pragma once

#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include <sys/types.h>

namespace kestrin {

// The admin consoles an agent accepts, as the facility lists them: a root-owned file with one
// certificate fingerprint a line, a comment after it, as authorized_keys reads. Without the
// file every console is accepted. A file that anyone but root could have changed, or that holds
// a line that is no fingerprint (a truncated copy, say), accepts nobody: a broken list must
// never open the agent to everyone.
//
// Thread-safe. The file is looked at on every judgement and read again only when it changed.
class AuthorizedAdmins {
public:
  // `owner` is the user the file must belong to: root, except in tests.
  explicit AuthorizedAdmins(std::string path, uid_t owner = 0);

  struct Verdict {
    bool accepted = false;
    std::string reason; // why not, for the log
  };
  Verdict judge(const std::optional<std::string>& fingerprint);

private:
  struct FileState {
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
    bool operator==(const FileState& other) const;
  };
  void reload();

  const std::string path_;
  const uid_t owner_;
  std::mutex mutex_;
  std::optional<FileState> seen_;               // under mutex_; nullopt: no file
  std::optional<std::set<std::string>> listed_; // under mutex_; nullopt: the file is unusable
  std::string unusable_;                        // under mutex_: why
};

} // namespace kestrin
