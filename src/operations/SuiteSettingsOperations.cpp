#include "operations/SuiteSettingsOperations.h"

#include <filesystem>

#include <fmt/format.h>

#include "foundation/PreferenceFile.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "operations/AgentControl.h"
#include "operations/CredentialOperations.h"
#include "operations/ErrorChannel.h"
#include "platform/AtomicFile.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

constexpr const char* kGlobal = "com.quorvane.global.plist";
constexpr const char* kSoftwareUpdate = "com.quorvane.SoftwareUpdate.plist";
constexpr const char* kProtectKey = "requireAdminPassword";

constexpr const char* kProtectedTools[] = {
    "Pendry", "Quillet", "Marrick", "Tovell",   "Hembry", "Scallin", "Orbisk", "Lintrow",
    "Vantry", "Feldane", "Grimsel", "Ketterly", "Zandor", "Orrick",  "Tibbet", "Wendrel"};

// The agent's own settings an admin may change, each defaulting to 1.
constexpr const char* kAgentKeys[] = {"autoUpdateCheck", "showMenuBarIcon",
                                      "enableMaintenanceRequests"};

std::int64_t integerOf(const plist::Value& value, std::string_view key) {
  auto number = value.asBool() || value.asInteger() || value.asReal()
                    ? value.integerValue()
                    : std::optional<std::int64_t>();
  if (!number) {
    throw ArgumentError(
        fmt::format("\"{}\" must be a number, not {}", key, plist::describe(value)));
  }
  return *number;
}

} // namespace

void SuiteSettingsOperations::registerIn(OperationTable& table) {
  using S = SuiteSettingsOperations;
  table.add("ambrantSettings", *this, &S::ambrantSettings);
  table.add("setAmbrantSettings:", *this, &S::setAmbrantSettings);
  table.add("ambrantPasswordProtect:settings:", *this, &S::ambrantPasswordProtect);
  table.add("networkClientSettings", *this, &S::networkClientSettings);
  table.add("setNetworkClientSettings:", *this, &S::setNetworkClientSettings);
}

std::string SuiteSettingsOperations::userPreferences(const char* file) const {
  return services_.paths.prefsDirectory(true).value_or("") + "/" + file;
}

std::string SuiteSettingsOperations::protectedToolPreferences(const std::string& tool) const {
  return fmt::format("{}/com.quorvane.{}.plist", services_.paths.prefsDirectory(false).value_or(""),
                     tool);
}

std::int64_t SuiteSettingsOperations::suiteValue(const char* file, const char* key,
                                                 std::int64_t fallback) const {
  auto contents = plist::readFile(userPreferences(file));
  const plist::Value* value = contents ? contents->get(key) : nullptr;
  auto number = value != nullptr ? value->integerValue() : std::nullopt;
  return number.value_or(fallback);
}

void SuiteSettingsOperations::setSuiteValue(const char* file, const char* key,
                                            const plist::Value& value) const {
  std::string path = userPreferences(file);
  auto contents = plist::readFile(path);
  if (!contents || !contents->asDictionary()) {
    return; // the suite's own file; never made here
  }
  contents->asDictionary()->set(key, value);
  if (auto written = plist::writeFile(path, *contents); !written) {
    QVLog::appendLog("Unable to write {}: {}", path, written.message());
  }
}

plist::Dictionary SuiteSettingsOperations::ambrantSettings() {
  services_.errorChannel.setProcessingCancelled(false);
  std::int64_t autoUpdate = suiteValue(kGlobal, "SUCheckAtStartup", 1);
  std::int64_t beta = suiteValue(kSoftwareUpdate, "showBetaUpdates", 0);
  int protectedCount = 0;
  for (const char* tool : kProtectedTools) {
    auto contents = plist::readFile(protectedToolPreferences(tool));
    const plist::Value* value = contents ? contents->get(kProtectKey) : nullptr;
    protectedCount += value != nullptr && value->integerValue() == 1;
  }
  int all = static_cast<int>(std::size(kProtectedTools));
  int protect = protectedCount == all ? 1 : protectedCount == 0 ? 0 : -1;
  return {{"passwordProtect", protect}, {"autoUpdateCheck", autoUpdate}, {"betaUpdateCheck", beta}};
}

