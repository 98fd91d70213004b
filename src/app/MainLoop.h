#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace kestrin {

// The main thread's event loop. It dispatches work that must run "on the main thread" (other
// threads hand it over and wait), turns SIGTERM and SIGINT into an orderly stop, and ends when
// someone asks it to quit. It never blocks on a tool, a socket or a worker's lock. Deadlines
// live on the controller's Timer, not here, so that tests can move their time.
//
// Construct it on the main thread before any other thread exists: the two signals are captured
// process-wide and stay blocked in every thread created afterwards, so only this loop sees them.
class MainLoop {
public:
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // Runs until quit() or a captured signal. Answers the signal number that ended the loop, or
  // nullopt when quit() did. Call on the constructing thread only.
  std::optional<int> run();

  // Ends run() from any thread. Safe to call more than once and before run().
  void quit();

  // Runs fn on the main thread and waits for it. Called on the main thread, runs fn at once.
  // Answers false (without running fn) once the loop has ended.
  bool runOnMainThreadAndWait(const std::function<void()>& fn);

  bool isMainThread() const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace kestrin
