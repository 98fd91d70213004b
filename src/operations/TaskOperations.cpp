// Running the tasks that the maker's applications declare in their QVTasks.plist, as the
// agent's user or with an administrator's rights, and listing them for the admin side.

#include "operations/TaskOperations.h"

#include <filesystem>

#include <fmt/format.h>

#include "foundation/ImageScaler.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/AgentIcons.h"
#include "operations/ApplicationCatalog.h"
#include "operations/CallbackRelay.h"
#include "operations/CredentialThrottle.h"
#include "operations/ErrorChannel.h"
#include "operations/MakerApplications.h"
#include "platform/FileBytes.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;
using plist::Value;

constexpr QVTaskEx::TimeLimit kTaskTimeLimit{30.0};
// How long a listing waits for the scan of the maker's applications at start-up.
constexpr auto kApplicationScanWait = std::chrono::seconds(10);

std::string optionsText(const plist::Array& options) {
  return plist::describe(Value(options));
}

SecretBuffer passwordFrom(const Value& data) {
  const plist::Data* bytes = data.asData();
  return bytes ? QVEncryption::decryptPassword(*bytes) : SecretBuffer();
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

} // namespace

// A task ready to run, or the code that explains why there is none.
struct TaskOperations::Resolved {
  std::string executable;
  std::vector<std::string> arguments;
  std::int64_t failure = 0;
  std::optional<std::string> info;
};

TaskOperations::TaskOperations(const Services& services) : services_(services) {}

void TaskOperations::registerIn(OperationTable& table) {
  using T = TaskOperations;
  table.add("executeTask:bundleID:options:", *this, &T::executeTask);
  table.add("authExecuteTask:bundleID:options:username:password:", *this, &T::authExecuteTask);
  table.add("authExecuteTask:bundleID:options:username:password:callback:callbackName:", *this,
            &T::authExecuteTaskWithCallback);
  table.add("qvAppTasks", *this, &T::qvAppTasks);
  table.add("pathForAppWithBundleID:", *this, &T::pathForAppWithBundleID);
  table.add("exePathForAppWithBundleID:", *this, &T::exePathForAppWithBundleID);
  table.add("pathForBundleID:inFolder:", *this, &T::pathForBundleIDInFolder);
  table.add("qvAppsInFolder:", *this, &T::qvAppsInFolder);
  table.add("setupIconDict", *this, &T::setupIconDict);
  table.add("dictionaryFromData:", *this, &T::dictionaryFromData);
}

