#pragma once

#include <cstddef>

namespace kestrin::platform {

// A stack of the calling thread's own for signal handlers, so that a handler installed with
// SA_ONSTACK still runs after the thread has overflowed its ordinary stack (the crash report
// of a runaway recursion). The constructor makes it and gives it to the thread; the destructor,
// which must run on the same thread, takes it back. A thread that already has one (a sanitizer
// gives each thread its own) keeps it, and this object does nothing.
class AlternateSignalStack {
public:
  // Room for the crash report's handler: its buffers and the unwinder.
  static constexpr std::size_t kSize = 64 * 1024;

  AlternateSignalStack();
  ~AlternateSignalStack();
  AlternateSignalStack(const AlternateSignalStack&) = delete;
  AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;

  bool installed() const { return memory_ != nullptr; }

private:
  void* memory_ = nullptr;
};

} // namespace kestrin::platform
