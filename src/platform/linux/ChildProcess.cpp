#include "platform/ChildProcess.h"

#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Syscall.h"

namespace kestrin::platform {
namespace {

// A descriptor numbered 0, 1 or 2 (possible when the agent was started with a standard stream
// closed) would be overwritten by the child's own dup2 onto 0..2 before it is used; moving
// everything above 2 makes the order of the file actions irrelevant.
Expected<FileDescriptor> aboveStandardStreams(FileDescriptor fd) {
  if (fd.get() > STDERR_FILENO) {
    return fd;
  }
  int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) {
    return Failure{errnoMessage("fcntl(F_DUPFD_CLOEXEC)")};
  }
  return FileDescriptor(moved);
}

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

Expected<Pipe> makePipe() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return Failure{errnoMessage("pipe2")};
  }
  auto readEnd = aboveStandardStreams(FileDescriptor(fds[0]));
  auto writeEnd = aboveStandardStreams(FileDescriptor(fds[1]));
  if (!readEnd) {
    return readEnd.failure();
  }
  if (!writeEnd) {
    return writeEnd.failure();
  }
  return Pipe{std::move(*readEnd), std::move(*writeEnd)};
}

Expected<FileDescriptor> openNullDevice() {
  int fd = retryOnEintr([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC); });
  if (fd < 0) {
    return Failure{errnoMessage("open /dev/null")};
  }
  return aboveStandardStreams(FileDescriptor(fd));
}

// Whether a live process other than `leader` is in process group `group`. The leader's own
// zombie still counts for kill(), so the process table is read instead.
bool othersInGroup(pid_t group, pid_t leader) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    pid_t pid = 0;
    auto [rest, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || rest != name.data() + name.size() || pid == leader) {
      continue;
    }
    // "pid (command) state ppid pgrp ...": the command may hold spaces and parentheses.
    std::ifstream stat(it->path() / "stat");
    std::string line;
    std::getline(stat, line);
    auto close = line.rfind(')');
    if (close == std::string::npos) {
      continue;
    }
    char state = 0;
    long parent = 0;
    long processGroup = 0;
    std::istringstream fields(line.substr(close + 1));
    if (fields >> state >> parent >> processGroup && processGroup == group && state != 'Z' &&
        state != 'X') {
      return true;
    }
  }
  return false;
}

Termination decode(int status) {
  if (WIFSIGNALED(status)) {
    return {Termination::Reason::Signal, WTERMSIG(status)};
  }
  return {Termination::Reason::Exit, WEXITSTATUS(status)};
}

// posix_spawn's attribute and file-action objects, destroyed on every path out.
class SpawnSetup {
public:
  SpawnSetup() {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&actions_);
  }
  ~SpawnSetup() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

} // namespace

