#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace kestrin {

class QVLocalPaths;
class QVSysInfo;

// The process-wide text log shared by the maker's applications: up to five numbered files per
// application ("%@.1.log" newest to "%@.5.log" oldest), one writer thread that writes every
// line in queue order so callers never touch the disk, a fresh file past 500,000 bytes, and a
// machine-wide off switch ("disable-logging" in com.quorvane.global.plist).
//
// Any thread may log. Short lines from worker threads are on disk when the call returns, so a
// log read right afterwards (by the administration application) contains them.
class QVLog {
public:
  // Where files go and what the header says. configFromEnvironment() fills it for this process.
  struct Config {
    std::string userLogDirectory; // the user's Library/Logs/Quorvane
    std::string rootLogDirectory; // the local domain's Library/Logs/Quorvane
    bool runningAsRoot = false;   // real user id 0: the current file lives in the root folder
    std::string globalPrefsPath;  // the user's Preferences/com.quorvane.global.plist
    std::string defaultAppName;   // used when createNewLog is given no name
    std::optional<std::string> bundleVersion;  // "Version: %@" header line when present
    std::optional<std::string> executablePath; // "Path: %@" header line when present
    std::string osVersion = "10.5.0";
    long cpuCount = 1;
    double ramGigabytes = 0; // physical memory in GB
    // The thread whose log() calls never wait for the writer; unset means the process's
    // initial thread (the one that runs main and the event loop).
    std::optional<std::thread::id> mainThread;
  };

  // For this process: folders from QVLocalPaths::shared(), the program's name from its
  // executable, the header facts from the machine.
  static Config configFromEnvironment();
  // The same with the folders of the given machine.
  static Config configFromPaths(const QVLocalPaths& paths);
  // The same with the header's facts from info, and the program's name, version and path from
  // executable: the version is the CFBundleVersion of the bundle that holds it, when it sits in
  // one (as the agent always does); no executable gives no "Path" line.
  static Config configFromPaths(const QVLocalPaths& paths, const QVSysInfo& info,
                                const std::optional<std::string>& executable);

  explicit QVLog(Config config);
  // Waits for pending lines (when fewer than 20 are queued) and closes the file.
  ~QVLog();
  QVLog(const QVLog&) = delete;
  QVLog& operator=(const QVLog&) = delete;

  // ---- instance interface (what tests and the class methods below use)

  // Rotates the numbered files, opens a fresh current file and writes the header. The first
  // non-empty name given sticks for the life of the instance.
  void newLog(const std::optional<std::string>& appName = std::nullopt);
  // Queues one line; a short line from a thread other than the main thread waits until written.
  void log(std::string message);
  // Queues one line and never waits.
  void logFast(std::string message);
  // Queues one line and prints it on standard output.
  void logAndPrint(std::string message);
  // Blocks until every queued line is written.
  void flush();
  // Existing files 1..5 of the user's log folder, newest first.
  std::vector<std::string> logs() const;
  // Flushes (unless 20 or more lines are pending) and closes: the orderly-exit path. Lines
  // logged afterwards are dropped. The shared instance also runs it when the process exits
  // through exit() or a return from main.
  void willTerminate();

  bool loggingDisabled() const;
  std::string currentLogPath() const;
  std::string appName() const;

  // ---- the class-level interface used throughout the agent, on the shared instance

  // Safe from any thread. The first call builds the instance from configFromEnvironment() and
  // installs the std::terminate handler that logs the uncaught exception's what() (logAndPrint),
  // flushes and aborts.
  static QVLog& sharedController();
  // Replaces the shared instance (start-up wiring and tests); the old one is flushed and closed
  // (willTerminate) but stays allocated, so a thread still holding it loses lines, not memory.
  static void setSharedController(std::unique_ptr<QVLog> log);

  static void createNewLog(const std::optional<std::string>& appName = std::nullopt) {
    sharedController().newLog(appName);
  }
  template <typename... Args>
  static void appendLog(fmt::format_string<Args...> format, Args&&... args) {
    sharedController().log(fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  static void fastAppendLog(fmt::format_string<Args...> format, Args&&... args) {
    sharedController().logFast(fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  static void appendLogAndPrint(fmt::format_string<Args...> format, Args&&... args) {
    sharedController().logAndPrint(fmt::format(format, std::forward<Args>(args)...));
  }
  static void finishWriting() { sharedController().flush(); }
  static std::vector<std::string> availableLogs() { return sharedController().logs(); }

  // A line for the system console (standard error), for the few messages that do not belong in
  // the agent's own log: set-up progress, failures of the log itself, system-directory refusals.
  template <typename... Args>
  static void console(fmt::format_string<Args...> format, Args&&... args) {
    writeConsole(fmt::format(format, std::forward<Args>(args)...));
  }
  static void writeConsole(std::string_view line);

private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace kestrin