void SuiteSettingsOperations::setAmbrantSettings(plist::Dictionary settings) {
  services_.errorChannel.setProcessingCancelled(false);
  for (const auto& [key, value] : settings) {
    if (key != "autoUpdateCheck" && key != "betaUpdateCheck") {
      continue; // protection has an operation of its own; other keys mean nothing here
    }
    std::int64_t number = integerOf(value, key);
    plist::Value stored = number == -1 ? plist::Value(1) : plist::Value(number);
    if (key == "autoUpdateCheck") {
      setSuiteValue(kGlobal, "SUCheckAtStartup", stored);
    } else {
      setSuiteValue(kSoftwareUpdate, "showBetaUpdates", stored);
    }
  }
}

void SuiteSettingsOperations::ambrantPasswordProtect(const Caller& caller,
                                                     std::optional<plist::Dictionary> credentials,
                                                     plist::Dictionary settings) {
  auto session = CredentialOperations(services_.credentials, services_.errorChannel)
                     .sessionFor(caller, credentials);
  if (!session.isAuthorized()) {
    services_.errorChannel.postErrorWithCode(1006, std::nullopt);
    return;
  }
  const plist::Value* requested = settings.find("obj1");
  plist::Value value(integerOf(requested ? *requested : plist::Value(), "obj1"));
  for (const char* tool : kProtectedTools) {
    std::string path = protectedToolPreferences(tool);
    auto contents = plist::readFile(path);
    plist::Value updated = contents && contents->asDictionary() ? *contents : plist::Dictionary{};
    updated.asDictionary()->set(kProtectKey, value);
    if (plist::writeFile(path, updated).ok()) {
      continue;
    }
    // The folder is the administrator's: write beside the agent, move into place with rights.
    std::string staged =
        services_.paths.tempDirectory() + "/" + std::filesystem::path(path).filename().string();
    if (auto written = plist::writeFile(staged, updated); !written) {
      QVLog::appendLog("Unable to write {}: {}", staged, written.message());
      continue;
    }
    if (!session.authMoveFile(staged, path)) {
      QVLog::appendLog("Unable to move {} to {}", staged, path);
    }
  }
  session.authEnd();
}

plist::Dictionary SuiteSettingsOperations::networkClientSettings() {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Getting Kestrin prefs...");
  plist::Dictionary answer;
  for (const char* key : kAgentKeys) {
    plist::Value value = services_.settings.object(key);
    answer.set(key, value.isNull() ? plist::Value(1) : value);
  }
  answer.set("globalUpdateCheck", suiteValue(kGlobal, "SUCheckAtStartup", 1));
  return answer;
}

void SuiteSettingsOperations::setNetworkClientSettings(plist::Dictionary settings) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Setting Kestrin prefs...");
  // Checked whole before anything changes: a wrong value changes nothing.
  for (const auto& [key, value] : settings) {
    bool known =
        key == "globalUpdateCheck" ||
        std::find(std::begin(kAgentKeys), std::end(kAgentKeys), key) != std::end(kAgentKeys);
    if (!known) {
      throw ArgumentError(fmt::format("setNetworkClientSettings: knows no setting \"{}\"", key));
    }
    integerOf(value, key);
  }
  for (const auto& [key, value] : settings) {
    if (key != "globalUpdateCheck" && integerOf(value, key) != -1) {
      if (auto stored = services_.settings.setObject(value, key); !stored) {
        QVLog::appendLog("Unable to store {}: {}", key, stored.message());
      }
    }
  }
  const plist::Value* requested = settings.find("showMenuBarIcon");
  std::int64_t shown = requested ? integerOf(*requested, "showMenuBarIcon") : 0;
  plist::Value stored = services_.settings.object("showMenuBarIcon");
  bool storedZero = (stored.asInteger() || stored.asBool()) && stored.integerValue() == 0;
  if (storedZero && shown == 0) {
    services_.agent.setMenuBarItemShown(false);
  } else if (!storedZero) {
    services_.agent.setMenuBarItemShown(true);
  }
  const plist::Value* global = settings.find("globalUpdateCheck");
  if (global == nullptr || integerOf(*global, "globalUpdateCheck") == -1) {
    return;
  }
  setSuiteValue(kGlobal, "SUCheckAtStartup", *global);
}

} // namespace kestrin::operations
