#include "app/AgentMain.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "app/AppController.h"
#include "app/BundleLocation.h"
#include "app/CrashSignalHandler.h"
#include "app/Installer.h"
#include "app/MainLoop.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Clock.h"
#include "platform/ToolTable.h"
#include "platform/Workspace.h"

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

platform::Workspace workspace() {
  const QVLocalPaths& paths = QVLocalPaths::shared();
  return platform::Workspace::forMachine(paths.machine().localRoot, paths.machine().home);
}

Installer installer() {
  return Installer({QVLocalPaths::shared(), platform::ToolTable::shared(),
                    bundlePath(QVLocalPaths::shared(), workspace()),
                    [](const std::string& from, const std::string& to) {
                      // Set-up's own work: it has rights only when it runs as root.
                      auto session = QVAuthorization::sharedController(false).authStart();
                      return session.authMoveFile(from, to);
                    },
                    nullptr});
}

int runAgent() {
  MainLoop mainLoop; // first: captures the stop signals before any thread exists
  AppController controller({QVLocalPaths::shared(), mainLoop,
                            bundlePath(QVLocalPaths::shared(), workspace()),
                            platform::Clock::system(), platform::ToolTable::shared(),
                            QVAuthorization::sharedController(false)});
  CrashSignalHandler::install(
      CrashSignalHandler::factsFor(QVLocalPaths::shared(), controller.bundle()));
  if (!controller.init()) {
    return 0;
  }
  installer().cleanupMountedDisks();
  if (auto signal = mainLoop.run()) {
    controller.terminate(*signal);
  } else {
    QVLog::sharedController().willTerminate();
  }
  return 0;
}

} // namespace

int agentMain(const std::vector<std::string>& arguments) {
  if (has(arguments, "-setup")) {
    installer().runSetup();
    QVLog::sharedController().willTerminate();
    return 0;
  }
  if (has(arguments, "-wait")) {
    waitForPredecessor();
  }
  return runAgent();
}

} // namespace kestrin
