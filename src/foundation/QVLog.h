#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
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
//
// The format of a line is code; its arguments are data, often a remote caller's. Every text
// argument is written escaped (see escaped()), so that no argument can start a line of its own
// or send a terminal a control sequence: the class-level calls below do it, so no call site
// can forget it.
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
    sharedController().log(line(fmt::string_view(format), args...));
  }
  template <typename... Args>
  static void fastAppendLog(fmt::format_string<Args...> format, Args&&... args) {
    sharedController().logFast(line(fmt::string_view(format), args...));
  }
  template <typename... Args>
  static void appendLogAndPrint(fmt::format_string<Args...> format, Args&&... args) {
    sharedController().logAndPrint(line(fmt::string_view(format), args...));
  }
  static void finishWriting() { sharedController().flush(); }
  static std::vector<std::string> availableLogs() { return sharedController().logs(); }

  // A line for the system console (standard error), for the few messages that do not belong in
  // the agent's own log: set-up progress, failures of the log itself, system-directory refusals.
  template <typename... Args>
  static void console(fmt::format_string<Args...> format, Args&&... args) {
    writeConsole(line(fmt::string_view(format), args...));
  }
  static void writeConsole(std::string_view line);

  // Text fit for one log line: line breaks, tabs and other control characters (C0, DEL, C1),
  // the Unicode line and paragraph separators, and bytes that are not UTF-8 come out as
  // "\n", "\r", "\t", "\xNN" or "\uNNNN". Backslashes stay as they are, so text escaped once
  // (as QVFileManager escapes paths) comes out unchanged.
  static std::string escaped(std::string_view text);
  // Whether escaped() would change the text.
  static bool needsEscaping(std::string_view text);

  // A text argument on its way into a line; formats as its escaped form.
  struct Argument {
    std::string_view text;
  };

private:
  // The line that a format, checked where it was written, and its arguments make, every text
  // argument escaped.
  template <typename... Args>
  static std::string line(fmt::string_view format, const Args&... args) {
    return formatted(format, logged(args)...);
  }
  template <typename T> static decltype(auto) logged(const T& argument) {
    if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      return Argument{std::string_view(argument)};
    } else {
      return (argument);
    }
  }
  template <typename... Args>
  static std::string formatted(fmt::string_view format, const Args&... args) {
    return fmt::vformat(format, fmt::make_format_args(args...));
  }

  class Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace kestrin

template <> struct fmt::formatter<kestrin::QVLog::Argument> : fmt::formatter<std::string_view> {
  template <typename Context> auto format(const kestrin::QVLog::Argument& argument, Context& ctx) {
    if (!kestrin::QVLog::needsEscaping(argument.text)) {
      return fmt::formatter<std::string_view>::format(argument.text, ctx);
    }
    return fmt::formatter<std::string_view>::format(kestrin::QVLog::escaped(argument.text), ctx);
  }
};
