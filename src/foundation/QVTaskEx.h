#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ChildProcess.h"
#include "plist/Value.h"
#include "support/SecretBuffer.h"

namespace kestrin {
class Timer;
}

namespace kestrin {

namespace platform {
class PipeReader;
}

// The platform's string-encoding numbers, as callers of the string forms pass them.
enum class StringEncoding : unsigned {
  ASCII = 1, // seven-bit; the default of every string form (not UTF-8: callers that need
             // UTF-8 ask for it)
  UTF8 = 4,
  ISOLatin1 = 5,
};

// Runs another program (a maintenance tool's executable, a system tool) as a child of the
// agent and answers its exit status, its output as bytes or as text, optionally bounded by a
// time limit; or runs it asynchronously and streams its output to a delegate.
//
// Synchronous runs block the calling thread until the child has ended and been reaped. A
// non-zero exit status is no failure here; callers interpret it. Runs refuse a path that is
// not an executable file or that names a bundle (X.app: the caller must pass the executable
// inside it) with the log line "Error: <path> is not executable".
//
// Launching closes every descriptor but 0..2 in the child, gives it a standard input at end of
// file and default signal handling (see platform::ChildProcess).
class QVTaskEx : public std::enable_shared_from_this<QVTaskEx> {
public:
  using Task = std::shared_ptr<platform::ChildProcess>;
  using Arguments = std::vector<std::string>;
  // A child's whole environment (it replaces the agent's, it is not merged into it).
  using Environment = std::map<std::string, std::string>;
  // Seconds; only whole seconds count (truncated toward zero, see the bounded runs).
  using TimeLimit = std::chrono::duration<double>;

  // Where a synchronous run shows the child it runs: set just after the launch, cleared once
  // the child has been reaped. Another thread may read it meanwhile (to stop the child).
  class Slot {
  public:
    Task get() const;
    void set(Task task);

  private:
    friend class QVTaskEx;
    mutable std::mutex mutex_;
    Task task_;
    bool closed_ = false;    // the bounded run that owns this slot is over
    bool expired_ = false;   // its time limit has passed: a child published now is stopped at once
    Timer* timer_ = nullptr; // the bounded run's timer, which times the grace before SIGKILL
  };

  // Receives each chunk of an asynchronous run's standard output (never empty), then exactly
  // one empty chunk at end of file, with the run and the context value given at the start
  // (std::nullopt when none was given). Called on the run's reading thread.
  using AsyncDelegate = std::function<void(const plist::Data& chunk, QVTaskEx& task,
                                           const std::optional<plist::Value>& context)>;

  // The name of the notification that carries each chunk to asyncTaskReturnData.
  static constexpr std::string_view kAsyncTaskDataNotification = "QVAsyncTaskDataNotification";

  // ---- class-level runs

  // Outputs to the null device. True once the child was launched and has ended.
  static bool runTask(const std::string& path, const Arguments& arguments = {},
                      Slot* task = nullptr);
  // Launches without waiting, outputs to the null device. The caller may drop the handle at
  // any time: the child is still reaped when it ends. Null when refused or not launched.
  static Task runTaskAndReturn(const std::string& path, const Arguments& arguments = {});
  static void runTask(const std::string& path, const Arguments& arguments, TimeLimit timeout,
                      Timer& timer = defaultTimer());

  // The exit status, the signal number when a signal ended the child, or -1 when the path is
  // refused or the launch failed.
  static int terminationCodeFromTask(const std::string& path, const Arguments& arguments = {},
                                     Slot* task = nullptr);
  static int terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                     TimeLimit timeout, Timer& timer = defaultTimer());
  // The same with bytes waiting on the child's standard input (at most 64 KiB): how secrets
  // reach a helper without appearing in its arguments or environment. The bytes are wiped as
  // soon as they are in the pipe, at the launch, however long the child then runs.
  static int terminationCodeFromTaskWithInput(const std::string& path, const Arguments& arguments,
                                              SecretBuffer standardInput);

  // A run with bytes on standard input whose exit status and output (standard output, then
  // standard error) both matter to the caller; null when refused or not launched.
  struct Captured {
    int status = -1;
    plist::Data output;
  };
  static std::optional<Captured> capturedFromTaskWithInput(const std::string& path,
                                                           const Arguments& arguments,
                                                           SecretBuffer standardInput);

  // The capturing run: standard output, or standard error when standard output is empty and
  // standard error is not (a tool that writes only to standard error answers its error text).
  // With logOutput false the child writes to the agent's own standard output and only standard
  // error is collected: the answer is the error text, or null when there is none. The exit
  // status is not consulted. Null when refused or not launched.
  static std::optional<plist::Data>
  dataFromTask(const std::string& path, const Arguments& arguments = {}, Slot* task = nullptr,
               const std::optional<Environment>& environment = std::nullopt, bool logOutput = true);
  static std::optional<plist::Data> dataFromTask(const std::string& path,
                                                 const Arguments& arguments, TimeLimit timeout,
                                                 Timer& timer = defaultTimer());

