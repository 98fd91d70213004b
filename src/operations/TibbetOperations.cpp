#include "operations/TibbetOperations.h"

#include <fmt/format.h>

#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"
#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

constexpr MakerTool::TimeLimit kListingLimit{20.0};
constexpr MakerTool::TimeLimit kChangeLimit{10.0};

// A value that Tibbet reads from its command line, or nullopt when the key is absent or null.
std::optional<std::string> valueText(const plist::Dictionary& values, const char* key,
                                     std::string_view where) {
  const plist::Value* value = values.find(key);
  if (value == nullptr || value->isNull()) {
    return std::nullopt;
  }
  auto text = argumentText(*value);
  if (!text) {
    throw ArgumentError(fmt::format("\"{}\" in {} must be a string or a number", key, where));
  }
  return text;
}

// Tibbet's command line for a task: the positional values present, in their order, then the
// enabled switch and its value.
MakerTool::Arguments taskArguments(const char* command, const plist::Dictionary& task,
                                   bool withFilename, std::string_view selector) {
  std::string where = fmt::format("the task given to {}", selector);
  MakerTool::Arguments arguments{command};
  for (const char* key : {"filename", "bundleid", "taskid", "scheduletype", "intervalval"}) {
    auto text = valueText(task, key, where);
    if (text && (withFilename || std::string_view(key) != "filename")) {
      arguments.push_back(std::move(*text));
    }
  }
  if (auto enabled = valueText(task, "enabled", where)) {
    arguments.push_back("-enable");
    arguments.push_back(std::move(*enabled));
  }
  return arguments;
}

} // namespace

void TibbetOperations::registerIn(OperationTable& table) {
  using T = TibbetOperations;
  table.add("tibbetTaskDictionary", *this, &T::tibbetTaskDictionary);
  table.add("tibbetAddTask:settings:", *this, &T::addTask);
  table.add("tibbetEditTask:settings:", *this, &T::editTask);
  table.add("tibbetRemoveTask:settings:", *this, &T::removeTask);
  table.add("tibbetEnableTask:settings:", *this, &T::enableTask);
}

std::optional<plist::Dictionary> TibbetOperations::tibbetTaskDictionary() {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Getting Tibbet tasks...");
  auto executable = tibbet_.find(true);
  if (!executable) {
    return std::nullopt;
  }
  QVLog::appendLog("Launching task...");
  auto output = tibbet_.output(*executable, {"-tasks"}, kListingLimit);
  if (!output || output->empty()) {
    QVLog::appendLog("No data from Tibbet task");
    return std::nullopt;
  }
  auto tasks = MakerTool::dictionaryFromOutput(*output);
  if (!tasks) {
    QVLog::appendLog("Could not convert data to dictionary");
    return std::nullopt;
  }
  return std::move(*tasks);
}

void TibbetOperations::addTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
                               plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  constexpr const char* kSelector = "tibbetAddTask:settings:";
  auto task = settingsArgument<plist::Dictionary>(settings, "obj1", kSelector);
  auto arguments = taskArguments("-add", task, false, kSelector);
  QVLog::appendLog("Adding Tibbet task: {}", plist::describe(task));
  run(caller, arguments, credentials, false, tibbet_.bundleIdentifier());
}

void TibbetOperations::editTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
                                plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  constexpr const char* kSelector = "tibbetEditTask:settings:";
  auto task = settingsArgument<plist::Dictionary>(settings, "obj1", kSelector);
  auto arguments = taskArguments("-edit", task, true, kSelector);
  QVLog::appendLog("Editing Tibbet task: {}", plist::describe(task));
  run(caller, arguments, credentials, true, std::nullopt);
}

void TibbetOperations::removeTask(const Caller& caller,
                                  std::optional<plist::Dictionary> credentials,
                                  plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  constexpr const char* kSelector = "tibbetRemoveTask:settings:";
  // Without an identifier Tibbet would be told to remove, and not which: refused.
  auto task = valueText(settings, "obj2", fmt::format("the settings of {}", kSelector));
  if (!task) {
    throwWrongSetting("obj2", kSelector, "a string or a number", plist::Value());
  }
  QVLog::appendLog("Removing Tibbet task {}...", *task);
  run(caller, {"-remove", *task}, credentials, false, tibbet_.bundleIdentifier());
}

void TibbetOperations::enableTask(const Caller& caller,
                                  std::optional<plist::Dictionary> credentials,
                                  plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  constexpr const char* kSelector = "tibbetEnableTask:settings:";
  auto task = valueText(settings, "obj1", fmt::format("the settings of {}", kSelector));
  bool enable = settingsArgument<std::optional<bool>>(settings, "obj2", kSelector).value_or(false);
  if (task && enable) {
    QVLog::appendLog("Enabling Tibbet task {}...", *task);
  } else if (task) {
    QVLog::appendLog("Disabling Tibbet task {}...", *task);
  } else if (enable) {
    QVLog::appendLog("Enabling all Tibbet tasks...");
  } else {
    QVLog::appendLog("Disabling all Tibbet tasks...");
  }
  MakerTool::Arguments arguments{enable ? "-enable" : "-disable"};
  if (task) {
    arguments.push_back(*task);
  }
  run(caller, arguments, credentials, false, tibbet_.bundleIdentifier());
}

void TibbetOperations::run(const Caller& caller, const MakerTool::Arguments& arguments,
                           const std::optional<plist::Dictionary>& credentials, bool logFound,
                           const std::optional<std::string>& exitInfo) {
  auto launched = tibbet_.launch(caller, arguments, credentials, logFound, kChangeLimit);
  switch (launched.outcome) {
  case MakerTool::Launch::Outcome::ToolMissing:
    channel_.postErrorWithCode(1000, tibbet_.bundleIdentifier());
    break;
  case MakerTool::Launch::Outcome::HandedOver:
    break;
  case MakerTool::Launch::Outcome::Ran:
    if (launched.status != 0) {
      channel_.postErrorWithCode(launched.status, exitInfo);
    }
    break;
  }
}

} // namespace kestrin::operations
