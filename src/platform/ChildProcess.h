#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "platform/PipeReader.h"
#include "support/Expected.h"

namespace kestrin::platform {

// Where a child's standard output or standard error goes.
enum class StreamTarget {
  Null,    // the null device
  Pipe,    // a pipe whose read end the caller takes from the ChildProcess
  Inherit, // the agent's own stream
};

struct LaunchRequest {
  std::string path; // run as given: no search along PATH; also the child's argv[0]
  std::vector<std::string> arguments;
  // The child's whole environment; std::nullopt inherits the agent's.
  std::optional<std::map<std::string, std::string>> environment;
  StreamTarget standardOutput = StreamTarget::Null;
  StreamTarget standardError = StreamTarget::Null;
  // Bytes waiting on the child's standard input, followed by end of file. Written into the
  // pipe before the child starts, so at most one pipe buffer (64 KiB); the caller keeps the
  // bytes (and wipes them when they are secret).
  std::span<const std::uint8_t> standardInput = {};
  // A session of its own (and so a group): an application the user works in, which must not
  // end with the agent or hear the agent's terminal.
  bool newSession = false;
};

// How a child ended. `status` is the exit code, or the number of the signal that ended it
// (a tool stopped by the time limit reports 15, or 9 when it had to be killed). A child reaped
// by someone else (the agent must never set SIGCHLD to SIG_IGN) reports Lost with status -1.
struct Termination {
  enum class Reason { Exit, Signal, Lost };
  Reason reason = Reason::Exit;
  int status = 0;
};

// One running (or ended) child of the agent.
//
// Launching guarantees what a long-running agent needs from its children: no descriptor other
// than 0, 1 and 2 reaches the child (the agent's listening sockets and open files stay private
// whatever other threads open concurrently and whether or not they set close-on-exec);
// standard input is a fresh pipe whose write end is closed at once, so a tool that reads it
// sees end of file instead of waiting forever; the signal mask is empty and every signal has
// its default action (the agent ignores SIGPIPE; its tools must not).
//
// Each child leads a process group of its own, so the helpers a tool starts can be stopped with
// it: terminate() and kill() signal the whole group.
//
// Every child is reaped exactly once: by waitUntilExit(), or by the destructor, which hands a
// child that is still running to a background reaper instead of blocking. All members are
// safe to call from several threads at once; signals never reach a recycled pid or group
// because the child is only reaped under the same lock (an unreaped child keeps its id and its
// group's id from being reused).
class ChildProcess {
public:
  // Starts the child. Failure carries the reason (the executable is missing, not executable,
  // not a valid program, or the system is out of processes or descriptors).
  static Expected<std::shared_ptr<ChildProcess>> launch(const LaunchRequest& request);

  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& launchPath() const { return launchPath_; }

  // The read ends of the pipes asked for with StreamTarget::Pipe; each can be taken once
  // (later calls give an invalid descriptor). Both are close-on-exec.
  FileDescriptor takeStandardOutput();
  FileDescriptor takeStandardError();
  // Takes both pipes and reads them to their end (see drainToEnd), or only until
  // cutOffOutput(): a helper of the tool that keeps the pipe open cannot hold the reader.
  DrainedOutput drainOutput();
  // Makes a current and every later drainOutput() answer what it has read so far. Any thread.
  void cutOffOutput();

  // True until the child has ended (a child that ended but is not yet reaped is not running).
  bool isRunning() const;
  // Blocks until the child ends, reaps it, and answers how it ended. Later calls answer the
  // same without blocking. While the group is held (holdGroup) and other processes of the
  // group still live, the ended child is reaped only once the group is released.
  Termination waitUntilExit();
  // Sends SIGTERM to the child's process group. Answers false when the child was already
  // reaped (nothing is sent then).
  bool terminate();
  // Sends SIGKILL to the child's process group. Answers whether any process of it was still
  // alive to receive it.
  bool kill();

  // Keeps the group's id reserved for a later terminate() or kill(): until releaseGroup(), an
  // ended child whose group still has live processes stays unreaped. The caller must release.
  void holdGroup();
  void releaseGroup();

private:
  ChildProcess(pid_t pid, std::string launchPath, FileDescriptor standardOutput,
               FileDescriptor standardError, FileDescriptor outputCutOff);
  void reapLocked();
  bool signalGroupLocked(int signal);

  const pid_t pid_;
  const std::string launchPath_;
  const FileDescriptor outputCutOff_; // an eventfd, readable once cut off; none without pipes
  mutable std::mutex mutex_;
  std::condition_variable groupReleased_;
  bool reaped_ = false;           // guarded by mutex_
  bool groupHeld_ = false;        // guarded by mutex_
  Termination termination_;       // guarded by mutex_, valid once reaped_
  FileDescriptor standardOutput_; // guarded by mutex_
  FileDescriptor standardError_;  // guarded by mutex_
};

} // namespace kestrin::platform
