#pragma once

#include <csignal>
#include <cstddef>
#include <string>

namespace kestrin {

class RecentLogLines;

// Writes the process's own crash report from inside a signal handler: a file
// "<application>_<YYYY-MM-DD>-<HHMMSS>_<host>.crash" in the crash-report folder, holding the
// signal, the faulting address, the backtrace of the crashing thread with the symbols the
// dynamic linker knows, the version, and the last lines of the log.
//
// Everything that needs memory, a lock or the time zone is prepared by the constructor, in
// ordinary code: write() uses fixed buffers and async-signal-safe calls only (open, write,
// clock_gettime, the preloaded unwinder). The names sort by time, so crash detection at the
// next start, which takes the last "<application>_" report of the folder, finds the newest.
class CrashReportWriter {
public:
  struct Facts {
    std::string folder;          // the user's Logs/CrashReporter; made when missing
    std::string applicationName; // the file names' prefix: "Kestrin"
    std::string identifier;      // the bundle identifier
    std::string version;         // "1.0.0 (100)"
    std::string hostName;        // the short host name, as file names carry it
    std::string executablePath;
  };

  // Longer facts are cut to this many bytes.
  static constexpr std::size_t kFactLength = 512;
  static constexpr int kMaxFrames = 64;

  explicit CrashReportWriter(const Facts& facts);
  CrashReportWriter(const CrashReportWriter&) = delete;
  CrashReportWriter& operator=(const CrashReportWriter&) = delete;

  // Writes the report for `signal` (info and context as the handler received them; either may
  // be null) with the lines of `log`. Async-signal-safe; answers whether a report was written.
  bool write(int signal, const siginfo_t* info, const void* context,
             const RecentLogLines& log) const noexcept;

private:
  struct Text {
    char bytes[kFactLength + 1] = {};
    std::size_t length = 0;
  };
  static void copy(Text& into, const std::string& from);

  Text folder_;
  Text applicationName_;
  Text identifier_;
  Text version_;
  Text hostName_;
  Text executablePath_;
  // Local time's offset from UTC when the writer was made: converting at crash time would need
  // the time-zone database, which takes locks.
  long utcOffsetSeconds_ = 0;
};

} // namespace kestrin