Expected<std::shared_ptr<ChildProcess>> ChildProcess::launch(const LaunchRequest& request) {
  if (request.path.empty()) {
    return Failure{"no launch path"};
  }

  // The agent's ends of every pipe are close-on-exec from birth, so a child launched by another
  // thread at the same moment never holds them (which would keep our reads from seeing EOF).
  auto input = makePipe();
  if (!input) {
    return input.failure();
  }
  std::optional<Pipe> output;
  std::optional<Pipe> error;
  FileDescriptor nullDevice;
  FileDescriptor outputCutOff;
  if (request.standardOutput == StreamTarget::Pipe || request.standardError == StreamTarget::Pipe) {
    outputCutOff.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!outputCutOff) {
      return Failure{errnoMessage("eventfd")};
    }
  }
  for (auto [target, pipe] :
       {std::pair{request.standardOutput, &output}, std::pair{request.standardError, &error}}) {
    if (target == StreamTarget::Pipe) {
      auto made = makePipe();
      if (!made) {
        return made.failure();
      }
      *pipe = std::move(*made);
    } else if (target == StreamTarget::Null && !nullDevice) {
      auto opened = openNullDevice();
      if (!opened) {
        return opened.failure();
      }
      nullDevice = std::move(*opened);
    }
  }

  if (!request.standardInput.empty()) {
    constexpr std::size_t kPipeBuffer = 64 * 1024;
    if (request.standardInput.size() > kPipeBuffer) {
      return Failure{"standard input larger than a pipe buffer"};
    }
    std::size_t written = 0;
    while (written < request.standardInput.size()) {
      ssize_t n = retryOnEintr([&] {
        return ::write(input->writeEnd.get(), request.standardInput.data() + written,
                       request.standardInput.size() - written);
      });
      if (n <= 0) {
        return Failure{errnoMessage("cannot fill standard input")};
      }
      written += static_cast<std::size_t>(n);
    }
  }

  SpawnSetup setup;
  auto childEndOf = [&](StreamTarget target, const std::optional<Pipe>& pipe) {
    return target == StreamTarget::Pipe ? pipe->writeEnd.get() : nullDevice.get();
  };
  int rc = ::posix_spawn_file_actions_adddup2(&setup.actions_, input->readEnd.get(), STDIN_FILENO);
  if (rc == 0 && request.standardOutput != StreamTarget::Inherit) {
    rc = ::posix_spawn_file_actions_adddup2(
        &setup.actions_, childEndOf(request.standardOutput, output), STDOUT_FILENO);
  }
  if (rc == 0 && request.standardError != StreamTarget::Inherit) {
    rc = ::posix_spawn_file_actions_adddup2(
        &setup.actions_, childEndOf(request.standardError, error), STDERR_FILENO);
  }
  // close-on-exec alone is not enough: a library or another thread may open descriptors
  // without it, and the agent's listening sockets must never outlive it in a tool.
  if (rc == 0) {
    rc = ::posix_spawn_file_actions_addclosefrom_np(&setup.actions_, STDERR_FILENO + 1);
  }
  sigset_t signals;
  ::sigemptyset(&signals);
  if (rc == 0) {
    rc = ::posix_spawnattr_setsigmask(&setup.attributes_, &signals);
  }
  ::sigfillset(&signals);
  if (rc == 0) {
    rc = ::posix_spawnattr_setsigdefault(&setup.attributes_, &signals);
  }
  // A group of its own: a time limit then reaches whatever the tool started as well.
  if (rc == 0) {
    rc = ::posix_spawnattr_setpgroup(&setup.attributes_, 0);
  }
  if (rc == 0) {
    rc = ::posix_spawnattr_setflags(
        &setup.attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                (request.newSession ? POSIX_SPAWN_SETSID : POSIX_SPAWN_SETPGROUP));
  }
  if (rc != 0) {
    return Failure{errnoMessage("posix_spawn set-up", rc)};
  }

  std::vector<std::string> environmentEntries;
  std::vector<char*> environment;
  if (request.environment) {
    for (const auto& [name, value] : *request.environment) {
      environmentEntries.push_back(name + "=" + value);
    }
    for (auto& entry : environmentEntries) {
      environment.push_back(entry.data());
    }
    environment.push_back(nullptr);
  }
  std::vector<std::string> argumentStorage;
  argumentStorage.reserve(request.arguments.size() + 1);
  argumentStorage.push_back(request.path);
  argumentStorage.insert(argumentStorage.end(), request.arguments.begin(), request.arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argumentStorage) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  pid_t pid = -1;
  // glibc's posix_spawn reports a failed exec through its result, so a missing or
  // non-executable program is a Failure here rather than a child that exits with 127.
  rc = ::posix_spawn(&pid, request.path.c_str(), &setup.actions_, &setup.attributes_, argv.data(),
                     request.environment ? environment.data() : environ);
  if (rc != 0) {
    return Failure{std::strerror(rc)};
  }

  // Leaving this scope closes the child's ends of the pipes, the null device and the write end
  // of standard input: the child is the only writer left and its standard input is at EOF.
  return std::shared_ptr<ChildProcess>(new ChildProcess(
      pid, request.path, output ? std::move(output->readEnd) : FileDescriptor(),
      error ? std::move(error->readEnd) : FileDescriptor(), std::move(outputCutOff)));
}

