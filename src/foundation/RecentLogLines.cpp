#include "foundation/RecentLogLines.h"

#include <algorithm>
#include <thread>

#include <time.h>

namespace kestrin {

RecentLogLines& RecentLogLines::shared() {
  // Never destroyed: a crash during exit may still quote it.
  static auto* lines = new RecentLogLines;
  return *lines;
}

void RecentLogLines::add(std::string_view line) noexcept {
  std::uint64_t n = next_.fetch_add(1, std::memory_order_acq_rel);
  Slot& slot = slots_[n % kLineCount];
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  // Held only by another writer kLineCount lines ahead or by a crash report copying it: both
  // brief.
  while (slot.busy.test_and_set(std::memory_order_acquire)) {
    std::this_thread::yield();
  }
  slot.length = std::min(line.size(), kLineLength);
  std::copy_n(line.data(), slot.length, slot.text);
  slot.unixSeconds = now.tv_sec;
  slot.sequence = n + 1;
  slot.busy.clear(std::memory_order_release);
}

} // namespace kestrin
