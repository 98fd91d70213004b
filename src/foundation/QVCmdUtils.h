#pragma once

#include <atomic>
#include <string>

namespace kestrin {

// Process-wide facts about how the program runs: whether it may show a user interface (read
// when an authorisation starts) and where it was started from.
class QVCmdUtils {
public:
  static QVCmdUtils& sharedController();

  // The process's current working directory; empty when it cannot be read.
  static std::string applicationPath();

  bool hasGUI() const { return hasGUI_; }
  void setHasGUI(bool hasGUI) { hasGUI_ = hasGUI; }

private:
  QVCmdUtils() = default;
  std::atomic<bool> hasGUI_{true};
};

} // namespace kestrin
