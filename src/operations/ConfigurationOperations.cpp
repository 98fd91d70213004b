// What the administration application reads when it first connects to an agent: versions,
// names, the maintenance flag, the installed suite's version and the agent's own crash report.

#include <filesystem>

#include "app/AppController.h"
#include "foundation/QVLog.h"
#include "operations/OperationGroups.h"
#include "operations/OperationTable.h"
#include "platform/FileBytes.h"
#include "platform/NetworkProfile.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;
using plist::Value;

constexpr const char* kSuiteGroup = "com.quorvane.ambrant";
// A crash report is text of a few kilobytes; the cap only guards against a runaway file.
constexpr std::size_t kCrashReportLimit = 4 << 20;

// {"version", "versionString"} of the first application that belongs to the suite, or null.
Value ambrantVersion(AppController& controller) {
  if (!controller.qvAppsPopulated()) {
    controller.populateQVApps();
  }
  for (const std::string& path : controller.qvApps(std::chrono::milliseconds(0))) {
    auto updates = plist::readFile(fs::path(path) / "Contents/QVUpdates.plist");
    const plist::Dictionary* group = updates ? updates->asDictionary() : nullptr;
    if (group == nullptr) {
      continue;
    }
    const Value* id = group->find("QVGroupID");
    const Value* version = group->find("QVGroupVersion");
    const Value* versionString = group->find("QVGroupVersionString");
    if (id && id->asString() && *id->asString() == kSuiteGroup && version && versionString) {
      return plist::Dictionary{{"version", *version}, {"versionString", *versionString}};
    }
  }
  return {};
}

plist::Dictionary initialConfiguration(AppController& controller) {
  plist::Dictionary configuration{
      {"version", controller.clientVersion()},
      {"versionString", controller.clientVersionString()},
      {"maintenanceRequested", controller.maintenanceRequested()},
  };
  Value suite = ambrantVersion(controller);
  if (const plist::Dictionary* versions = suite.asDictionary()) {
    configuration.set("ambrantVersion", *versions->find("version"));
    configuration.set("ambrantVersionString", *versions->find("versionString"));
  }
  Value minimum = controller.objectForInfoDictionaryKey("QVMinAdminVersion");
  configuration.set("minAdminVersion", minimum.isNull() ? Value("0") : minimum);
  return configuration;
}

// The report's text: the admin side runs on another machine, where a path means nothing.
std::optional<std::string> crashReportText(const std::string& path) {
  auto bytes = platform::readFileBytes(path, kCrashReportLimit);
  if (!bytes) {
    QVLog::appendLog("Could not read crash log {}", bytes.message());
    return std::nullopt;
  }
  return std::string(bytes->begin(), bytes->end());
}

plist::Dictionary fullConfiguration(AppController& controller) {
  plist::Dictionary configuration = initialConfiguration(controller);
  configuration.set("preferredHostName", controller.hostName());
  plist::Array names;
  for (const std::string& name : platform::hostNames().names) {
    names.push_back(name);
  }
  configuration.set("hostNames", names);
  Value count = controller.availableUpdateCount();
  Value date = controller.availableUpdateCountLastUpdate();
  if (!count.isNull() && !date.isNull()) {
    configuration.set("availableUpdateCount", count);
    configuration.set("availableUpdateCountLastUpdate", date);
  }
  if (auto crashLog = controller.takeLastCrashLogPath()) {
    if (auto text = crashReportText(*crashLog)) {
      configuration.set("selfCrashLog", *text);
    }
  }
  return configuration;
}

} // namespace

void addConfigurationOperations(OperationTable& table) {
  table.add("ambrantVersion",
            [](AppController& controller, const Arguments&) { return ambrantVersion(controller); });
  table.add("initialConfiguration", [](AppController& controller, const Arguments&) {
    return Value(initialConfiguration(controller));
  });
  table.add("fetchInitialConfiguration:", [](AppController& controller, const Arguments& a) {
    plist::ObjectRef receiver = a.at(0).isNull() ? nullptr : a.object(0);
    plist::Dictionary configuration = fullConfiguration(controller);
    if (receiver) {
      // A failing receiver must not look like a broken connection to the common guard,
      // which would restart the service.
      try {
        receiver->invoke("processConfiguration:", {configuration});
      } catch (const std::exception& e) {
        QVLog::appendLog("Configuration receiver failed: {}", e.what());
      }
    }
    return Value();
  });
}

} // namespace kestrin::operations