ChildProcess::ChildProcess(pid_t pid, std::string launchPath, FileDescriptor standardOutput,
                           FileDescriptor standardError, FileDescriptor outputCutOff)
    : pid_(pid), launchPath_(std::move(launchPath)), outputCutOff_(std::move(outputCutOff)),
      standardOutput_(std::move(standardOutput)), standardError_(std::move(standardError)) {}

ChildProcess::~ChildProcess() {
  std::lock_guard lock(mutex_);
  if (reaped_) {
    return;
  }
  siginfo_t info{};
  if (::waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0) {
    reapLocked();
    return;
  }
  // Still running and nobody will wait for it (a tool started without waiting): a thread of
  // its own reaps it when it ends, so it never lingers as a zombie.
  try {
    std::thread([pid = pid_] {
      int status = 0;
      retryOnEintr([&] { return ::waitpid(pid, &status, 0); });
    }).detach();
  } catch (const std::system_error&) {
    // Out of threads: the child stays a zombie after it ends; nothing better is possible in a
    // destructor.
  }
}

FileDescriptor ChildProcess::takeStandardOutput() {
  std::lock_guard lock(mutex_);
  return std::move(standardOutput_);
}

FileDescriptor ChildProcess::takeStandardError() {
  std::lock_guard lock(mutex_);
  return std::move(standardError_);
}

DrainedOutput ChildProcess::drainOutput() {
  return drainToEnd(takeStandardOutput(), takeStandardError(),
                    outputCutOff_ ? outputCutOff_.get() : -1);
}

void ChildProcess::cutOffOutput() {
  if (outputCutOff_) {
    std::uint64_t one = 1;
    retryOnEintr([&] { return ::write(outputCutOff_.get(), &one, sizeof one); });
  }
}

bool ChildProcess::isRunning() const {
  std::lock_guard lock(mutex_);
  if (reaped_) {
    return false;
  }
  siginfo_t info{};
  // WNOWAIT leaves an ended child a zombie, so the pid stays ours until reapLocked().
  if (::waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return false;
  }
  return info.si_pid == 0;
}

Termination ChildProcess::waitUntilExit() {
  {
    std::lock_guard lock(mutex_);
    if (reaped_) {
      return termination_;
    }
  }
  // Wait without reaping and without the lock, so terminate() stays usable from another thread
  // during the wait; the reap then happens under the lock.
  siginfo_t info{};
  retryOnEintr([&] { return ::waitid(P_PID, pid_, &info, WEXITED | WNOWAIT); });
  std::unique_lock lock(mutex_);
  groupReleased_.wait(lock, [&] { return reaped_ || !groupHeld_ || !othersInGroup(pid_, pid_); });
  if (!reaped_) {
    reapLocked();
  }
  return termination_;
}

bool ChildProcess::signalGroupLocked(int signal) {
  if (reaped_) {
    return false;
  }
  // The group is the child's pid (it leads it from its launch); the child alone, should the
  // group be gone.
  return ::kill(-pid_, signal) == 0 || ::kill(pid_, signal) == 0;
}

bool ChildProcess::terminate() {
  std::lock_guard lock(mutex_);
  return signalGroupLocked(SIGTERM);
}

bool ChildProcess::kill() {
  std::lock_guard lock(mutex_);
  if (reaped_) {
    return false;
  }
  siginfo_t info{};
  bool leaderRunning =
      ::waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
  bool alive = leaderRunning || othersInGroup(pid_, pid_);
  signalGroupLocked(SIGKILL);
  return alive;
}

void ChildProcess::holdGroup() {
  std::lock_guard lock(mutex_);
  groupHeld_ = true;
}

void ChildProcess::releaseGroup() {
  {
    std::lock_guard lock(mutex_);
    groupHeld_ = false;
  }
  groupReleased_.notify_all();
}

void ChildProcess::reapLocked() {
  int status = 0;
  pid_t reaped = retryOnEintr([&] { return ::waitpid(pid_, &status, 0); });
  termination_ = reaped == pid_ ? decode(status) : Termination{Termination::Reason::Lost, -1};
  reaped_ = true;
}

} // namespace kestrin::platform
