#include "foundation/QVTaskEx.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <thread>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "foundation/QVException.h"
#include "foundation/QVLog.h"
#include "foundation/Timer.h"
#include "platform/PipeReader.h"

namespace kestrin {
namespace {

using platform::ChildProcess;
using platform::LaunchRequest;
using platform::StreamTarget;

// Directory extensions the platform treats as one opaque file (a bundle).
bool hasBundleExtension(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  auto dot = path.rfind('.');
  auto slash = path.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) {
    return false;
  }
  std::string extension;
  for (char c : path.substr(dot + 1)) {
    extension += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  static constexpr std::array<std::string_view, 12> kBundleExtensions{
      "app",    "appex",    "bundle",      "component",  "framework", "kext",
      "plugin", "prefpane", "qlgenerator", "mdimporter", "saver",     "xpc"};
  return std::find(kBundleExtensions.begin(), kBundleExtensions.end(), extension) !=
         kBundleExtensions.end();
}

void reportNotExecutable(const std::string& path) {
  QVLog::appendLogAndPrint("Error: {} is not executable", path);
}

// A failed launch is logged the way the platform's launcher exception was.
void reportLaunchFailure(const std::string& path, const Failure& failure) {
  QVLog::appendLog("Exception running task {}: {}", path, failure.message);
}

Expected<QVTaskEx::Task> launch(const std::string& path, const QVTaskEx::Arguments& arguments,
                                StreamTarget standardOutput, StreamTarget standardError,
                                std::optional<QVTaskEx::Environment> environment = std::nullopt) {
  return ChildProcess::launch(
      LaunchRequest{path, arguments, std::move(environment), standardOutput, standardError});
}

void publish(QVTaskEx::Slot* slot, QVTaskEx::Task task) {
  if (slot != nullptr) {
    slot->set(std::move(task));
  }
}

bool isValidUtf8(const plist::Data& bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    unsigned char c = bytes[i];
    std::size_t length;
    char32_t codePoint;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      length = 2;
      codePoint = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      codePoint = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      codePoint = c & 0x07;
    } else {
      return false;
    }
    if (i + length > bytes.size()) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) {
        return false;
      }
      codePoint = (codePoint << 6) | (bytes[i + k] & 0x3F);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false; // overlong form, beyond Unicode, or a surrogate
    }
    i += length;
  }
  return true;
}

// Launches with both outputs to the null device and waits for the end; std::nullopt when the
// path is refused or the launch failed (both logged).
std::optional<platform::Termination> runQuietly(const std::string& path,
                                                const QVTaskEx::Arguments& arguments,
                                                QVTaskEx::Slot* slot,
                                                SecretBuffer standardInput = {}) {
  if (!QVTaskEx::isRunnable(path)) {
    reportNotExecutable(path);
    return std::nullopt;
  }
  LaunchRequest request{path, arguments, std::nullopt, StreamTarget::Null, StreamTarget::Null};
  request.standardInput = {standardInput.data(), standardInput.size()};
  auto child = ChildProcess::launch(request);
  standardInput.wipe(); // in the pipe now, or nowhere
  if (!child) {
    reportLaunchFailure(path, child.failure());
    return std::nullopt;
  }
  publish(slot, *child);
  auto termination = (*child)->waitUntilExit();
  publish(slot, nullptr);
  return termination;
}

} // namespace

// ---- Slot

namespace {

// How long a tool's process group has between SIGTERM at its limit and SIGKILL.
constexpr auto kTerminationGrace = std::chrono::seconds(2);

// The limit has passed while the run still goes on: the tool itself is running, or something
// it started still holds its output. Reading stops now; the whole process group gets SIGTERM
// and, after a short grace on the run's timer, SIGKILL. Until then the ended tool stays
// unreaped if its group lives on, so the group's id cannot be reused by then.
void stopTimedOut(const QVTaskEx::Task& task, Timer& timer) {
  if (!task) {
    return;
  }
  QVLog::appendLogAndPrint("Task {} timed out. Terminating...", task->launchPath());
  task->holdGroup();
  task->cutOffOutput();
  task->terminate();
  timer.runAfter(kTerminationGrace, [task] {
    if (task->kill()) {
      QVLog::appendLogAndPrint("Task {} did not end when asked to. Killed.", task->launchPath());
    }
    task->releaseGroup();
  });
}

} // namespace

Timer& QVTaskEx::defaultTimer() {
  static Timer* timer = new Timer(platform::Clock::system()); // outlives every run
  return *timer;
}

