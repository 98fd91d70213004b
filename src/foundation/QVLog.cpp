#include "foundation/QVLog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVSysInfo.h"
#include "foundation/RecentLogLines.h"
#include "foundation/SerialQueue.h"
#include "platform/AtomicFile.h"
#include "platform/SystemFacts.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"
#include "plist/Value.h"
#include "support/Syscall.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

// The current file is replaced by a fresh one once a write takes it to this many bytes. The
// "Log truncated at 500KB" line names the same figure.
constexpr std::uint32_t kSizeLimit = 500000;
constexpr int kFileCount = 5;
// Worker-thread lines shorter than this wait for the writer, provided the backlog is too.
constexpr std::size_t kShortMessage = 100;
// willTerminate waits for the writer only when fewer lines than this are pending.
constexpr std::size_t kMaxPendingAtExit = 20;

constexpr std::string_view kWhiteSpace = " \t\n\r\v\f";

std::string_view trimmed(std::string_view text) {
  auto first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) {
    return {};
  }
  auto last = text.find_last_not_of(kWhiteSpace);
  return text.substr(first, last - first + 1);
}

// Characters, not bytes: UTF-8 continuation bytes do not start a character.
std::uint32_t characterCount(std::string_view text) {
  std::uint32_t count = 0;
  for (unsigned char c : text) {
    count += (c & 0xC0) != 0x80;
  }
  return count;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = retryOnEintr([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (n < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void printLine(std::string_view text) {
  std::string line(text);
  line += '\n';
  writeAll(STDOUT_FILENO, line);
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// "disable-logging" switches logging off as the string "1" or a number equal to true; a
// missing or unreadable settings file leaves it on.
bool disabledBySettings(const std::string& globalPrefsPath) {
  if (globalPrefsPath.empty()) {
    return false;
  }
  auto settings = plist::readFile(globalPrefsPath);
  if (!settings) {
    return false;
  }
  const plist::Value* flag = settings->get("disable-logging");
  if (flag == nullptr) {
    return false;
  }
  if (const std::string* text = flag->asString()) {
    return *text == "1";
  }
  auto number = flag->numberValue();
  return number && *number == 1.0;
}

} // namespace

class QVLog::Impl {
public:
  explicit Impl(Config c) : config(std::move(c)) {}

  void newLog(const std::optional<std::string>& name);
  void appendText(std::string_view message);
  void appendLog(std::string_view message);
  void writeLine(std::string_view text);
  void flush() { queue.drain(); }
  void terminate();

  bool isMainThread() const {
    if (config.mainThread) {
      return std::this_thread::get_id() == *config.mainThread;
    }
    return ::gettid() == ::getpid();
  }
  std::string effectiveNameLocked() const {
    if (appName) {
      return *appName;
    }
    return config.defaultAppName.empty() ? "Unknown" : config.defaultAppName;
  }
  std::string currentPathLocked() const {
    const std::string& folder =
        config.runningAsRoot ? config.rootLogDirectory : config.userLogDirectory;
    return folder + "/" + effectiveNameLocked() + ".1.log";
  }
  std::string numberedPath(const std::string& name, int n) const {
    return config.userLogDirectory + "/" + name + "." + std::to_string(n) + ".log";
  }

  const Config config;

  mutable std::mutex state; // the file, its byte count and the name
  std::optional<std::string> appName;
  int fd = -1;
  std::uint32_t bytesWritten = 0;

  std::atomic<bool> loggingDisabled{false};
  std::atomic<bool> terminated{false}; // no new lines are accepted
  std::atomic<bool> closed{false};     // the writer writes nothing more
  // Characters queued and not yet written: a hint for the flush decision, not an exact count.
  std::atomic<std::uint32_t> bytesInQueue{0};

  // Last member: destroyed first, so the writer has stopped before anything it uses goes.
  SerialQueue queue;
};

void QVLog::Impl::newLog(const std::optional<std::string>& name) {
  {
    std::lock_guard lock(state);
    if (fd >= 0) {
      ::close(fd);
      fd = -1;
    }
    if (disabledBySettings(config.globalPrefsPath)) {
      printLine("Logging is disabled");
      loggingDisabled = true;
      return;
    }
    if (name && !name->empty() && !appName) {
      appName = *name;
    }
    bytesWritten = 0;

    const std::string current = currentPathLocked();
    const std::string& folder = config.userLogDirectory;
    std::error_code error;
    if (!fs::is_directory(folder, error) && !fs::create_directories(folder, error)) {
      console("Unable to create folder {}.\n", folder);
      return;
    }
    // The local domain's folder for root's current file is made too, so that a first run as
    // root on a machine without it still gets a log.
    if (config.runningAsRoot) {
      std::string rootFolder = fs::path(current).parent_path().string();
      if (!fs::is_directory(rootFolder, error) && !fs::create_directories(rootFolder, error)) {
        console("Unable to create folder {}.\n", rootFolder);
        return;
      }
    }

    // Rotation always works in the user's folder, also when root's current file is elsewhere.
    if (exists(current)) {
      const std::string base = effectiveNameLocked();
      ::unlink(numberedPath(base, kFileCount).c_str());
      for (int n = kFileCount - 1; n >= 1; --n) {
        std::string from = numberedPath(base, n);
        if (!exists(from)) {
          continue;
        }
        std::string to = numberedPath(base, n + 1);
        if (::rename(from.c_str(), to.c_str()) != 0) {
          console("Unable to move file {} to {}.\n", from, to);
          return;
        }
      }
    }

    // Through a temporary and a rename, so the path never holds a half-made file.
    if (auto created = platform::writeFileAtomically(current, std::string_view(), 0644); !created) {
      console("Unable to create log file {} - {}\n", current, created.message());
      return;
    }
    fd = ::open(current.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
      return;
    }
  }

  appendText(fmt::format("Log started: {}\n", plist::Date::now().description()));
  if (config.bundleVersion) {
    appendText(fmt::format("Version: {}\n", *config.bundleVersion));
  }
  if (config.executablePath) {
    appendText(fmt::format("Path: {}\n", *config.executablePath));
  }
  appendLog(fmt::format("System: OS X {}, {} CPU(s), {:.2f} GB RAM\n", config.osVersion,
                        config.cpuCount, config.ramGigabytes));
  appendText(fmt::format("Running in {}-bit mode\n", sizeof(void*) * 8));
}

void QVLog::Impl::appendText(std::string_view message) {
  std::string_view text = trimmed(message);
  if (text.empty() || loggingDisabled || terminated) {
    return;
  }
  // Kept in memory too: a crash report quotes lines the writer may not have reached.
  RecentLogLines::shared().add(text);
  if (queue.isCurrent()) {
    // Lines the writer logs itself (the header of the fresh file at the size limit) are written
    // at once: queued, they would land behind lines meant for after them, and waiting for them
    // would wait for ourselves.
    writeLine(text);
    return;
  }
  std::uint32_t length = characterCount(text);
  bytesInQueue += length;
  queue.async([this, line = std::string(text), length] {
    writeLine(line);
    bytesInQueue -= length;
  });
}

void QVLog::Impl::appendLog(std::string_view message) {
  appendText(message);
  // A short line from a worker thread is on disk when this returns, as long as the writer is
  // not far behind; the main thread never waits.
  std::uint32_t length = characterCount(message);
  if (length >= 1 && length < kShortMessage && !isMainThread() &&
      bytesInQueue.load() < kShortMessage) {
    flush();
  }
}

void QVLog::Impl::writeLine(std::string_view text) {
  if (loggingDisabled || closed) {
    return;
  }
  bool full = false;
  std::string name;
  try {
    std::string line = plist::Date::now().description();
    line += " - ";
    line += text;
    line += '\n';

    std::lock_guard lock(state);
    if (closed) {
      return;
    }
    if (fd < 0) {
      // Nothing open yet (no newLog in this process, or it failed): append to whatever
      // current file exists; never create one here.
      fd = ::open(currentPathLocked().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
      if (fd < 0) {
        console("Unable to log the following information: {}\n", text);
        return;
      }
    }
    if (!writeAll(fd, line)) {
      if (!loggingDisabled) {
        console("Exception writing to log: {}\n", std::strerror(errno));
      }
      return;
    }
    bytesWritten += static_cast<std::uint32_t>(line.size());
    full = bytesWritten >= kSizeLimit;
    if (full) {
      name = effectiveNameLocked();
    }
  } catch (const std::exception& e) {
    if (!loggingDisabled) {
      console("Exception writing to log: {}\n", e.what());
    }
    return;
  }
  if (full) {
    // On the writer thread newLog writes its header directly (see appendText), so the fresh
    // file begins with the header and this line, ahead of anything still queued.
    newLog(name);
    appendText("Log truncated at 500KB");
  }
}

void QVLog::Impl::terminate() {
  if (terminated.exchange(true)) {
    return;
  }
  // With 20 or more lines pending the process does not wait and those lines are lost: exit
  // must not hang behind a flood of lines.
  if (queue.pending() < kMaxPendingAtExit) {
    flush();
  }
  queue.stop();
  std::lock_guard lock(state);
  closed = true;
  appName.reset();
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

// ---- QVLog

QVLog::Config QVLog::configFromEnvironment() {
  return configFromPaths(QVLocalPaths::shared());
}

QVLog::Config QVLog::configFromPaths(const QVLocalPaths& paths) {
  std::error_code error;
  fs::path executable = fs::read_symlink("/proc/self/exe", error);
  QVSysInfo info(paths, platform::SystemFacts::current());
  return configFromPaths(paths, info,
                         error ? std::nullopt : std::optional<std::string>(executable.string()));
}

QVLog::Config QVLog::configFromPaths(const QVLocalPaths& paths, const QVSysInfo& info,
                                     const std::optional<std::string>& executable) {
  Config config;
  config.userLogDirectory = paths.libraryDirectory(true).value_or("") + "/Logs/Quorvane";
  config.rootLogDirectory = paths.libraryDirectory(false).value_or("") + "/Logs/Quorvane";
  config.runningAsRoot = paths.runningAsRoot();
  config.globalPrefsPath = paths.prefsDirectory(true).value_or("") + "/com.quorvane.global.plist";

  if (executable) {
    config.defaultAppName = fs::path(*executable).stem().string();
    config.executablePath = *executable;
    if (auto bundle = platform::Workspace({}, executable).mainBundle()) {
      const plist::Value* version = bundle->info.find("CFBundleVersion");
      if (version && version->asString()) {
        config.bundleVersion = *version->asString();
      }
    }
  }

  config.osVersion = info.OSXVersionString();
  config.cpuCount = info.processorCount();
  config.ramGigabytes = info.physicalRAMSize() / 1024.0;
  return config;
}

QVLog::QVLog(Config config) : impl_(std::make_unique<Impl>(std::move(config))) {}

QVLog::~QVLog() {
  impl_->terminate();
}

void QVLog::newLog(const std::optional<std::string>& appName) {
  impl_->newLog(appName);
}

void QVLog::log(std::string message) {
  impl_->appendLog(message);
}

void QVLog::logFast(std::string message) {
  impl_->appendText(message);
}

void QVLog::logAndPrint(std::string message) {
  std::string text(trimmed(message));
  log(text);
  printLine(text);
}

void QVLog::flush() {
  impl_->flush();
}

std::vector<std::string> QVLog::logs() const {
  std::string name;
  {
    std::lock_guard lock(impl_->state);
    name = impl_->effectiveNameLocked();
  }
  std::vector<std::string> paths;
  for (int n = 1; n <= kFileCount; ++n) {
    std::string path = impl_->numberedPath(name, n);
    if (exists(path)) {
      paths.push_back(std::move(path));
    }
  }
  return paths;
}

void QVLog::willTerminate() {
  impl_->terminate();
}

bool QVLog::loggingDisabled() const {
  return impl_->loggingDisabled;
}

std::string QVLog::currentLogPath() const {
  std::lock_guard lock(impl_->state);
  return impl_->currentPathLocked();
}

std::string QVLog::appName() const {
  std::lock_guard lock(impl_->state);
  return impl_->effectiveNameLocked();
}

namespace {

// The length of the UTF-8 sequence that starts text at i, or 0 when it is not a valid one.
std::size_t utf8Length(std::string_view text, std::size_t i) {
  auto c = static_cast<unsigned char>(text[i]);
  std::size_t length = c < 0x80           ? 1
                       : (c >> 5) == 0x6  ? 2
                       : (c >> 4) == 0xE  ? 3
                       : (c >> 3) == 0x1E ? 4
                                          : 0;
  if (length == 0 || i + length > text.size() || (length == 2 && c < 0xC2)) {
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

// The code point of a valid sequence.
std::uint32_t codePoint(std::string_view text, std::size_t i, std::size_t length) {
  static constexpr unsigned char kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  std::uint32_t point = static_cast<unsigned char>(text[i]) & kLeadMask[length];
  for (std::size_t k = 1; k < length; ++k) {
    point = (point << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
  }
  return point;
}

bool startsALineOrControls(std::uint32_t point) {
  return point < 0x20 || (point >= 0x7F && point <= 0x9F) || point == 0x2028 || point == 0x2029;
}

} // namespace

bool QVLog::needsEscaping(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7F) {
      ++i;
      continue;
    }
    std::size_t length = utf8Length(text, i);
    if (length == 0 || startsALineOrControls(codePoint(text, i, length))) {
      return true;
    }
    i += length;
  }
  return false;
}

std::string QVLog::escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    std::size_t length = utf8Length(text, i);
    if (length == 0) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[i]));
      ++i;
      continue;
    }
    std::uint32_t point = codePoint(text, i, length);
    if (!startsALineOrControls(point)) {
      out.append(text.substr(i, length));
    } else if (point == '\n') {
      out += "\\n";
    } else if (point == '\r') {
      out += "\\r";
    } else if (point == '\t') {
      out += "\\t";
    } else if (point < 0x80) {
      out += fmt::format("\\x{:02x}", point);
    } else {
      out += fmt::format("\\u{:04x}", point);
    }
    i += length;
  }
  return out;
}

void QVLog::writeConsole(std::string_view line) {
  // One write per line: lines from several threads come out whole, never interleaved.
  std::string text(line);
  if (text.empty() || text.back() != '\n') {
    text += '\n';
  }
  writeAll(STDERR_FILENO, text);
}

// ---- the shared instance

namespace {

std::mutex sharedMutex;
std::atomic<QVLog*> sharedLog{nullptr};

// Instances replaced by setSharedController. Never freed: another thread may still hold a
// reference it got from sharedController() a moment before the swap.
std::vector<std::unique_ptr<QVLog>>& retiredLogs() {
  static auto* retired = new std::vector<std::unique_ptr<QVLog>>;
  return *retired;
}

[[noreturn]] void logUncaughtException() {
  static std::atomic<bool> entered{false};
  // A second terminate (from the logging itself, or another thread) goes straight to abort.
  if (!entered.exchange(true)) {
    std::string reason;
    if (std::exception_ptr current = std::current_exception()) {
      try {
        std::rethrow_exception(current);
      } catch (const std::exception& e) {
        reason = e.what();
      } catch (...) {
        reason = "Uncaught exception of unknown type";
      }
    }
    try {
      QVLog& log = QVLog::sharedController();
      if (!reason.empty()) {
        log.logAndPrint(reason);
      }
      log.flush();
    } catch (...) {
    }
  }
  std::abort();
}

// Runs once per process, whichever of sharedController and setSharedController comes first.
void installProcessHooks() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::set_terminate(logUncaughtException);
    // The counterpart of observing application-will-terminate: a normal exit flushes the log.
    std::atexit([] {
      if (QVLog* log = sharedLog.load()) {
        log->willTerminate();
      }
    });
  });
}

} // namespace

QVLog& QVLog::sharedController() {
  if (QVLog* log = sharedLog.load(std::memory_order_acquire)) {
    return *log;
  }
  std::lock_guard lock(sharedMutex);
  if (sharedLog.load() == nullptr) {
    sharedLog.store(new QVLog(configFromEnvironment()), std::memory_order_release);
  }
  installProcessHooks();
  return *sharedLog.load();
}

void QVLog::setSharedController(std::unique_ptr<QVLog> log) {
  QVLog* previous = nullptr;
  {
    std::lock_guard lock(sharedMutex);
    previous = sharedLog.exchange(log.release(), std::memory_order_acq_rel);
    if (previous != nullptr) {
      retiredLogs().emplace_back(previous);
    }
  }
  installProcessHooks();
  if (previous != nullptr) {
    previous->willTerminate();
  }
}

} // namespace kestrin
