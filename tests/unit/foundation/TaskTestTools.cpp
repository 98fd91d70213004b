#include "unit/foundation/TaskTestTools.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/QVLog.h"

// The shared QVLog's writer thread is never joined (a replaced or exiting log stays usable by
// threads that still hold it), which ThreadSanitizer would report as a leak at exit of every
// test program that logs. Only that thread's leak is suppressed.
extern "C" const char* __tsan_default_suppressions() {
  return "thread:kestrin::SerialQueue::SerialQueue\n";
}

namespace kestrin::testing {
namespace {

constexpr std::string_view kFakeToolSwitch = "--kestrin-fake-tool";

void writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      std::_Exit(3);
    }
    done += static_cast<std::size_t>(n);
  }
}

void listDescriptors() {
  DIR* dir = ::opendir("/proc/self/fd");
  std::string lines;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != ".." && std::stoi(name) != ::dirfd(dir)) {
      lines += name + "\n";
    }
  }
  ::closedir(dir);
  writeAll(STDOUT_FILENO, lines);
}

void signalState() {
  std::ifstream status("/proc/self/status");
  std::string line, lines;
  while (std::getline(status, line)) {
    if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0) {
      lines += line + "\n";
    }
  }
  writeAll(STDOUT_FILENO, lines);
}

// Runs before main: a test program started as a fake tool acts as that tool and exits without
// ever reaching GoogleTest (whose own output would spoil the tool's).
bool runAsFakeToolIfAsked() {
  std::vector<std::string> argv;
  {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    for (std::string arg; std::getline(in, arg, '\0');) {
      argv.push_back(arg);
    }
  } // closed before acting: "fds" must list only what the tool inherited
  if (argv.size() < 3 || argv[1] != kFakeToolSwitch) {
    return false;
  }
  if (argv[2] == "fds") {
    listDescriptors();
  } else if (argv[2] == "signals") {
    signalState();
  } else {
    std::_Exit(2);
  }
  std::_Exit(0);
}

[[maybe_unused]] const bool kRanAsFakeTool = runAsFakeToolIfAsked();

} // namespace

std::string selfPath() {
  return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::vector<std::string> fakeToolArguments(const std::string& mode) {
  return {std::string(kFakeToolSwitch), mode};
}

std::string writeScript(const TempDir& dir, const std::string& name, const std::string& body) {
  auto path = dir / name;
  writeText(path, "#!/bin/sh\n" + body + "\n");
  ::chmod(path.c_str(), 0755);
  return path.string();
}

std::vector<pid_t> zombieChildren() {
  std::vector<pid_t> zombies;
  const pid_t self = ::getpid();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    auto name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::ifstream stat(entry.path() / "stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so read after the last
    // ')'.
    auto close = text.rfind(')');
    if (close == std::string::npos) {
      continue;
    }
    std::istringstream rest(text.substr(close + 1));
    char state = 0;
    pid_t parent = 0;
    rest >> state >> parent;
    if (parent == self && state == 'Z') {
      zombies.push_back(std::stoi(name));
    }
  }
  return zombies;
}

bool zombiesGoneWithin(std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!zombieChildren().empty()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

namespace {

std::string logText() {
  static const TempDir folder;
  static const bool installed = [] {
    QVLog::Config config;
    config.userLogDirectory = (folder / "Logs").string();
    config.rootLogDirectory = (folder / "RootLogs").string();
    config.globalPrefsPath = (folder / "com.quorvane.global.plist").string();
    config.defaultAppName = "KestrinTest";
    auto log = std::make_unique<QVLog>(config);
    log->newLog();
    QVLog::setSharedController(std::move(log));
    return true;
  }();
  (void)installed;
  QVLog::finishWriting();
  return readText(QVLog::sharedController().currentLogPath());
}

} // namespace

CapturedLog::CapturedLog() : start_(logText().size()) {}

std::string CapturedLog::text() const {
  std::string all = logText();
  return all.size() >= start_ ? all.substr(start_) : all; // a rotation starts a new file
}

bool CapturedLog::containsWithin(const std::string& line, std::chrono::milliseconds limit) const {
  auto end = std::chrono::steady_clock::now() + limit;
  while (text().find(line) == std::string::npos) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

} // namespace kestrin::testing
