#include "app/AgentMain.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "app/AppController.h"
#include "app/MainLoop.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

bool has(const std::vector<std::string>& arguments, const char* flag) {
  return std::find(arguments.begin() + (arguments.empty() ? 0 : 1), arguments.end(), flag) !=
         arguments.end();
}

// A relaunched instance waits until the old one has gone. The spin is deliberate: it must not
// depend on anything (timers, signals) that the old instance's shutdown could disturb.
void waitForPredecessor() {
  auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - start < std::chrono::seconds(5)) {
  }
}

std::optional<std::string> ownBundlePath() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) {
    return std::nullopt;
  }
  // .../Kestrin.app/Contents/MacOS/Kestrin
  return exe.parent_path().parent_path().parent_path().string();
}

int runAgent() {
  MainLoop mainLoop; // first: captures the stop signals before any thread exists
  AppController controller({QVLocalPaths::shared(), mainLoop, ownBundlePath()});
  if (!controller.init()) {
    return 0;
  }
  if (auto signal = mainLoop.run()) {
    controller.terminate(*signal);
  } else {
    QVLog::sharedController().willTerminate();
  }
  return 0;
}

} // namespace

int agentMain(const std::vector<std::string>& arguments) {
  if (has(arguments, "-wait")) {
    waitForPredecessor();
  }
  return runAgent();
}

} // namespace kestrin
