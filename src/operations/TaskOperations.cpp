// Running the tasks that the maker's applications declare in their QVTasks.plist, as the
// agent's user or with an administrator's rights, and listing them for the admin side.

#include <filesystem>
#include <map>
#include <mutex>

#include <fmt/format.h>

#include "app/AppController.h"
#include "foundation/ImageScaler.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/MakerApplications.h"
#include "operations/OperationGroups.h"
#include "operations/OperationTable.h"
#include "platform/FileBytes.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;
using plist::Value;

constexpr QVTaskEx::TimeLimit kTaskTimeLimit{30.0};

// A task ready to run, or the code that explains why there is none.
struct Resolved {
  std::string executable;
  std::vector<std::string> arguments;
  std::int64_t failure = 0;
  std::optional<std::string> info;
};

std::string optionsText(const plist::Array& options) {
  return plist::describe(Value(options));
}

// Steps shared by both ways of running: application, Info.plist, task file, task.
Resolved resolveTask(AppController& controller, const std::string& taskId,
                     const std::string& bundleId, const plist::Array& options,
                     const char* missingApplication) {
  auto path = pathForAppWithBundleID(controller.paths(), bundleId);
  QVLog::appendLog("Found application at path {} for bundle ID {}", path.value_or("(null)"),
                   bundleId);
  std::error_code ec;
  if (!path || !fs::exists(*path, ec)) {
    QVLog::appendLog("{}", missingApplication);
    return {{}, {}, 1000, bundleId};
  }
  auto info = plist::readFile(fs::path(*path) / "Contents/Info.plist");
  if (!info || !info->asDictionary()) {
    QVLog::appendLog("Cannot find application Info.plist");
    return {{}, {}, 1001, bundleId};
  }
  auto file = taskFileOf(*path);
  const Value* tasks = file ? file->find("QVTasks") : nullptr;
  if (tasks == nullptr || tasks->asArray() == nullptr) {
    QVLog::appendLog("Application uses old task format. Please update this application.");
    return {{}, {}, 1002, bundleId};
  }
  for (const Value& task : *tasks->asArray()) {
    const Value* id = task.get("id");
    if (id == nullptr || id->asString() == nullptr || *id->asString() != taskId) {
      continue;
    }
    const Value* command = task.get("command");
    if (command == nullptr || command->asArray() == nullptr || command->asArray()->empty()) {
      break;
    }
    Resolved resolved{executableOfBundle(*path), {}, 0, std::nullopt};
    for (const Value& part : *command->asArray()) {
      resolved.arguments.push_back(part.asString() ? *part.asString() : plist::describe(part));
    }
    for (const Value& option : options) {
      resolved.arguments.push_back(option.asString() ? *option.asString()
                                                     : plist::describe(option));
    }
    return resolved;
  }
  QVLog::appendLog("Task not found");
  return {{}, {}, 1003, std::nullopt};
}

Value executeTask(AppController& controller, const Arguments& a) {
  const std::string& taskId = a.string(0);
  const std::string& bundleId = a.string(1);
  plist::Array options = a.at(2).isNull() ? plist::Array{} : a.array(2);
  QVLog::appendLog("Executing task {} in {} with options {}...", taskId, bundleId,
                   optionsText(options));
  Resolved task = resolveTask(controller, taskId, bundleId, options, "Application doesn't exist");
  if (task.failure != 0) {
    controller.errorChannel().postErrorWithCode(task.failure, task.info);
    return {};
  }
  QVLog::appendLog("Executing task...");
  int status = QVTaskEx::terminationCodeFromTask(task.executable, task.arguments, kTaskTimeLimit);
  if (status == 0) {
    QVLog::appendLog("Task finished successfully.");
  } else {
    QVLog::appendLog("Task finished with an error.");
    controller.errorChannel().postErrorWithCode(status, std::nullopt);
  }
  return {};
}