// Steps shared by both ways of running: application, Info.plist, task file, task.
TaskOperations::Resolved TaskOperations::resolveTask(const std::string& taskId,
                                                     const std::string& bundleId,
                                                     const plist::Array& options,
                                                     const char* missingApplication) {
  auto path = services_.applications.pathForAppWithBundleID(bundleId);
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

void TaskOperations::executeTask(std::string taskId, std::string bundleId,
                                 std::optional<plist::Array> options) {
  plist::Array given = options.value_or(plist::Array{});
  QVLog::appendLog("Executing task {} in {} with options {}...", taskId, bundleId,
                   optionsText(given));
  Resolved task = resolveTask(taskId, bundleId, given, "Application doesn't exist");
  if (task.failure != 0) {
    services_.errorChannel.postErrorWithCode(task.failure, task.info);
    return;
  }
  QVLog::appendLog("Executing task...");
  int status = QVTaskEx::terminationCodeFromTask(task.executable, task.arguments, kTaskTimeLimit,
                                                 services_.timer);
  if (status == 0) {
    QVLog::appendLog("Task finished successfully.");
  } else {
    QVLog::appendLog("Task finished with an error.");
    services_.errorChannel.postErrorWithCode(status, std::nullopt);
  }
}

void TaskOperations::authExecuteTask(const Caller& caller, std::string taskId, std::string bundleId,
                                     std::optional<plist::Array> options,
                                     std::optional<std::string> user, Value password) {
  plist::Array given = options.value_or(plist::Array{});
  QVLog::appendLog("Auth executing task {} in {} with options {} for user {}...", taskId, bundleId,
                   optionsText(given), user.value_or("(null)"));
  ErrorChannel& channel = services_.errorChannel;
  auto fail = [&](std::int64_t code, const std::optional<std::string>& info) {
    channel.postErrorWithCode(code, info);
    channel.postFinishedTask();
  };
  Resolved task = resolveTask(taskId, bundleId, given, "Cannot find application");
  if (task.failure != 0) {
    return fail(task.failure, task.info);
  }
  auto authorization = services_.credentials.startSession(caller, user, passwordFrom(password));
  if (!authorization.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
    return fail(1006, std::nullopt);
  }
  QVLog::appendLog("Executing auth task...");
  authorization.authExecTask(task.executable, task.arguments);
  QVLog::appendLog("Ending authorization...");
  authorization.authEnd();
}

void TaskOperations::authExecuteTaskWithCallback(const Caller& caller, std::string taskId,
                                                 std::string bundleId,
                                                 std::optional<plist::Array> options,
                                                 std::optional<std::string> user, Value password,
                                                 std::optional<plist::ObjectRef> callback,
                                                 Value callbackName) {
  if (!callback) {
    QVLog::appendLog("Error: No callback specified.");
    return;
  }
  std::string name = ArgumentDecoder<std::string>::decode(
      callbackName,
      {"authExecuteTask:bundleID:options:username:password:callback:callbackName:", 6});
  plist::Array given = options.value_or(plist::Array{});
  CallbackRelay& relay = services_.callbackRelay;
  relay.setupCallbackListener(caller, *callback, name);
  QVLog::appendLog("Auth executing task {} in {} with options {} for user {} (with callback)...",
                   taskId, bundleId, optionsText(given), user.value_or("(null)"));
  auto report = [&](const std::string& output) {
    relay.executeCallback(caller, name, plist::Dictionary{{"output", output}});
  };
  Resolved task = resolveTask(taskId, bundleId, given, "Cannot find application");
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
  auto authorization = services_.credentials.startSession(caller, user, passwordFrom(password));
  if (!authorization.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
    return report("Error: Unable to authorize. Username and password may be incorrect.");
  }
  QVLog::appendLog("Executing auth task...");
  std::optional<std::string> output =
      authorization.authOutputFromTask(task.executable, task.arguments);
  QVLog::appendLog("Ending authorization...");
  authorization.authEnd();
  report(output.value_or(""));
}

// The application's icon as the admin side lists it: TIFF data, 48 x 48.
std::optional<plist::Data> TaskOperations::iconOf(const std::string& bundlePath) {
  auto file = services_.workspace.iconFileForBundle(bundlePath);
  if (!file) {
    return std::nullopt;
  }
  std::error_code ec;
  auto modified = fs::last_write_time(*file, ec);
  auto size = ec ? 0 : fs::file_size(*file, ec);
  if (ec) {
    return std::nullopt;
  }
  {
    std::lock_guard lock(iconsMutex_);
    auto found = icons_.find(*file);
    if (found != icons_.end() && found->second.modified == modified && found->second.size == size) {
      return found->second.tiff;
    }
  }
  constexpr std::size_t kIconFileLimit = 16 << 20;
  auto bytes = platform::readFileBytes(*file, kIconFileLimit);
  auto tiff = bytes ? ImageScaler::shared().scaleImageData(*bytes, 48, 48)
                    : Expected<plist::Data>(bytes.failure());
  if (!tiff) {
    QVLog::appendLog("No icon from {}: {}", *file, tiff.message());
    return std::nullopt;
  }
  std::lock_guard lock(iconsMutex_);
  icons_[*file] = {modified, size, *tiff};
  return std::move(*tiff);
}

plist::Array TaskOperations::qvAppTasks() {
  QVLog::appendLog("Getting Quorvane apps with available tasks...");
  plist::Array entries;
  for (const std::string& path : services_.applications.qvApps(kApplicationScanWait)) {
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
    if (auto icon = iconOf(path)) {
      entry.set("icon", std::move(*icon));
    }
    entry.set("tasks", std::move(*tasks));
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<std::string> TaskOperations::pathForAppWithBundleID(std::string bundleId) {
  return services_.applications.pathForAppWithBundleID(bundleId);
}

std::optional<std::string> TaskOperations::exePathForAppWithBundleID(std::string bundleId) {
  auto path = services_.applications.pathForAppWithBundleID(bundleId);
  return path ? std::optional(executableOfBundle(*path)) : std::nullopt;
}

std::optional<std::string> TaskOperations::pathForBundleIDInFolder(std::string bundleId,
                                                                   std::string folder) {
  return operations::pathForBundleIDInFolder(bundleId, folder);
}

plist::Array TaskOperations::qvAppsInFolder(std::string folder) {
  plist::Array paths;
  for (const std::string& path : operations::qvAppsInFolder(services_.paths, folder)) {
    paths.push_back(path);
  }
  return paths;
}

void TaskOperations::setupIconDict() {
  services_.icons.setupIconDict();
}

Value TaskOperations::dictionaryFromData(plist::Data data) {
  auto value = plist::parse(data);
  if (!value || !value->asDictionary()) {
    QVLog::appendLog("Could not convert data to dictionary");
    return {};
  }
  return *value;
}

} // namespace kestrin::operations
