#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

#include "fixtures/TempDir.h"

namespace kestrin::testing {

// This test program, which acts as a fake tool instead of running tests when its arguments
// start with fakeToolArguments(mode). Mode "fds" prints the number of every descriptor the
// tool inherited, one per line; "signals" prints the SigBlk and SigIgn lines of its
// /proc/self/status. (A shell in between would add descriptors and change signals itself.)
std::string selfPath();
std::vector<std::string> fakeToolArguments(const std::string& mode);

// Writes an executable /bin/sh script with the given body and answers its path.
std::string writeScript(const TempDir& dir, const std::string& name, const std::string& body);

// Children of this process that have ended and were not reaped.
std::vector<pid_t> zombieChildren();
// Polls until no child of this process is a zombie; false if some remain after `limit`.
bool zombiesGoneWithin(std::chrono::milliseconds limit);

// What the shared QVLog receives during the lifetime of the object. One log in a temporary
// folder serves the whole test program: QVLog keeps a replaced instance's writer thread, so a
// fresh instance per test would leak a thread each time.
class CapturedLog {
public:
  CapturedLog();

  // Everything logged since construction (waits for queued lines).
  std::string text() const;
  // Polls until the log contains `line`, for lines written by detached threads.
  bool containsWithin(const std::string& line, std::chrono::milliseconds limit) const;

private:
  std::size_t start_ = 0;
};

} // namespace kestrin::testing
