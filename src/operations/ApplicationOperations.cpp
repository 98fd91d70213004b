#include "operations/ApplicationOperations.h"

#include <csignal>
#include <filesystem>

#include <fmt/format.h>

#include "foundation/ImageScaler.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/AgentControl.h"
#include "operations/AgentIcons.h"
#include "operations/ApplicationCatalog.h"
#include "operations/ArgumentDecoder.h"
#include "operations/ErrorChannel.h"
#include "operations/MakerApplications.h"
#include "platform/ChildProcess.h"
#include "platform/FileBytes.h"
#include "platform/Processes.h"
#include "platform/ToolTable.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr QVTaskEx::TimeLimit kForceQuitLimit = 10s;
constexpr std::size_t kImageLimit = std::size_t{16} << 20;

const std::vector<std::pair<const char*, std::string>>& videoApplications() {
  static const std::vector<std::pair<const char*, std::string>> rows = {
      {"Final Cut Pro", "com.apple.FinalCutPro"},
      {"Final Cut Pro X", "com.apple.FinalCut"},
      {"Avid Media Composer", "com.avid.MediaComposer"},
      {"Avid Symphony", "com.avid.Symphony"},
      {"Adobe Premiere Pro", "com.adobe.AdobePremierePro"},
      {"Motion", "com.apple.motion"},
      {"Motion 5", "com.apple.motionapp"},
      {"Soundtrack Pro", "com.apple.soundtrackpro"},
      {"Color", "com.apple.color"},
      {"Compressor", "com.apple.compressor.Compressor"},
      {"Compressor 4", "com.apple.Compressor"},
      {"DVD Studio Pro", "com.apple.dvdstudiopro"},
      {"LiveType", "com.apple.LiveType"},
      {"Cinema Tools", "com.apple.CinemaTools"},
      {"Final Cut Express", "com.apple.FinalCutExpress"},
      {"Final Cut Pro X Trial", "com.apple.FinalCutTrial"}};
  return rows;
}

const std::vector<std::pair<const char*, std::string>>& makerTools() {
  static const std::vector<std::pair<const char*, std::string>> rows = [] {
    std::vector<std::pair<const char*, std::string>> made;
    for (const char* name : {"Pendry", "Quillet", "Stoven", "Marrick", "Tovell", "Hembry",
                             "Scallin", "Yarrel", "Orbisk", "Lintrow", "Vantry", "Feldane",
                             "Grimsel", "Ketterly", "Zandor", "Orrick", "Tibbet", "Wendrel"}) {
      made.emplace_back(name, std::string("com.quorvane.") + name);
    }
    return made;
  }();
  return rows;
}

bool isRunning(const std::vector<platform::RunningProcess>& processes, const std::string& bundle) {
  std::string prefix = bundle + "/";
  for (const auto& process : processes) {
    if (process.executable.compare(0, prefix.size(), prefix) == 0) {
      return true;
    }
  }
  return false;
}

std::optional<int> sideFrom(const plist::Value* value) {
  if (value == nullptr) {
    return std::nullopt;
  }
  auto number = value->numberValue();
  if (!number || *number != static_cast<double>(static_cast<int>(*number))) {
    return std::nullopt;
  }
  return static_cast<int>(*number);
}

} // namespace

void ApplicationOperations::registerIn(OperationTable& table) {
  using A = ApplicationOperations;
  table.add("finalCutStudioAppInfo", *this, &A::finalCutStudioAppInfo);
  table.add("ambrantAppInfo", *this, &A::ambrantAppInfo);
  table.add("launchApp:", *this, &A::launchApp);
  table.add("terminateApp:", *this, &A::terminateApp);
  table.add("forceQuitApp:", *this, &A::forceQuitApp);
  table.add("computerIcon", *this, &A::computerIcon);
  table.add("computerIcon:", *this, &A::computerIconOfSize);
}

plist::Dictionary
ApplicationOperations::inventory(const char* logLine,
                                 const std::vector<std::pair<const char*, std::string>>& rows,
                                 bool makerTools) {
  QVLog::appendLog("{}", logLine);
  auto processes = platform::runningProcesses();
  auto trash = services_.paths.trashDirectory();
  plist::Dictionary records;
  for (const auto& [name, identifier] : rows) {
    auto path = makerTools ? services_.applications.pathForAppWithBundleID(identifier)
                           : services_.workspace.pathForBundleIdentifier(identifier);
    std::error_code error;
    bool exists = path && fs::exists(*path, error);
    // A recorded path in the trash counts as installed even when it is gone: so it always has.
    bool inTrash = path && trash && path->compare(0, trash->size(), *trash) == 0;
    if (!exists && !inTrash) {
      records.set(name, plist::Dictionary{{"installed", false}});
      continue;
    }
    plist::Dictionary record{{"installed", true}, {"running", isRunning(processes, *path)}};
    auto info = plist::readFile(*path + "/Contents/Info.plist");
    const plist::Value* version = info ? info->get("CFBundleShortVersionString") : nullptr;
    if (version != nullptr && version->asString()) {
      record.set("version", *version);
    }
    records.set(name, std::move(record));
  }
  return records;
}

plist::Dictionary ApplicationOperations::finalCutStudioAppInfo() {
  return inventory("Getting Final Cut Studio application info...", videoApplications(), false);
}

plist::Dictionary ApplicationOperations::ambrantAppInfo() {
  return inventory("Getting Ambrant application info...", makerTools(), true);
}