QVTaskEx::Task QVTaskEx::Slot::get() const {
  std::lock_guard lock(mutex_);
  return task_;
}

void QVTaskEx::Slot::set(Task task) {
  bool late;
  Timer* timer;
  {
    std::lock_guard lock(mutex_);
    task_ = task;
    late = expired_ && !closed_;
    timer = timer_;
  }
  // The limit counts from the start of the run: a child launched after it passed (a limit
  // below one second) is stopped at once rather than left unbounded.
  if (late && task && timer != nullptr) {
    stopTimedOut(task, *timer);
  }
}

// ---- checks and decoding

bool QVTaskEx::isRunnable(const std::string& path) {
  struct stat status {};
  if (path.empty() || ::stat(path.c_str(), &status) != 0 || ::access(path.c_str(), X_OK) != 0) {
    return false;
  }
  return !(S_ISDIR(status.st_mode) && hasBundleExtension(path));
}

std::optional<std::string> QVTaskEx::decode(const plist::Data& bytes, StringEncoding encoding) {
  switch (encoding) {
  case StringEncoding::ASCII:
    if (std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b >= 0x80; })) {
      return std::nullopt;
    }
    return std::string(bytes.begin(), bytes.end());
  case StringEncoding::UTF8:
    if (!isValidUtf8(bytes)) {
      return std::nullopt;
    }
    return std::string(bytes.begin(), bytes.end());
  case StringEncoding::ISOLatin1: {
    std::string text;
    text.reserve(bytes.size());
    for (std::uint8_t b : bytes) {
      if (b < 0x80) {
        text += static_cast<char>(b);
      } else {
        text += static_cast<char>(0xC0 | (b >> 6));
        text += static_cast<char>(0x80 | (b & 0x3F));
      }
    }
    return text;
  }
  }
  return std::nullopt;
}

// ---- class-level runs

bool QVTaskEx::runTask(const std::string& path, const Arguments& arguments, Slot* task) {
  return runQuietly(path, arguments, task).has_value();
}

QVTaskEx::Task QVTaskEx::runTaskAndReturn(const std::string& path, const Arguments& arguments) {
  if (!isRunnable(path)) {
    reportNotExecutable(path);
    return nullptr;
  }
  auto child = launch(path, arguments, StreamTarget::Null, StreamTarget::Null);
  if (!child) {
    reportLaunchFailure(path, child.failure());
    return nullptr;
  }
  return std::move(*child);
}

void QVTaskEx::runTask(const std::string& path, const Arguments& arguments, TimeLimit timeout,
                       Timer& timer) {
  QVTaskEx(timer).runTaskBounded(path, arguments, timeout);
}

int QVTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                      Slot* task) {
  auto termination = runQuietly(path, arguments, task);
  return termination ? termination->status : -1;
}

int QVTaskEx::terminationCodeFromTaskWithInput(const std::string& path, const Arguments& arguments,
                                               SecretBuffer standardInput) {
  auto termination = runQuietly(path, arguments, nullptr, std::move(standardInput));
  return termination ? termination->status : -1;
}

std::optional<QVTaskEx::Captured> QVTaskEx::capturedFromTaskWithInput(const std::string& path,
                                                                      const Arguments& arguments,
                                                                      SecretBuffer standardInput) {
  if (!isRunnable(path)) {
    reportNotExecutable(path);
    return std::nullopt;
  }
  LaunchRequest request{path, arguments, std::nullopt, StreamTarget::Pipe, StreamTarget::Pipe};
  request.standardInput = {standardInput.data(), standardInput.size()};
  auto child = ChildProcess::launch(request);
  standardInput.wipe(); // in the pipe now, or nowhere
  if (!child) {
    reportLaunchFailure(path, child.failure());
    return std::nullopt;
  }
  auto output = (*child)->drainOutput();
  Captured captured{(*child)->waitUntilExit().status, std::move(output.standardOutput)};
  captured.output.insert(captured.output.end(), output.standardError.begin(),
                         output.standardError.end());
  return captured;
}

int QVTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                      TimeLimit timeout, Timer& timer) {
  return QVTaskEx(timer).terminationCodeFromTaskBounded(path, arguments, timeout);
}

