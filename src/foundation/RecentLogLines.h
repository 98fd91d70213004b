#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kestrin {

// The last lines the process logged, kept in memory for its crash report: the log file lags
// behind its writer thread, and a crashing process can neither wait for that thread nor read
// files through anything that allocates.
//
// add() is for any thread and never waits on a reader. forEach() is async-signal-safe: fixed
// storage and atomics only; a line that another thread is writing at that moment is skipped,
// never waited for, so a signal handler that interrupted a writer cannot deadlock on it.
class RecentLogLines {
public:
  static constexpr std::size_t kLineCount = 64;
  // Longer lines are cut; a crash report quotes lines, it does not archive them.
  static constexpr std::size_t kLineLength = 240;

  // The process's ring, which QVLog feeds with every line it accepts.
  static RecentLogLines& shared();

  void add(std::string_view line) noexcept;

  // Calls visit(text, unixSeconds) for each kept line, oldest first. Async-signal-safe as long
  // as visit is.
  template <typename Visit> void forEach(Visit&& visit) const noexcept;

private:
  struct Slot {
    mutable std::atomic_flag busy; // held while the slot is written or copied
    std::uint64_t sequence = 0;    // which add() wrote it, plus one
    std::int64_t unixSeconds = 0;
    std::size_t length = 0;
    char text[kLineLength] = {};
  };

  std::atomic<std::uint64_t> next_{0};
  Slot slots_[kLineCount];
};

template <typename Visit> void RecentLogLines::forEach(Visit&& visit) const noexcept {
  std::uint64_t end = next_.load(std::memory_order_acquire);
  std::uint64_t begin = end > kLineCount ? end - kLineCount : 0;
  for (std::uint64_t n = begin; n < end; ++n) {
    const Slot& slot = slots_[n % kLineCount];
    if (slot.busy.test_and_set(std::memory_order_acquire)) {
      continue;
    }
    char copy[kLineLength];
    std::size_t length = 0;
    std::int64_t when = 0;
    bool current = slot.sequence == n + 1;
    if (current) {
      length = slot.length;
      when = slot.unixSeconds;
      for (std::size_t i = 0; i < length; ++i) {
        copy[i] = slot.text[i];
      }
    }
    slot.busy.clear(std::memory_order_release);
    if (current) {
      visit(std::string_view(copy, length), when);
    }
  }
}

} // namespace kestrin
