#include "foundation/CrashReportWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string_view>

#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "foundation/RecentLogLines.h"

namespace kestrin {

namespace {

// Everything below runs inside a signal handler: no allocation, no locks, no stdio.

// Output gathered in a fixed buffer and written in few system calls.
class Sink {
public:
  explicit Sink(int fd) : fd_(fd) {}

  void put(std::string_view text) {
    for (char c : text) {
      if (used_ == sizeof buffer_) {
        flush();
      }
      buffer_[used_++] = c;
    }
  }
  void put(char c) { put(std::string_view(&c, 1)); }
  void putDecimal(std::int64_t value, int width = 0) {
    char digits[24];
    int n = 0;
    std::uint64_t magnitude =
        value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    do {
      digits[n++] = static_cast<char>('0' + magnitude % 10);
      magnitude /= 10;
    } while (magnitude != 0);
    while (n < width) {
      digits[n++] = '0';
    }
    if (value < 0) {
      put('-');
    }
    while (n > 0) {
      put(digits[--n]);
    }
  }
  void putHex(std::uintptr_t value) {
    put("0x");
    for (int shift = static_cast<int>(sizeof value * 8) - 4; shift >= 0; shift -= 4) {
      put("0123456789abcdef"[(value >> shift) & 0xf]);
    }
  }
  // A line of the log or a fact: control characters would break the report's lines.
  void putPrintable(std::string_view text) {
    for (char c : text) {
      put(static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c);
    }
  }
  void flush() {
    const char* at = buffer_;
    while (used_ > 0) {
      ssize_t n = ::write(fd_, at, used_);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        break;
      }
      at += n;
      used_ -= static_cast<std::size_t>(n);
    }
    used_ = 0;
  }

private:
  int fd_;
  char buffer_[1024];
  std::size_t used_ = 0;
};

struct CivilTime {
  std::int64_t year;
  int month, day, hour, minute, second;
};

// Days since 1970-01-01 to a proleptic Gregorian date (H. Hinnant's civil_from_days): plain
// arithmetic, where gmtime_r and localtime_r may take locks.
CivilTime civilTime(std::int64_t seconds) {
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  days += 719468;
  std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  std::int64_t dayOfEra = days - era * 146097;
  std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  std::int64_t mp = (5 * dayOfYear + 2) / 153;
  int day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
  int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  return {year,
          month,
          day,
          static_cast<int>(rest / 3600),
          static_cast<int>(rest / 60 % 60),
          static_cast<int>(rest % 60)};
}

// "2026-11-23 19:57:00 +0100": the log's own way of writing a date.
void putDate(Sink& out, std::int64_t unixSeconds, long offset) {
  CivilTime t = civilTime(unixSeconds + offset);
  out.putDecimal(t.year, 4);
  out.put('-');
  out.putDecimal(t.month, 2);
  out.put('-');
  out.putDecimal(t.day, 2);
  out.put(' ');
  out.putDecimal(t.hour, 2);
  out.put(':');
  out.putDecimal(t.minute, 2);
  out.put(':');
  out.putDecimal(t.second, 2);
  out.put(offset < 0 ? " -" : " +");
  long magnitude = offset < 0 ? -offset : offset;
  out.putDecimal(magnitude / 3600, 2);
  out.putDecimal(magnitude / 60 % 60, 2);
}

const char* signalName(int signal) {
  switch (signal) {
  case SIGSEGV:
    return "SIGSEGV (Segmentation fault)";
  case SIGBUS:
    return "SIGBUS (Bus error)";
  case SIGFPE:
    return "SIGFPE (Arithmetic exception)";
  case SIGILL:
    return "SIGILL (Illegal instruction)";
  case SIGABRT:
    return "SIGABRT (Abort)";
  default:
    return nullptr;
  }
}

// The kernel's reason for a fault; null for codes that name no fault.
const char* codeName(int signal, int code) {
  if (code <= 0) {
    switch (code) {
    case SI_USER:
      return "SI_USER";
    case SI_TKILL:
      return "SI_TKILL";
    case SI_QUEUE:
      return "SI_QUEUE";
    default:
      return nullptr;
    }
  }
  switch (signal) {
  case SIGSEGV:
    return code == SEGV_MAPERR ? "SEGV_MAPERR" : code == SEGV_ACCERR ? "SEGV_ACCERR" : nullptr;
  case SIGBUS:
    return code == BUS_ADRALN   ? "BUS_ADRALN"
           : code == BUS_ADRERR ? "BUS_ADRERR"
           : code == BUS_OBJERR ? "BUS_OBJERR"
                                : nullptr;
  case SIGFPE:
    return code == FPE_INTDIV   ? "FPE_INTDIV"
           : code == FPE_INTOVF ? "FPE_INTOVF"
           : code == FPE_FLTDIV ? "FPE_FLTDIV"
           : code == FPE_FLTINV ? "FPE_FLTINV"
                                : nullptr;
  case SIGILL:
    return code == ILL_ILLOPC   ? "ILL_ILLOPC"
           : code == ILL_ILLOPN ? "ILL_ILLOPN"
           : code == ILL_PRVOPC ? "ILL_PRVOPC"
                                : nullptr;
  default:
    return nullptr;
  }
}

// Where the crashing thread was when the signal came, when the context tells.
std::uintptr_t faultingInstruction(const void* context) {
  if (context == nullptr) {
    return 0;
  }
  const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  return static_cast<std::uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return static_cast<std::uintptr_t>(uc->uc_mcontext.pc);
#else
  (void)uc;
  return 0;
#endif
}

void putFact(Sink& out, std::string_view label, std::string_view value) {
  out.put(label);
  out.putPrintable(value);
  out.put('\n');
}

} // namespace