  // The capturing run's bytes decoded: "" when the capturing run answered null, std::nullopt
  // when the bytes do not decode in the encoding.
  static std::optional<std::string>
  stringFromTask(const std::string& path, const Arguments& arguments = {}, Slot* task = nullptr);
  static std::optional<std::string> stringFromTask(const std::string& path,
                                                   const Arguments& arguments,
                                                   StringEncoding encoding, Slot* task = nullptr);
  static std::optional<std::string> stringFromTask(const std::string& path,
                                                   const Arguments& arguments, TimeLimit timeout,
                                                   Timer& timer = defaultTimer());
  static std::optional<std::string> stringFromTask(const std::string& path,
                                                   const Arguments& arguments,
                                                   StringEncoding encoding, TimeLimit timeout,
                                                   Timer& timer = defaultTimer());

  // Bytes as text in UTF-8, or std::nullopt when they are not valid in the encoding.
  static std::optional<std::string> decode(const plist::Data& bytes, StringEncoding encoding);

  // An executable file that is not a bundle directory.
  static bool isRunnable(const std::string& path);

  // The time limits of runs that name no timer: the machine's own clock, one thread for the
  // whole process. The agent's operations pass the timer of their services instead, so that
  // tests can move their time.
  static Timer& defaultTimer();

  // ---- instance interface

  QVTaskEx() : QVTaskEx(defaultTimer()) {}
  explicit QVTaskEx(Timer& timer) : timer_(timer) {}
  ~QVTaskEx();
  QVTaskEx(const QVTaskEx&) = delete;
  QVTaskEx& operator=(const QVTaskEx&) = delete;

  // The bounded runs, timed on this object's timer. The limit is cut to whole seconds toward
  // zero: 2.9 s acts after 2 s, and a limit below one second acts at once. When it is reached
  // while the run goes on (the child runs, or a process it started still holds its output),
  // "Task <path> timed out. Terminating..." is logged and printed, reading stops, and the child's
  // whole process group receives SIGTERM, then SIGKILL two seconds later on the timer if it
  // has not ended ("Task <path> did not end when asked to. Killed."); the run then answers what
  // it had. One bounded run at a time per instance.
  void runTaskBounded(const std::string& path, const Arguments& arguments, TimeLimit timeout);
  std::optional<plist::Data> dataFromTaskBounded(const std::string& path,
                                                 const Arguments& arguments, TimeLimit timeout);
  int terminationCodeFromTaskBounded(const std::string& path, const Arguments& arguments,
                                     TimeLimit timeout);

  // Stops the current child and its process group as the time limit does, with the time-out
  // log line. Does nothing once a run is over (its child is no longer in theTask).
  void timeout();

  // Starts the child (standard output to a pipe, standard error to the null device) and reads
  // it on a detached thread, which keeps this object alive until the run ends. The object must
  // be owned by a std::shared_ptr (std::bad_weak_ptr otherwise). Replaces the delegate and
  // context of an earlier run that has not ended; callers do not do this.
  void asyncDataFromTask(const std::string& path, const Arguments& arguments,
                         AsyncDelegate delegate, std::optional<plist::Value> context = std::nullopt,
                         std::optional<Environment> environment = std::nullopt);
  // What each "QVAsyncTaskDataNotification" does: a non-empty chunk goes to the delegate; the
  // empty chunk of end of file goes to the delegate once and then ends the run
  // (terminateAsyncTask).
  void asyncTaskReturnData(const plist::Data& chunk);
  // Stops reading, forgets the delegate and context (no chunk is delivered afterwards, not even
  // the empty one), sends SIGTERM to the child's process group if the child still runs and
  // clears theTask. The reading thread then reaps the child. Any thread, also the delegate's own.
  void terminateAsyncTask();
  void terminateTask() { terminateAsyncTask(); }

  Task theTask() const { return theTask_.get(); }
  void setTheTask(Task task) { theTask_.set(std::move(task)); }

private:
  template <typename Result, typename Run> Result bounded(TimeLimit limit, Run&& run);
  void setupTimeout();
  void launchAsyncTask();

  Timer& timer_;
  Slot theTask_;

  std::mutex asyncMutex_; // taken before theTask_'s own lock, never after
  AsyncDelegate delegate_;
  std::optional<plist::Value> object_;
  std::optional<platform::LaunchRequest> pendingLaunch_; // until the reading thread takes it
  std::shared_ptr<platform::PipeReader> reader_;
  bool asyncTerminated_ = false;
};

} // namespace kestrin
