#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "support/Expected.h"

namespace kestrin {

// Listing, copying, moving and removing trees of files without ever following a link inside
// them: a link is copied, moved or removed as a link, and a walk never enters one. A link named
// by the caller as the starting point is followed only where the operation says so.
//
// Removal and copying work relative to open folders, so a folder swapped for a link while the
// work runs is not followed either. Trees deeper than kDepthLimit are refused, not cut.
class FileTree {
public:
  static constexpr int kDepthLimit = 256;

  enum class Type { File, Folder, Link, Other };
  struct Entry {
    std::string name;
    Type type;
  };
  struct Listing {
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<Entry> entries; // in byte order of their names; "." and ".." left out
  };

  // The entries of a folder; nullopt when it cannot be listed. followLink: whether a link at
  // `folder` itself is followed to the folder it names.
  static std::optional<Listing> list(const std::string& folder, bool followLink = true);

  // The folders one walk has entered: none twice (a bind mount can make a tree contain
  // itself), none deeper than the limit, and none once the work is no longer wanted
  // (Cancellation: the remote caller the walk works for has gone).
  class Walk {
  public:
    // The listing of a folder at depth (0: where the walk starts, followed if it is a link;
    // deeper folders are entered only as the real folders their listing showed). Nullopt when
    // it cannot be listed, lies too deep, was entered before, or the walk was cancelled;
    // stopped() and cancelled() then tell which.
    std::optional<Listing> enter(const std::string& folder, int depth);
    // Whether some folder was left out for its depth or for having been entered before.
    bool stopped() const { return stopped_; }
    // Whether the walk gave up because its work was no longer wanted.
    bool cancelled() const { return cancelled_; }

  private:
    std::set<std::pair<dev_t, ino_t>> visited_;
    bool stopped_ = false;
    bool cancelled_ = false;
  };

  // What a file manager's item operations do. removeItem removes a file, a link or a whole
  // folder; copyItem copies one to a path where nothing is yet, keeping modes (without the
  // set-id bits, so a copy never grants more than its owner had), dates and the user's
  // extended attributes; moveItem renames without replacing anything, and copies then removes
  // across file systems. Failures say which path and why.
  static Expected<void> removeItem(const std::string& path);
  static Expected<void> copyItem(const std::string& from, const std::string& to);
  static Expected<void> moveItem(const std::string& from, const std::string& to);

  // folder + "/" + name, with one slash.
  static std::string join(std::string_view folder, std::string_view name);
  // The last component and what comes before it ("/a/b/" gives "/a" and "b"; "/a" gives "/"
  // and "a"; "a" gives "." and "a").
  static std::pair<std::string, std::string> split(std::string_view path);
};

} // namespace kestrin
