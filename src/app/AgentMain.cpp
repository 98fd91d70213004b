#include "app/AgentMain.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>

#include <unistd.h>

#include "app/AppController.h"
#include "app/BundleLocation.h"
#include "app/CrashSignalHandler.h"
#include "app/Installer.h"
#include "app/MainLoop.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "operations/AgentBundle.h"
#include "platform/Clock.h"
#include "platform/ToolTable.h"
#include "platform/Workspace.h"

namespace kestrin {

namespace {

constexpr int kUsageError = 64; // EX_USAGE

constexpr const char* kUsage = R"(usage: Kestrin [-setup | -wait | --help | --version]

The maintenance agent of a post-production workstation. Without options it runs in the
foreground as a service of the current user: it listens on TCP, advertises itself as
"_kestrin._tcp." and serves the administration application (see ambrant).

  -setup      as root: install the per-user service, the PAM file and the rights helper,
              then reload the service for the console user
  -wait       wait five seconds before starting (a relaunched agent lets the old one go)
  --help      print this text
  --version   print the version

Environment: KESTRIN_ROOT (the maker's tree, default /opt/quorvane), HOME (the user's).
)";

struct Options {
  bool setup = false;
  bool wait = false;
  bool help = false;
  bool version = false;
  std::optional<std::string> unknown;
};

Options parse(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "-setup") {
      options.setup = true;
    } else if (argument == "-wait") {
      options.wait = true;
    } else if (argument == "--help" || argument == "-h") {
      options.help = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (!options.unknown) {
      options.unknown = argument;
    }
  }
  return options;
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

// "/", or the staging folder that KESTRIN_SYSTEM_ROOT names for a root process (packaging, the
// set-up tests). An ordinary user's agent never takes it: its files stay where root put them.
std::string systemRoot() {
  const char* staging = std::getenv("KESTRIN_SYSTEM_ROOT");
  if (::geteuid() == 0 && staging != nullptr && staging[0] == '/') {
    return staging;
  }
  return "/";
}

Installer installer() {
  return Installer({QVLocalPaths::shared(), platform::ToolTable::shared(),
                    bundlePath(QVLocalPaths::shared(), workspace()),
                    [](const std::string& from, const std::string& to) {
                      // Set-up's own work: it has rights only when it runs as root.
                      auto session = QVAuthorization::sharedController(false).authStart();
                      return session.authMoveFile(from, to);
                    },
                    nullptr, systemRoot()});
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
  controller.applicationDidFinishLaunching();
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
  Options options = parse(arguments);
  if (options.unknown) {
    std::cerr << "Kestrin: unknown option '" << *options.unknown << "'\n\n" << kUsage;
    return kUsageError;
  }
  if (options.help) {
    std::cout << kUsage;
    return 0;
  }
  if (options.version) {
    operations::AgentBundle bundle(bundlePath(QVLocalPaths::shared(), workspace()));
    std::cout << "Kestrin " << bundle.clientVersionString() << " (" << bundle.clientVersion()
              << ")\n";
    return 0;
  }
  if (options.setup) {
    installer().runSetup();
    QVLog::sharedController().willTerminate();
    return 0;
  }
  if (options.wait) {
    waitForPredecessor();
  }
  return runAgent();
}

} // namespace kestrin
