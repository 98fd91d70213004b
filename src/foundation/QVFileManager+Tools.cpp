// Compression through ditto, creating and touching files, and waiting for other writers.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/FileTree.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Clock.h"
#include "platform/FileDescriptor.h"
#include "platform/ToolTable.h"

namespace kestrin {

namespace {

using namespace std::chrono_literals;

bool existsHere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// A path as an argument: one that starts with "-" would read as a switch.
std::string asArgument(const std::string& path) {
  return !path.empty() && path.front() == '-' ? "./" + path : path;
}

std::optional<plist::Date> modificationDate(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return plist::Date::fromUnix(static_cast<double>(status.st_mtim.tv_sec) +
                               status.st_mtim.tv_nsec / 1e9);
}

} // namespace

bool QVFileManager::compressFile(const std::string& source, const std::string& destination,
                                 bool includeParent, QVAuthorization::Session* rights,
                                 const Environment& environment, QVTaskEx::TimeLimit limit) {
  if (existsHere(destination)) {
    trashFile(destination, true, rights, environment);
  }
  QVTaskEx::Arguments arguments = {"-ck"};
  if (includeParent) {
    arguments.emplace_back("--keepParent");
  }
  arguments.push_back(asArgument(source));
  arguments.push_back(asArgument(destination));
  QVTaskEx::runTask(environment.tools.path(platform::Tool::Ditto), arguments, limit);
  return existsHere(destination);
}

bool QVFileManager::decompressFile(const std::string& archive, const std::string& folder,
                                   const Environment& environment, QVTaskEx::TimeLimit limit) {
  if (existsHere(folder)) {
    recycle(folder, environment);
  }
  QVTaskEx::runTask(environment.tools.path(platform::Tool::Ditto),
                    {"-xk", asArgument(archive), asArgument(folder)}, limit);
  return existsHere(folder);
}

bool QVFileManager::createEmptyFile(const std::string& path, QVAuthorization::Session* rights,
                                    const Environment& environment) {
  std::string temporary = environment.paths.tempFile();
  platform::FileDescriptor file(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file) {
    return false;
  }
  file.reset();
  if (moveFile(temporary, path, true, rights)) {
    return true;
  }
  ::unlink(temporary.c_str());
  return false;
}

bool QVFileManager::touchFile(const std::optional<std::string>& path, bool /*setCreationDate*/,
                              QVAuthorization::Session* rights, const Environment& environment) {
  if (!path) {
    return false;
  }
  const std::string& touch = environment.tools.path(platform::Tool::Touch);
  const QVTaskEx::Arguments arguments = {"-c", "--", *path};
  if (::access(path->c_str(), W_OK) == 0) {
    QVTaskEx::runTask(touch, arguments, 5s);
    return true;
  }
  return rights != nullptr && rights->authExecTask(touch, arguments, false) == 0;
}

void QVFileManager::waitForFileCreation(const std::string& path, Timeout timeout,
                                        const platform::Clock& clock) {
  const auto start = clock.now();
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && status.st_size != 0) {
    return;
  }
  if (clock.now() - start < timeout) {
    QVLog::appendLog("File {} is not yet created. Waiting...", printable(path));
    clock.sleepFor(500us);
  }
}

void QVFileManager::waitForFileWrites(const std::string& path,
                                      const std::optional<std::string>& lockFile,
                                      const platform::Clock& clock) {
  constexpr double kQuiet = 4.0;
  auto beingWritten = [&](const std::optional<plist::Date>& modified) {
    if (!modified) {
      return false;
    }
    double age = clock.date().seconds - modified->seconds;
    return age < kQuiet && age > -kQuiet;
  };
  if (!beingWritten(modificationDate(path))) {
    if (!lockFile || !fileExistsAtPath(FileTree::join(FileTree::split(path).first, *lockFile))) {
      return;
    }
  }
  QVLog::appendLog("File {} is currently being written to. Waiting...", printable(path));
  do {
    clock.sleepFor(500us);
  } while (beingWritten(modificationDate(path)));
  QVLog::appendLog("File {} finished writing.", printable(path));
}

} // namespace kestrin