void CrashReportWriter::copy(Text& into, const std::string& from) {
  into.length = std::min(from.size(), kFactLength);
  std::copy_n(from.data(), into.length, into.bytes);
  into.bytes[into.length] = '\0';
}

CrashReportWriter::CrashReportWriter(const Facts& facts) {
  copy(folder_, facts.folder);
  copy(applicationName_, facts.applicationName.empty() ? "Unknown" : facts.applicationName);
  copy(identifier_, facts.identifier);
  copy(version_, facts.version);
  copy(executablePath_, facts.executablePath);
  // The host name becomes part of a file name: nothing in it may separate or hide a path.
  std::string host = facts.hostName.empty() ? "localhost" : facts.hostName;
  for (char& c : host) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = '_';
    }
  }
  copy(hostName_, host);

  std::time_t now = std::time(nullptr);
  std::tm local{};
  if (::localtime_r(&now, &local) != nullptr) {
    utcOffsetSeconds_ = local.tm_gmtoff;
  }
  std::error_code ignored;
  std::filesystem::create_directories(facts.folder, ignored);
  // The first backtrace() loads the unwinder, which allocates: do it now, not in the handler.
  void* frames[2];
  ::backtrace(frames, 2);
}

bool CrashReportWriter::write(int signal, const siginfo_t* info, const void* context,
                              const RecentLogLines& log) const noexcept {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  CivilTime t = civilTime(now.tv_sec + utcOffsetSeconds_);

  // <folder>/<application>_YYYY-MM-DD-HHMMSS_<host>[-n].crash
  char path[3 * kFactLength + 64];
  std::size_t length = 0;
  auto append = [&](std::string_view part) {
    for (char c : part) {
      if (length + 1 < sizeof path) {
        path[length++] = c;
      }
    }
  };
  auto appendNumber = [&](std::int64_t value, int width) {
    char digits[24];
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value > 0);
    while (n < width) {
      digits[n++] = '0';
    }
    while (n > 0) {
      append(std::string_view(&digits[--n], 1));
    }
  };
  append(std::string_view(folder_.bytes, folder_.length));
  std::size_t folderEnd = length;
  append("/");
  append(std::string_view(applicationName_.bytes, applicationName_.length));
  append("_");
  appendNumber(t.year, 4);
  append("-");
  appendNumber(t.month, 2);
  append("-");
  appendNumber(t.day, 2);
  append("-");
  appendNumber(t.hour, 2);
  appendNumber(t.minute, 2);
  appendNumber(t.second, 2);
  append("_");
  append(std::string_view(hostName_.bytes, hostName_.length));
  std::size_t stem = length;

  path[folderEnd] = '\0';
  ::mkdir(path, 0700); // gone since start-up: make it again, one level
  path[folderEnd] = '/';

  int fd = -1;
  // Two crashes in one second (a restart that crashes at once) keep both reports.
  for (int attempt = 1; attempt <= 9 && fd < 0; ++attempt) {
    length = stem;
    if (attempt > 1) {
      append("-");
      appendNumber(attempt, 1);
    }
    append(".crash");
    path[length] = '\0';
    fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && errno != EEXIST) {
      return false;
    }
  }
  if (fd < 0) {
    return false;
  }

  Sink out(fd);
  out.put("Process:         ");
  out.putPrintable(std::string_view(applicationName_.bytes, applicationName_.length));
  out.put(" [");
  out.putDecimal(::getpid());
  out.put("]\n");
  putFact(out,
          "Path:            ", std::string_view(executablePath_.bytes, executablePath_.length));
  putFact(out, "Identifier:      ", std::string_view(identifier_.bytes, identifier_.length));
  putFact(out, "Version:         ", std::string_view(version_.bytes, version_.length));
  putFact(out, "Host:            ", std::string_view(hostName_.bytes, hostName_.length));
  out.put("Date/Time:       ");
  putDate(out, now.tv_sec, utcOffsetSeconds_);
  out.put("\n");
  long thread = ::syscall(SYS_gettid);
  out.put("Crashed Thread:  ");
  out.putDecimal(thread);
  out.put("\n\nException Type:  ");
  if (const char* name = signalName(signal)) {
    out.put(name);
  } else {
    out.put("signal ");
    out.putDecimal(signal);
  }
  out.put("\nException Codes: ");
  int code = info != nullptr ? info->si_code : 0;
  if (const char* name = codeName(signal, code)) {
    out.put(name);
  } else {
    out.put("code ");
    out.putDecimal(code);
  }
  if (info != nullptr && code <= 0) {
    out.put(" from process ");
    out.putDecimal(info->si_pid);
  } else {
    out.put(" at ");
    out.putHex(reinterpret_cast<std::uintptr_t>(info != nullptr ? info->si_addr : nullptr));
  }

  out.put("\n\nThread ");
  out.putDecimal(thread);
  out.put(" Crashed:\n");
  void* frames[kMaxFrames];
  int count = ::backtrace(frames, kMaxFrames);
  // The unwinder starts in this handler; the report starts where the thread was interrupted.
  int first = 0;
  if (std::uintptr_t pc = faultingInstruction(context)) {
    for (int i = 0; i < count; ++i) {
      if (reinterpret_cast<std::uintptr_t>(frames[i]) == pc) {
        first = i;
        break;
      }
    }
  }
  for (int i = first; i < count; ++i) {
    out.putDecimal(i - first);
    out.put(i - first < 10 ? "    " : "   ");
    out.flush();
    // Writes "object(symbol+offset) [address]" straight to the file, without allocating.
    ::backtrace_symbols_fd(&frames[i], 1, fd);
  }

  out.put("\nLast lines of the log:\n");
  log.forEach([&](std::string_view line, std::int64_t when) {
    putDate(out, when, utcOffsetSeconds_);
    out.put(" - ");
    out.putPrintable(line);
    out.put('\n');
  });
  out.flush();
  ::fsync(fd);
  ::close(fd);
  return true;
}

} // namespace kestrin