void ApplicationOperations::launchApp(std::string bundleIdentifier) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Launching application {}...", bundleIdentifier);
  auto path = services_.workspace.pathForBundleIdentifier(bundleIdentifier);
  if (!path) {
    QVLog::appendLog("Unable to locate appliation.");
    return;
  }
  std::error_code error;
  if (!fs::exists(*path, error)) {
    QVLog::appendLog("File {} doesn't exist", *path);
    return;
  }
  platform::LaunchRequest request;
  request.path = executableOfBundle(*path);
  request.newSession = true;
  // The child is handed to the reaper when this handle goes: nothing waits, no zombie stays.
  if (auto launched = platform::ChildProcess::launch(request); !launched) {
    QVLog::appendLog("Application {} failed to open.", *path);
  }
}

std::optional<std::string> ApplicationOperations::quitTarget(const std::string& bundleIdentifier,
                                                             const char* notRunning,
                                                             const char* cannotLocate,
                                                             const char* noName,
                                                             std::string& bundlePath) {
  auto path = services_.workspace.pathForBundleIdentifier(bundleIdentifier);
  if (!path || !isRunning(platform::runningProcesses(), *path)) {
    QVLog::appendLog(fmt::runtime(notRunning), bundleIdentifier);
    return std::nullopt;
  }
  // An admin can stop the agent with its own operation; a quit aimed at it is a mistake.
  if (auto self = services_.workspace.mainBundle(); self && self->path == *path) {
    QVLog::appendLog("Refusing to quit the agent itself ({})", bundleIdentifier);
    return std::nullopt;
  }
  std::string name = fs::path(*path).stem().string();
  if (name.empty()) {
    QVLog::appendLog(fmt::runtime(noName), bundleIdentifier);
    return std::nullopt;
  }
  (void)cannotLocate; // a running application was located on the way
  bundlePath = *path;
  return name;
}

void ApplicationOperations::terminateApp(std::string bundleIdentifier) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Terminating application {}...", bundleIdentifier);
  std::string bundle;
  auto name = quitTarget(bundleIdentifier, "Unable to terminate - application {} is not running",
                         "Unable to terminate - cannot locate application {}",
                         "Unable to terminate - cannot determine application name for {}", bundle);
  if (!name) {
    return;
  }
  QVLog::appendLog("Terminating {}...", *name);
  services_.agent.runOnMainThreadAndWait([&] { terminateAppWithName(*name, bundle); });
}

void ApplicationOperations::terminateAppWithName(const std::string& name,
                                                 const std::string& bundlePath) {
  // A polite request that nobody waits on, as asking the application to quit never was.
  int asked = 0;
  for (const auto& process : platform::processesInside(bundlePath)) {
    asked += ::kill(process.pid, SIGTERM) == 0;
  }
  if (asked == 0) {
    QVLog::appendLog("Unable to quit application {}  - {}", name,
                     "no process of it could be asked");
  }
}

void ApplicationOperations::forceQuitApp(std::string bundleIdentifier) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Force-quitting application {}...", bundleIdentifier);
  std::string bundle;
  auto name = quitTarget(bundleIdentifier, "Unable to force quit - application {} is not running",
                         "Unable to force quit - cannot locate application {}",
                         "Unable to force quit - cannot determine application name for {}", bundle);
  if (!name) {
    return;
  }
  QVLog::appendLog("Force-quitting {}...", *name);
  // "--": a bundle named "-s.app" is still a name, never an option.
  QVTaskEx::terminationCodeFromTask(services_.tools.path(platform::Tool::Killall), {"--", *name},
                                    kForceQuitLimit, services_.timer);
}

plist::Value ApplicationOperations::computerIcon() {
  QVLog::appendLog("Getting computer icon...");
  if (services_.icons.iconDict().isNull()) {
    services_.icons.setupIconDict();
  }
  plist::Value icons = services_.icons.iconDict();
  const plist::Value* small = icons.get("smallServiceIcon");
  return small != nullptr ? *small : plist::Value();
}

std::pair<int, int> ApplicationOperations::sizeFrom(const plist::Value& size) {
  std::optional<int> width;
  std::optional<int> height;
  if (size.asDictionary()) {
    width = sideFrom(size.get("width"));
    height = sideFrom(size.get("height"));
  } else if (const plist::Array* pair = size.asArray(); pair && pair->size() == 2) {
    width = sideFrom(&(*pair)[0]);
    height = sideFrom(&(*pair)[1]);
  } else if (const std::string* text = size.asString()) {
    int w = 0;
    int h = 0;
    char close = 0;
    if (std::sscanf(text->c_str(), "{%d, %d%c", &w, &h, &close) == 3 && close == '}') {
      width = w;
      height = h;
    }
  }
  if (!width || !height || *width < 1 || *height < 1 || *width > kMaxIconSide ||
      *height > kMaxIconSide) {
    throw ArgumentError(fmt::format("computerIcon: takes a size {{\"width\", \"height\"}} of 1 "
                                    "to {} on each side, not {}",
                                    kMaxIconSide, plist::describe(size)));
  }
  return {*width, *height};
}

plist::Value ApplicationOperations::computerIconOfSize(plist::Value size) {
  auto [width, height] = sizeFrom(size);
  plist::Value icons = services_.icons.iconDict();
  const plist::Value* large = icons.get("largeServiceIcon");
  if (!icons.isNull() && width == 48 && height == 48 && large != nullptr) {
    return *large;
  }
  auto image = platform::readFileBytes(kComputerImage, kImageLimit);
  if (!image) {
    QVLog::appendLog("Unable to read the computer image: {}", image.message());
    return {};
  }
  auto scaled = ImageScaler(services_.tools, services_.paths.tempDirectory())
                    .scaleImageData(*image, width, height);
  if (!scaled) {
    QVLog::appendLog("Unable to scale the computer image: {}", scaled.message());
    return {};
  }
  return std::move(*scaled);
}

} // namespace kestrin::operations
