#include "operations/ConfigurationOperations.h"

#include <filesystem>

#include "foundation/QVLog.h"
#include "operations/AgentBundle.h"
#include "operations/AgentControl.h"
#include "operations/ApplicationCatalog.h"
#include "platform/FileBytes.h"
#include "platform/NetworkProfile.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;
using plist::Value;

constexpr const char* kSuiteGroup = "com.quorvane.ambrant";
// A crash report is text of a few kilobytes; the cap only guards against a runaway file.
constexpr std::size_t kCrashReportLimit = 4 << 20;

// The report's text: the admin side runs on another machine, where a path means nothing.
std::optional<std::string> crashReportText(const std::string& path) {
  auto bytes = platform::readFileBytes(path, kCrashReportLimit);
  if (!bytes) {
    QVLog::appendLog("Could not read crash log {}", bytes.message());
    return std::nullopt;
  }
  return std::string(bytes->begin(), bytes->end());
}

} // namespace

void ConfigurationOperations::registerIn(OperationTable& table) {
  using C = ConfigurationOperations;
  table.add("ambrantVersion", *this, &C::ambrantVersion);
  table.add("initialConfiguration", *this, &C::initialConfiguration);
  table.add("fetchInitialConfiguration:", *this, &C::fetchInitialConfiguration);
}

Value ConfigurationOperations::ambrantVersion() {
  if (!applications_.qvAppsPopulated()) {
    applications_.populateQVApps();
  }
  for (const std::string& path : applications_.qvApps(platform::Clock::Duration::zero())) {
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

plist::Dictionary ConfigurationOperations::initialConfiguration() {
  plist::Dictionary configuration{
      {"version", bundle_.clientVersion()},
      {"versionString", bundle_.clientVersionString()},
      {"maintenanceRequested", agent_.maintenanceRequested()},
  };
  Value suite = ambrantVersion();
  if (const plist::Dictionary* versions = suite.asDictionary()) {
    configuration.set("ambrantVersion", *versions->find("version"));
    configuration.set("ambrantVersionString", *versions->find("versionString"));
  }
  Value minimum = bundle_.objectForInfoDictionaryKey("QVMinAdminVersion");
  configuration.set("minAdminVersion", minimum.isNull() ? Value("0") : minimum);
  return configuration;
}

plist::Dictionary ConfigurationOperations::fullConfiguration() {
  plist::Dictionary configuration = initialConfiguration();
  configuration.set("preferredHostName", agent_.hostName());
  plist::Array names;
  for (const std::string& name : platform::hostNames().names) {
    names.push_back(name);
  }
  configuration.set("hostNames", names);
  Value count = agent_.availableUpdateCount();
  Value date = agent_.availableUpdateCountLastUpdate();
  if (!count.isNull() && !date.isNull()) {
    configuration.set("availableUpdateCount", count);
    configuration.set("availableUpdateCountLastUpdate", date);
  }
  if (auto crashLog = agent_.takeLastCrashLogPath()) {
    if (auto text = crashReportText(*crashLog)) {
      configuration.set("selfCrashLog", *text);
    }
  }
  return configuration;
}

void ConfigurationOperations::fetchInitialConfiguration(std::optional<plist::ObjectRef> receiver) {
  plist::Dictionary configuration = fullConfiguration();
  if (receiver) {
    // A failing receiver must not look like a broken connection to the common guard, which
    // would restart the service.
    try {
      (*receiver)->invoke("processConfiguration:", {configuration});
    } catch (const std::exception& e) {
      QVLog::appendLog("Configuration receiver failed: {}", e.what());
    }
  }
}

} // namespace kestrin::operations