std::optional<plist::Data> QVTaskEx::dataFromTask(const std::string& path,
                                                  const Arguments& arguments, Slot* task,
                                                  const std::optional<Environment>& environment,
                                                  bool logOutput) {
  if (!isRunnable(path)) { // which also requires that the file exist
    reportNotExecutable(path);
    return std::nullopt;
  }
  auto child = launch(path, arguments, logOutput ? StreamTarget::Pipe : StreamTarget::Inherit,
                      StreamTarget::Pipe, environment);
  if (!child) {
    reportLaunchFailure(path, child.failure());
    return std::nullopt;
  }
  publish(task, *child);
  // Both pipes at once: a tool that fills its error pipe while we wait on its output (or the
  // other way round) would otherwise block for ever. A time limit cuts the reading short.
  auto output = (*child)->drainOutput();
  // End of file comes just before the exit; reaping here keeps the child visible in the slot
  // (and so within reach of a time limit) until it has really ended.
  (*child)->waitUntilExit();
  publish(task, nullptr);

  if (!logOutput) {
    // Nothing of standard output was collected, so there is no output buffer to answer.
    if (output.standardError.empty()) {
      return std::nullopt;
    }
    return std::move(output.standardError);
  }
  if (output.standardOutput.empty() && !output.standardError.empty()) {
    return std::move(output.standardError);
  }
  return std::move(output.standardOutput);
}

std::optional<plist::Data> QVTaskEx::dataFromTask(const std::string& path,
                                                  const Arguments& arguments, TimeLimit timeout,
                                                  Timer& timer) {
  return QVTaskEx(timer).dataFromTaskBounded(path, arguments, timeout);
}

std::optional<std::string> QVTaskEx::stringFromTask(const std::string& path,
                                                    const Arguments& arguments, Slot* task) {
  return stringFromTask(path, arguments, StringEncoding::ASCII, task);
}

std::optional<std::string> QVTaskEx::stringFromTask(const std::string& path,
                                                    const Arguments& arguments,
                                                    StringEncoding encoding, Slot* task) {
  auto data = dataFromTask(path, arguments, task);
  if (!data) {
    return std::string();
  }
  return decode(*data, encoding);
}

std::optional<std::string> QVTaskEx::stringFromTask(const std::string& path,
                                                    const Arguments& arguments, TimeLimit timeout,
                                                    Timer& timer) {
  return stringFromTask(path, arguments, StringEncoding::ASCII, timeout, timer);
}

std::optional<std::string> QVTaskEx::stringFromTask(const std::string& path,
                                                    const Arguments& arguments,
                                                    StringEncoding encoding, TimeLimit timeout,
                                                    Timer& timer) {
  auto data = dataFromTask(path, arguments, timeout, timer);
  if (!data) {
    return std::string();
  }
  return decode(*data, encoding);
}

// ---- bounded runs

QVTaskEx::~QVTaskEx() = default;

template <typename Result, typename Run> Result QVTaskEx::bounded(TimeLimit limit, Run&& run) {
  // Whole seconds, truncated toward zero: 2.9 s acts after 2 s, 0.5 s at once. Negative and
  // NaN limits act at once; absurdly long ones are capped so the deadline cannot overflow.
  double whole = std::isnan(limit.count()) ? 0 : std::trunc(limit.count());
  {
    std::lock_guard lock(theTask_.mutex_);
    theTask_.task_ = nullptr;
    theTask_.closed_ = false;
    theTask_.expired_ = false;
    theTask_.timer_ = &timer_;
  }
  Timer::Id deadline = timer_.runAfter(platform::Clock::seconds(whole), [this] { setupTimeout(); });
  struct Close {
    QVTaskEx& self;
    Timer::Id deadline;
    ~Close() {
      {
        std::lock_guard lock(self.theTask_.mutex_);
        self.theTask_.task_ = nullptr;
        self.theTask_.closed_ = true;
      }
      self.timer_.cancel(deadline); // waits for a time-out that is acting right now
    }
  } close{*this, deadline};
  return run(&theTask_);
}

// Runs on the timer's thread when the limit passes. The platform's runner performed the
// time-out on the main thread, so a bounded run made on the main thread could not be cut short
// until that thread was free. Here the main thread runs the agent's event loop and must never
// wait on a tool, so the time-out acts from the timer itself: sending a signal is quick.
void QVTaskEx::setupTimeout() {
  Task task;
  {
    std::lock_guard lock(theTask_.mutex_);
    if (theTask_.closed_) {
      return;
    }
    theTask_.expired_ = true;
    task = theTask_.task_;
  }
  stopTimedOut(task, timer_);
}

