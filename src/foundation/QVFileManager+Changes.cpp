// The changes that climb the escalation ladder, and their timeout variants.

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>

#include <sys/stat.h>

#include "foundation/FileTree.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Clock.h"

namespace kestrin {

namespace {

using namespace std::chrono_literals;

// Anything at the path, a dangling link included: what a removal must take away.
bool existsHere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool sameItem(const std::string& a, const std::string& b) {
  struct stat first {
  }, second{};
  return ::lstat(a.c_str(), &first) == 0 && ::lstat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// "name_YYYYmmddHHMMSS.ext" in the trash folder, as the rights' own trashing names it; a name
// without extension ends in the dot.
std::string stampedName(const std::string& name, const plist::Date& now) {
  std::time_t seconds = static_cast<std::time_t>(now.toUnix());
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &local);
  std::size_t dot = name.rfind('.');
  bool hasExtension = dot != std::string::npos && dot != 0;
  std::string stem = hasExtension ? name.substr(0, dot) : name;
  std::string extension = hasExtension ? name.substr(dot + 1) : "";
  return stem + "_" + stamp + "." + extension;
}

} // namespace

template <typename EndState>
bool QVFileManager::pollUntil(const Environment& environment, Timeout timeout,
                              EndState&& endState) {
  // Callers are worker threads (the main thread runs the event loop and never calls here), so
  // the wait is a worker's 0.3-second step, on the clock.
  constexpr auto kStep = 300ms;
  const auto start = environment.clock.now();
  while (!endState() && environment.clock.now() - start < timeout) {
    environment.clock.sleepFor(kStep);
  }
  return endState();
}

bool QVFileManager::recycle(const std::string& path, const Environment& environment) {
  auto trash = environment.paths.trashDirectory();
  if (!trash) {
    return false;
  }
  std::error_code ignored;
  std::filesystem::create_directories(*trash, ignored);
  const std::string name = FileTree::split(path).second;
  std::string destination = FileTree::join(*trash, name);
  if (existsHere(destination)) {
    // Twice in one second gets a number as well.
    destination =
        uniqueFilename(FileTree::join(*trash, stampedName(name, environment.clock.date())));
  }
  return FileTree::moveItem(path, destination).ok();
}

// ---- Plain and flagged forms

bool QVFileManager::trashFile(const std::string& path, bool shouldAuth,
                              QVAuthorization::Session* rights, const Environment& environment) {
  unlockFile(path);
  if (!existsHere(path)) {
    return true;
  }
  if (recycle(path, environment)) {
    return true;
  }
  return shouldAuth && rights != nullptr && rights->authTrashFile(path);
}

bool QVFileManager::removeFile(const std::string& path, bool shouldAuth,
                               QVAuthorization::Session* rights) {
  unlockFile(path);
  if (!existsHere(path)) {
    return true;
  }
  auto removed = FileTree::removeItem(path);
  if (removed) {
    return true;
  }
  QVLog::appendLog("Error removing file: {}. Authorizing...", printable(removed.message()));
  return shouldAuth && rights != nullptr && rights->authRemoveFile(path);
}

bool QVFileManager::createDirectory(const std::string& path, bool shouldAuth,
                                    QVAuthorization::Session* rights) {
  if (!isDriveMountedForPath(path)) {
    QVLog::console("Unable to create directory. Drive is not mounted.");
    return false;
  }
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (!error) {
    return true;
  }
  QVLog::appendLog("Error creating folder: {}. Authorizing...",
                   printable(path + ": " + error.message()));
  return shouldAuth && rights != nullptr && rights->authCreateDir(path);
}

bool QVFileManager::copyFile(const std::optional<std::string>& from,
                             const std::optional<std::string>& to, bool shouldAuth,
                             QVAuthorization::Session* rights) {
  if (!from) {
    QVLog::appendLogAndPrint("Error copying file: source path is nil");
    return false;
  }
  if (!to) {
    QVLog::appendLogAndPrint("Error copying file {}: destination path is nil", printable(*from));
    return false;
  }
  unlockFile(FileTree::split(*to).first);
  auto copied = FileTree::copyItem(*from, *to);
  if (copied) {
    return true;
  }
  QVLog::appendLog("Error copying file: {}. Authorizing...", printable(copied.message()));
  return shouldAuth && rights != nullptr && rights->authCopyFile(from, to);
}

bool QVFileManager::moveFile(const std::string& from, const std::string& to, bool shouldAuth,
                             QVAuthorization::Session* rights) {
  if (existsHere(to)) {
    unlockFile(to);
  }
  unlockFolder(FileTree::join(to, FileTree::split(from).second));
  // Changing only the case of a name on a file system that ignores case: the destination is
  // the source itself, so the move goes through a free name. (Where case matters and another
  // item holds the destination, the direct move below fails as any move onto an item does.)
  if (equalsIgnoringCase(from, to) && (!existsHere(to) || sameItem(from, to))) {
    std::string temporary = uniqueFilename(to);
    if (temporary != to && FileTree::moveItem(from, temporary)) {
      if (FileTree::moveItem(temporary, to)) {
        return true;
      }
      (void)FileTree::moveItem(temporary, from); // back, for the direct attempt
    }
  }
  auto moved = FileTree::moveItem(from, to);
  if (moved) {
    return true;
  }
  QVLog::appendLog("Error moving file: {}.", printable(moved.message()));
  if (!shouldAuth) {
    return false;
  }
  QVLog::appendLog("Authorizing...");
  return rights != nullptr && rights->authMoveFile(from, to);
}

bool QVFileManager::trashDirectoryContents(const std::string& path, bool shouldAuth,
                                           QVAuthorization::Session* rights,
                                           const Environment& environment) {
  auto listing = FileTree::list(path);
  bool all = true;
  for (const auto& entry : listing ? listing->entries : std::vector<FileTree::Entry>{}) {
    all = trashFile(FileTree::join(path, entry.name), shouldAuth, rights, environment) && all;
  }
  return all;
}

// ---- Timeout variants

bool QVFileManager::trashFile(const std::string& path, Timeout timeout,
                              QVAuthorization::Session* rights, const Environment& environment) {
  if (!trashFile(path, true, rights, environment)) {
    return false;
  }
  return pollUntil(environment, timeout, [&] { return !existsHere(path); });
}

bool QVFileManager::removeFile(const std::string& path, Timeout timeout,
                               QVAuthorization::Session* rights, const Environment& environment) {
  if (!removeFile(path, true, rights)) {
    return false;
  }
  return pollUntil(environment, timeout, [&] { return !existsHere(path); });
}

bool QVFileManager::createDirectory(const std::string& path, Timeout timeout,
                                    QVAuthorization::Session* rights,
                                    const Environment& environment) {
  if (!createDirectory(path, true, rights)) {
    return false;
  }
  return pollUntil(environment, timeout, [&] { return existsHere(path); });
}

bool QVFileManager::copyFile(const std::optional<std::string>& from,
                             const std::optional<std::string>& to, Timeout timeout,
                             QVAuthorization::Session* rights, const Environment& environment) {
  if (!copyFile(from, to, true, rights)) {
    return false;
  }
  return pollUntil(environment, timeout, [&] { return existsHere(*to); });
}

bool QVFileManager::moveFile(const std::string& from, const std::string& to, Timeout timeout,
                             QVAuthorization::Session* rights, const Environment& environment) {
  if (!moveFile(from, to, true, rights)) {
    return false;
  }
  if (equalsIgnoringCase(from, to)) {
    // The source's name is the destination's: there is no disappearance to wait for.
    environment.clock.sleepFor(500us);
    return true;
  }
  return pollUntil(environment, timeout, [&] { return !existsHere(from); });
}

bool QVFileManager::copyContentsOfDirectory(const std::string& from, const std::string& to,
                                            Timeout timeout, QVAuthorization::Session* rights,
                                            const Environment& environment) {
  auto listing = FileTree::list(from);
  for (const auto& entry : listing ? listing->entries : std::vector<FileTree::Entry>{}) {
    QVLog::fastAppendLog("File: {}", printable(entry.name));
    if (!copyFile(FileTree::join(from, entry.name), FileTree::join(to, entry.name), timeout, rights,
                  environment)) {
      return false;
    }
  }
  return true;
}

} // namespace kestrin