Value authExecuteTask(AppController& controller, const Arguments& a) {
  const std::string& taskId = a.string(0);
  const std::string& bundleId = a.string(1);
  plist::Array options = a.at(2).isNull() ? plist::Array{} : a.array(2);
  std::optional<std::string> user = a.optionalString(3);
  QVLog::appendLog("Auth executing task {} in {} with options {} for user {}...", taskId, bundleId,
                   optionsText(options), user.value_or("(null)"));
  ErrorChannel& channel = controller.errorChannel();
  auto fail = [&](std::int64_t code, const std::optional<std::string>& info) {
    channel.postErrorWithCode(code, info);
    channel.postFinishedTask();
    return Value();
  };
  Resolved task = resolveTask(controller, taskId, bundleId, options, "Cannot find application");
  if (task.failure != 0) {
    return fail(task.failure, task.info);
  }
  const plist::Data* encrypted = a.at(4).asData();
  SecretBuffer password = encrypted ? QVEncryption::decryptPassword(*encrypted) : SecretBuffer();
  auto authorization = QVAuthorization::sharedController(false).authStartWithUser(user, password);
  if (!authorization.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
    return fail(1006, std::nullopt);
  }
  QVLog::appendLog("Executing auth task...");
  authorization.authExecTask(task.executable, task.arguments);
  QVLog::appendLog("Ending authorization...");
  authorization.authEnd();
  return {};
}

// The same run, reporting to one callback instead of the error channel: each failure and, on
// success, the tool's output arrive under "output".
Value authExecuteTaskWithCallback(AppController& controller, const Arguments& a) {
  if (a.at(5).isNull()) {
    QVLog::appendLog("Error: No callback specified.");
    return {};
  }
  const std::string& taskId = a.string(0);
  const std::string& bundleId = a.string(1);
  plist::Array options = a.at(2).isNull() ? plist::Array{} : a.array(2);
  std::optional<std::string> user = a.optionalString(3);
  std::string callbackName = a.string(6);
  controller.setupCallbackListener(a.object(5), callbackName);
  QVLog::appendLog("Auth executing task {} in {} with options {} for user {} (with callback)...",
                   taskId, bundleId, optionsText(options), user.value_or("(null)"));
  auto report = [&](const std::string& output) {
    controller.executeCallback(callbackName, plist::Dictionary{{"output", output}});
    return Value();
  };
  Resolved task = resolveTask(controller, taskId, bundleId, options, "Cannot find application");
  switch (task.failure) {
  case 0:
    break;
  case 1000:
    return report("Error: Cannot find application");
  case 1001:
    return report("Error: Cannot find application's Info.plist file");
  case 1002:
    return report("Error: Application uses old task format. Please update the application.");
  default:
    return report("Error: Task not found.");
  }
  const plist::Data* encrypted = a.at(4).asData();
  SecretBuffer password = encrypted ? QVEncryption::decryptPassword(*encrypted) : SecretBuffer();
  auto authorization = QVAuthorization::sharedController(false).authStartWithUser(user, password);
  if (!authorization.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
    return report("Error: Unable to authorize. Username and password may be incorrect.");
  }
  QVLog::appendLog("Executing auth task...");
  std::optional<std::string> output =
      authorization.authOutputFromTask(task.executable, task.arguments);
  QVLog::appendLog("Ending authorization...");
  authorization.authEnd();
  return report(output.value_or(""));
}

// The tasks of one application as the admin side lists them, or nothing.
std::optional<plist::Array> tasksOf(const std::string& bundlePath, const plist::Dictionary& info) {
  auto file = taskFileOf(bundlePath);
  const plist::Dictionary& source = file ? *file : info;
  const Value* tasks = source.find("QVTasks");
  if (tasks == nullptr) {
    return std::nullopt;
  }
  if (const plist::Array* list = tasks->asArray()) {
    return *list;
  }
  const plist::Dictionary* old = tasks->asDictionary();
  if (old == nullptr) {
    return std::nullopt;
  }
  plist::Array converted;
  for (const auto& [line, description] : *old) {
    plist::Array command;
    std::size_t start = 0;
    for (std::size_t at; (at = line.find(" ### ", start)) != std::string::npos; start = at + 5) {
      command.push_back(line.substr(start, at - start));
    }
    command.push_back(line.substr(start));
    converted.push_back(plist::Dictionary{{"description", description}, {"command", command}});
  }
  return converted;
}