void QVTaskEx::timeout() {
  stopTimedOut(theTask_.get(), timer_);
}

void QVTaskEx::runTaskBounded(const std::string& path, const Arguments& arguments,
                              TimeLimit timeout) {
  bounded<bool>(timeout, [&](Slot* slot) { return runTask(path, arguments, slot); });
}

std::optional<plist::Data> QVTaskEx::dataFromTaskBounded(const std::string& path,
                                                         const Arguments& arguments,
                                                         TimeLimit timeout) {
  return bounded<std::optional<plist::Data>>(
      timeout, [&](Slot* slot) { return dataFromTask(path, arguments, slot); });
}

int QVTaskEx::terminationCodeFromTaskBounded(const std::string& path, const Arguments& arguments,
                                             TimeLimit timeout) {
  return bounded<int>(timeout,
                      [&](Slot* slot) { return terminationCodeFromTask(path, arguments, slot); });
}

// ---- asynchronous run

void QVTaskEx::asyncDataFromTask(const std::string& path, const Arguments& arguments,
                                 AsyncDelegate delegate, std::optional<plist::Value> context,
                                 std::optional<Environment> environment) {
  auto self = shared_from_this();
  {
    std::lock_guard lock(asyncMutex_);
    delegate_ = std::move(delegate);
    object_ = std::move(context);
    pendingLaunch_ = LaunchRequest{path, arguments, std::move(environment), StreamTarget::Pipe,
                                   StreamTarget::Null};
    asyncTerminated_ = false;
  }
  std::thread([self] { self->launchAsyncTask(); }).detach();
}

void QVTaskEx::launchAsyncTask() {
  static constexpr const char* kMethod = "-[QVTaskEx launchAsyncTask]";
  try {
    std::optional<LaunchRequest> request;
    {
      std::lock_guard lock(asyncMutex_);
      request = std::exchange(pendingLaunch_, std::nullopt);
    }
    if (!request) {
      QVLog::appendLogAndPrint("Unable to launch async task - no task set");
      return;
    }
    if (!isRunnable(request->path)) {
      QVLog::appendLog("Unable to launch async task - task does not exist or is not executable");
      return;
    }
    auto launched = ChildProcess::launch(*request);
    if (!launched) {
      QVException::logException(
          NamedException(std::string(kInvalidArgumentException), launched.message()), kMethod);
      return;
    }
    Task child = std::move(*launched);
    auto reader = std::make_shared<platform::PipeReader>(child->takeStandardOutput());
    bool terminated;
    {
      std::lock_guard lock(asyncMutex_);
      terminated = asyncTerminated_;
      if (!terminated) {
        reader_ = reader;
        theTask_.set(child);
      }
    }
    if (!terminated) {
      while (auto chunk = reader->next()) {
        asyncTaskReturnData(*chunk);
      }
      {
        std::lock_guard lock(asyncMutex_);
        terminated = asyncTerminated_;
      }
      if (!terminated) {
        asyncTaskReturnData({});
      }
    }
    // Whichever way reading ended, the child is stopped if it still runs and reaped here, so
    // an asynchronous run never leaves a zombie.
    if (child->isRunning()) {
      child->terminate();
    }
    child->waitUntilExit();
  } catch (const std::exception& e) {
    QVException::logException(e, kMethod);
  }
}

void QVTaskEx::asyncTaskReturnData(const plist::Data& chunk) {
  AsyncDelegate delegate;
  std::optional<plist::Value> context;
  {
    std::lock_guard lock(asyncMutex_);
    delegate = delegate_;
    context = object_;
  }
  // Called without the lock: the delegate may end the run itself.
  if (delegate) {
    delegate(chunk, *this, context);
  }
  if (chunk.empty()) {
    terminateAsyncTask();
  }
}

void QVTaskEx::terminateAsyncTask() {
  std::shared_ptr<platform::PipeReader> reader;
  {
    std::lock_guard lock(asyncMutex_);
    reader = std::move(reader_);
    delegate_ = nullptr;
    object_.reset();
    pendingLaunch_.reset();
    asyncTerminated_ = true;
  }
  // The reading thread owns the pipe and closes it when it stops; closing it here, under a
  // blocked read, could make that read hit a descriptor reused by another thread.
  if (reader) {
    reader->interrupt();
  }
  Task task = theTask_.get();
  if (task && task->isRunning()) {
    task->terminate();
  }
  theTask_.set(nullptr);
}

} // namespace kestrin
