#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin {
class QVLocalPaths;
}

namespace kestrin::operations {

// Where the crash reports of the video applications and the agent's own logs live, which of
// their names count, and how a path that a remote caller sends is held to those folders.
//
// A path is inside a folder when its parent, resolved to its real path, is that folder's real
// path: ".." and links to other folders do not pass, and a name that is "." or ".." names no
// entry. Thread-safe: nothing is kept but the paths.
class CrashLogFolders {
public:
  explicit CrashLogFolders(const QVLocalPaths& paths) : paths_(paths) {}

  // A folder of the agent's own logs and the names that count in it.
  struct LogFolder {
    std::string path;
    bool (*keeps)(std::string_view name);
  };

  // The five folders that crash reports are gathered from, in the order that decides which of
  // two reports of the same name counts: Tovell's saved logs, the user's CrashReporter, the
  // local CrashReporter, the user's DiagnosticReports, the local DiagnosticReports.
  std::vector<std::string> crashReportFolders() const;
  // The user's CrashReporter, into which consolidation gathers reports.
  std::string userCrashReportFolder() const;
  // The agent's logs and its own crash reports: the user's Quorvane logs and CrashReporter,
  // then the local ones.
  std::vector<LogFolder> agentLogFolders() const;

  // Whether the path names an entry directly inside one of the crash-report folders.
  bool inCrashReportFolder(const std::string& path) const;
  // Whether the path is one that the agent's log listing could name (folder and name rule).
  bool isAgentLog(const std::string& path) const;

private:
  const QVLocalPaths& paths_;
};

// The name rule of the video applications' reports: ends in ".crash" and begins with one of
// the applications' prefixes, ignoring case. The prefixes are taken exactly as the admin side
// has always matched them, "Adobe Premiere Pro" without its underscore included.
bool isVideoApplicationCrashReport(std::string_view name);
// "<anything>.log" and "Kestrin_<anything>.crash", case counting.
bool isAgentLogName(std::string_view name);
bool isAgentCrashReportName(std::string_view name);

// The last path component up to its first "_"; the whole component when it has no "_" or
// nothing before it.
std::string appNameFromCrashLogFilename(std::string_view path);

// Listings stop here: a folder of more reports than this is not a crash-report folder.
inline constexpr std::size_t kListingLimit = 10'000;

// The names of the regular files directly in the folder (links and folders left out), in name
// order. Names that are not UTF-8 are left out too, with a log line: they cannot travel as
// text. A Failure carries the system's reason.
Expected<std::vector<std::string>> listRegularFiles(const std::string& folder);

// Whether anything, a dangling link included, is at the path.
bool entryExists(const std::string& path);

// The whole file, when it is a regular file (not a link, a pipe or a device, which could make
// a read hang) of at most `limit` bytes.
Expected<plist::Data> readRegularFile(const std::string& path, std::size_t limit);

// A path fit for one log line: control characters and bytes that are not UTF-8 escaped as \xNN,
// so a caller's path can never forge a line of the log.
std::string printablePath(std::string_view path);

} // namespace kestrin::operations