// Converted icons by source file. Listing runs the converter once per icon file rather than
// once per application and call: the generic icon alone serves most bundles.
class IconCache {
public:
  std::optional<plist::Data> tiffOf(const std::string& file) {
    std::error_code ec;
    auto modified = fs::last_write_time(file, ec);
    auto size = ec ? 0 : fs::file_size(file, ec);
    if (ec) {
      return std::nullopt;
    }
    {
      std::lock_guard lock(mutex_);
      auto found = entries_.find(file);
      if (found != entries_.end() && found->second.modified == modified &&
          found->second.size == size) {
        return found->second.tiff;
      }
    }
    constexpr std::size_t kIconFileLimit = 16 << 20;
    auto bytes = platform::readFileBytes(file, kIconFileLimit);
    auto tiff = bytes ? ImageScaler::shared().scaleImageData(*bytes, 48, 48)
                      : Expected<plist::Data>(bytes.failure());
    if (!tiff) {
      QVLog::appendLog("No icon from {}: {}", file, tiff.message());
      return std::nullopt;
    }
    std::lock_guard lock(mutex_);
    entries_[file] = {modified, size, *tiff};
    return std::move(*tiff);
  }

private:
  struct Entry {
    fs::file_time_type modified;
    std::uintmax_t size = 0;
    plist::Data tiff;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};

// The application's icon as the admin side lists it: TIFF data, 48 × 48.
std::optional<plist::Data> iconOf(const platform::Workspace& workspace,
                                  const std::string& bundlePath) {
  static IconCache cache;
  auto file = workspace.iconFileForBundle(bundlePath);
  return file ? cache.tiffOf(*file) : std::nullopt;
}

Value qvAppTasks(AppController& controller, const Arguments&) {
  QVLog::appendLog("Getting Quorvane apps with available tasks...");
  const QVLocalPaths::Machine& machine = controller.paths().machine();
  auto workspace = platform::Workspace::forMachine(machine.localRoot, machine.home);
  plist::Array entries;
  for (const std::string& path : controller.qvApps(std::chrono::seconds(10))) {
    auto info = plist::readFile(fs::path(path) / "Contents/Info.plist");
    plist::Dictionary infoDict =
        info && info->asDictionary() ? *info->asDictionary() : plist::Dictionary{};
    auto tasks = tasksOf(path, infoDict);
    if (!tasks || tasks->empty()) {
      continue;
    }
    const Value* name = infoDict.find("CFBundleName");
    const Value* identifier = infoDict.find("CFBundleIdentifier");
    plist::Dictionary entry{{"name", name ? *name : Value()},
                            {"bundleid", identifier ? *identifier : Value()}};
    if (auto icon = iconOf(workspace, path)) {
      entry.set("icon", std::move(*icon));
    }
    entry.set("tasks", std::move(*tasks));
    entries.push_back(std::move(entry));
  }
  return entries;
}

} // namespace

void addTaskOperations(OperationTable& table) {
  table.add("executeTask:bundleID:options:", executeTask);
  table.add("authExecuteTask:bundleID:options:username:password:", authExecuteTask);
  table.add("authExecuteTask:bundleID:options:username:password:callback:callbackName:",
            authExecuteTaskWithCallback);
  table.add("qvAppTasks", qvAppTasks);
  table.add("pathForAppWithBundleID:", [](AppController& controller, const Arguments& a) {
    auto path = pathForAppWithBundleID(controller.paths(), a.string(0));
    return path ? Value(*path) : Value();
  });
  table.add("exePathForAppWithBundleID:", [](AppController& controller, const Arguments& a) {
    auto path = pathForAppWithBundleID(controller.paths(), a.string(0));
    return path ? Value(executableOfBundle(*path)) : Value();
  });
  table.add("pathForBundleID:inFolder:", [](AppController&, const Arguments& a) {
    auto path = pathForBundleIDInFolder(a.string(0), a.string(1));
    return path ? Value(*path) : Value();
  });
  table.add("qvAppsInFolder:", [](AppController& controller, const Arguments& a) {
    plist::Array paths;
    for (const std::string& path : qvAppsInFolder(controller.paths(), a.string(0))) {
      paths.push_back(path);
    }
    return Value(paths);
  });
  table.add("setupIconDict", [](AppController& controller, const Arguments&) {
    controller.setupIconDict();
    return Value();
  });
  table.add("dictionaryFromData:", [](AppController&, const Arguments& a) {
    auto value = plist::parse(a.data(0));
    if (!value || !value->asDictionary()) {
      QVLog::appendLog("Could not convert data to dictionary");
      return Value();
    }
    return *value;
  });
}

} // namespace kestrin::operations
