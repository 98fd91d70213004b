#include "ditto/Placement.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "ditto/EntryPath.h"
#include "support/Syscall.h"

namespace kestrin::ditto {

namespace fs = std::filesystem;

namespace {

enum class Kind { Missing, Folder, Other };

// What is at `path` itself: a link is Other, whatever it points at.
Expected<Kind> kindOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) {
      return Kind::Missing;
    }
    return Failure{errnoMessage(quotedName(path.string()))};
  }
  return S_ISDIR(info.st_mode) ? Kind::Folder : Kind::Other;
}

bool isFolder(const fs::directory_entry& entry) {
  std::error_code ignored;
  return entry.symlink_status(ignored).type() == fs::file_type::directory;
}

// Walks `staged` against `folder`. With `move` false it only looks for a folder that something
// else would replace; with `move` true it moves.
Expected<void> merge(const fs::path& staged, const fs::path& folder, bool move) {
  std::error_code ec;
  for (auto it = fs::directory_iterator(staged, ec); !ec && it != fs::end(it); it.increment(ec)) {
    fs::path target = folder / it->path().filename();
    auto kind = kindOf(target);
    if (!kind) {
      return kind.failure();
    }
    bool stagedFolder = isFolder(*it);
    if (*kind == Kind::Folder) {
      if (!stagedFolder) {
        return Failure{quotedName(target.string()) +
                       ": a folder of that name is there already and is not replaced"};
      }
      auto merged = merge(it->path(), target, move);
      if (!merged) {
        return merged;
      }
      continue;
    }
    if (!move) {
      continue;
    }
    // A file or a link gives way; rename() would refuse to put a folder over it.
    if (*kind == Kind::Other && stagedFolder && ::unlink(target.c_str()) != 0) {
      return Failure{errnoMessage(quotedName(target.string()))};
    }
    if (::rename(it->path().c_str(), target.c_str()) != 0) {
      return Failure{errnoMessage(quotedName(target.string()))};
    }
  }
  if (ec) {
    return Failure{quotedName(staged.string()) + ": " + ec.message()};
  }
  return {};
}

} // namespace

Expected<void> mergeInto(const fs::path& staged, const fs::path& folder) {
  auto checked = merge(staged, folder, false);
  if (!checked) {
    return checked;
  }
  return merge(staged, folder, true);
}

} // namespace kestrin::ditto
