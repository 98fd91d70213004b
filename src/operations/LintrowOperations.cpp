#include "operations/LintrowOperations.h"

#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

constexpr MakerTool::TimeLimit kListingLimit{15.0};

} // namespace

void LintrowOperations::registerIn(OperationTable& table) {
  using L = LintrowOperations;
  table.add("lintrowPaths", *this, &L::lintrowPaths);
  table.add("setLintrowPaths:", *this, &L::setLintrowPaths);
  table.add("setLintrowPath:forKey:", *this, &L::setLintrowPath);
  table.add("resetLintrowPath:", *this, &L::resetLintrowPath);
}

std::optional<plist::Dictionary> LintrowOperations::lintrowPaths() {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Getting Lintrow paths...");
  auto executable = lintrow_.find(true);
  if (!executable) {
    return std::nullopt;
  }
  auto output = lintrow_.output(*executable, {"-allpaths"}, kListingLimit);
  if (!output || output->empty()) {
    QVLog::appendLog("No data from Lintrow task");
    return std::nullopt;
  }
  auto paths = MakerTool::dictionaryFromOutput(*output);
  if (!paths) {
    QVLog::appendLog("Could not convert output of Lintrow task to dictionary");
    return std::nullopt;
  }
  return std::move(*paths);
}

// Lintrow reads the whole dictionary from one argument, in the text form that describes it.
// There is no time limit and nothing is read back: what Lintrow made of it is its own affair.
void LintrowOperations::setLintrowPaths(plist::Dictionary paths) {
  channel_.setProcessingCancelled(false);
  std::string text = plist::describe(plist::Value(std::move(paths)));
  QVLog::appendLog("Setting Lintrow paths to {}", text);
  auto executable = lintrow_.find(true);
  if (!executable) {
    return;
  }
  QVLog::appendLog("Running task...");
  QVTaskEx::runTask(*executable, {"-setallpaths", text});
}

void LintrowOperations::setLintrowPath(std::string path, std::string key) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Setting Lintrow path to {} for key {}", path, key);
  auto executable = lintrow_.find(true);
  if (!executable) {
    return;
  }
  runAndReport(*executable, {"-setpath", key, path});
}

void LintrowOperations::resetLintrowPath(std::string key) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Resetting Lintrow path for key {}", key);
  auto executable = lintrow_.find(false);
  if (!executable) {
    channel_.postErrorWithCode(1000, lintrow_.bundleIdentifier());
    return;
  }
  runAndReport(*executable, {"-resetpath", key});
}

void LintrowOperations::runAndReport(const std::string& executable,
                                     const MakerTool::Arguments& arguments) {
  QVLog::appendLog("Launching task...");
  int status = QVTaskEx::terminationCodeFromTask(executable, arguments);
  if (status != 0) {
    QVLog::appendLog("Task failed");
    channel_.postErrorWithCode(status, std::nullopt);
  } else {
    QVLog::appendLog("Task completed successfully");
  }
}

} // namespace kestrin::operations
