#include "foundation/QVBugReporter.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include <sys/stat.h>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "platform/ToolTable.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

constexpr const char* kReporterIdentifier = "com.quorvane.BugReporter";

plist::Dictionary readStore(const std::string& path) {
  auto stored = plist::readFile(path);
  if (stored && stored->asDictionary()) {
    return *stored->asDictionary();
  }
  return {};
}

bool writeWhole(const std::string& path, const std::string& key, const plist::Value& value) {
  plist::Dictionary store = readStore(path);
  store.set(key, value);
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  return plist::writeFile(path, plist::Value(std::move(store))).ok();
}

void stamp(const platform::ToolTable& tools, const std::string& path, const char* key,
           const QVBugReporter::StampWriter& writer) {
  plist::Value now(plist::Date::now());
  bool written = writer ? writer(key, now) : writeWhole(path, key, now);
  if (written) {
    QVBugReporter::chownPlist(tools, path);
  } else {
    QVLog::appendLog("Unable to record the {} time in {}", key, path);
  }
}

bool startsWithIgnoringCase(const std::string& text, const std::string& prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(),
                    [](char a, char b) { return std::tolower(a) == std::tolower(b); });
}

std::optional<double> modificationTime(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return std::nullopt;
  }
  return static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
}

bool reporterDisabled(const QVLocalPaths& paths) {
  auto global =
      plist::readFile(paths.prefsDirectory(true).value_or("") + "/com.quorvane.global.plist");
  const plist::Value* flag = global ? global->get("disable-crash-reporter") : nullptr;
  if (flag == nullptr) {
    return false;
  }
  if (const std::string* text = flag->asString()) {
    return *text == "1";
  }
  return flag->numberValue().value_or(0) == 1;
}

void openReport(const QVLocalPaths& paths, const std::string& report) {
  const QVLocalPaths::Machine& machine = paths.machine();
  platform::Workspace workspace = platform::Workspace::forMachine(machine.localRoot, machine.home);
  std::optional<std::string> executable;
  // The reporter that ships inside the agent's own bundle comes first.
  if (auto own = workspace.mainBundle()) {
    fs::path inside = fs::path(own->path) / "Contents/Resources/Bug Reporter.app";
    if (auto bundle = platform::Workspace::readBundle(inside.string())) {
      executable = bundle->executablePath;
    }
  }
  if (!executable) {
    if (auto path = workspace.pathForBundleIdentifier(kReporterIdentifier)) {
      if (auto bundle = platform::Workspace::readBundle(*path)) {
        executable = bundle->executablePath;
      }
    }
  }
  if (!executable) {
    QVLog::appendLog("Unable to find the bug reporter application");
    return;
  }
  QVTaskEx::runTaskAndReturn(*executable, {report});
}

} // namespace

void QVBugReporter::startBugReporter(const std::optional<std::string>& applicationName,
                                     const std::string& plistPath, const Delegate& delegate) {
  startBugReporter(QVLocalPaths::shared(), platform::ToolTable::shared(), applicationName,
                   plistPath, delegate);
}

void QVBugReporter::startBugReporter(const QVLocalPaths& paths, const platform::ToolTable& tools,
                                     const std::optional<std::string>& applicationName,
                                     const std::string& plistPath, const Delegate& delegate,
                                     const StampWriter& writer) {
  auto crash = checkForCrashes(paths, tools, applicationName, plistPath);
  if (crash && delegate) {
    delegate(*crash);
  }
  stamp(tools, plistPath, "launch", writer);
}

void QVBugReporter::stopBugReporter(const std::string& plistPath) {
  stopBugReporter(QVLocalPaths::shared(), platform::ToolTable::shared(), plistPath);
}

void QVBugReporter::stopBugReporter(const QVLocalPaths&, const platform::ToolTable& tools,
                                    const std::string& plistPath, const StampWriter& writer) {
  stamp(tools, plistPath, "exit", writer);
}

std::optional<std::string>
QVBugReporter::checkForCrashes(const QVLocalPaths& paths, const platform::ToolTable&,
                               const std::optional<std::string>& applicationName,
                               const std::string& plistPath) {
  plist::Dictionary store = readStore(plistPath);
  const plist::Value* launchValue = store.find("launch");
  std::optional<plist::Date> launch = launchValue ? launchValue->asDate() : std::nullopt;
  if (!launch) {
    return std::nullopt; // the first run
  }
  std::string name = applicationName.value_or("");
  if (name.empty()) {
    const QVLocalPaths::Machine& machine = paths.machine();
    if (auto own = platform::Workspace::forMachine(machine.localRoot, machine.home).mainBundle()) {
      const plist::Value* bundleName = own->info.find("CFBundleName");
      name = bundleName && bundleName->asString() ? *bundleName->asString() : "";
    }
  }
  const plist::Value* exitValue = store.find("exit");
  std::optional<plist::Date> exit = exitValue ? exitValue->asDate() : std::nullopt;
  if (exit && !(*exit < *launch)) {
    return std::nullopt; // the last run ended in order
  }

  std::optional<std::string> report;
  for (bool user : {true, false}) {
    for (const char* folder : {"CrashReporter", "DiagnosticReports"}) {
      if (report) {
        break;
      }
      fs::path directory = fs::path(paths.logDirectory(user).value_or("")) / folder;
      std::vector<fs::path> candidates;
      std::error_code ec;
      for (const auto& entry : fs::directory_iterator(directory, ec)) {
        if (startsWithIgnoringCase(entry.path().filename().string(), name + "_")) {
          candidates.push_back(entry.path());
        }
      }
      if (candidates.empty()) {
        continue;
      }
      // The listing's last entry: names carry the date, so the last is the newest report.
      std::sort(candidates.begin(), candidates.end());
      auto modified = modificationTime(candidates.back());
      if (modified && *modified > launch->toUnix()) {
        report = candidates.back().string();
      }
    }
  }
  if (!report) {
    return std::nullopt;
  }
  QVLog::appendLog("Application crashed on last launch");
  if (reporterDisabled(paths)) {
    QVLog::appendLogAndPrint("Crash reporter disabled");
  } else {
    openReport(paths, *report);
  }
  return report;
}

void QVBugReporter::chownPlist(const platform::ToolTable& tools, const std::string& path) {
  // Only files in a user's home go back to that user: /Users/NAME/... or, on Linux,
  // /home/NAME/...; /root, /var/root and /Library stay as they are.
  fs::path file(path);
  auto it = file.begin();
  if (it == file.end() || *it != "/" || ++it == file.end() || (*it != "Users" && *it != "home")) {
    return;
  }
  auto owner = std::next(it);
  if (owner != file.end() && std::next(owner) != file.end()) {
    QVTaskEx::runTask(tools.path(platform::Tool::Chown), {owner->string(), path},
                      QVTaskEx::TimeLimit{5.0});
  }
}

} // namespace kestrin
