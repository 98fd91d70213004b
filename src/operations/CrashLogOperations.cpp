// Crash reports and logs for the admin side: finding the video applications' reports, having
// Tovell explain, submit and consolidate them, and the agent's own logs and crash reports.

#include "operations/CrashLogOperations.h"

#include "operations/CredentialOperations.h"

#include <filesystem>

#include <fmt/format.h>

#include "foundation/QVAuthorization.h"
#include "foundation/QVException.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "foundation/QVTaskEx.h"
#include "foundation/Timer.h"
#include "foundation/WorkerPool.h"
#include "operations/AgentControl.h"
#include "operations/ApplicationCatalog.h"
#include "operations/CredentialOperations.h"
#include "operations/ErrorChannel.h"
#include "operations/ExceptionGuard.h"
#include "operations/MakerApplications.h"
#include "platform/SystemFacts.h"

namespace kestrin::operations {

namespace {

using plist::Value;

constexpr const char* kAddLogs = "tovellAddLogs:hostName:";
constexpr const char* kSinceDateMethod = "-[AppController crashLogsSinceDate:delegate:]";
constexpr const char* kInvalidFilename = "Crash log filename is invalid.";

constexpr QVTaskEx::TimeLimit kCausesLimit{15.0};
constexpr QVTaskEx::TimeLimit kOneCauseLimit{8.0};
constexpr QVTaskEx::TimeLimit kAnalysisLimit{15.0};
constexpr QVTaskEx::TimeLimit kSubmissionLimit{10.0};

// Tovell's output as text; nullopt when it printed nothing (or could not run), as a run that
// yields no output gives no string.
std::optional<std::string> tovellOutput(const std::string& tovell,
                                        const std::vector<std::string>& arguments,
                                        QVTaskEx::TimeLimit limit, Timer& timer) {
  auto output = QVTaskEx::dataFromTask(tovell, arguments, limit, timer);
  if (!output || output->empty()) {
    return std::nullopt;
  }
  return QVTaskEx::decode(*output, StringEncoding::UTF8);
}

// The lines of Tovell's output, each taken as it is, empty or not. The line end of the last
// line starts no line of its own: a tool that printed one line fewer than it was given reports
// must not look as if it had printed them all.
std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> split;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    split.push_back(text.substr(start, end - start));
  }
  if (start < text.size()) {
    split.push_back(text.substr(start));
  }
  return split;
}

// Names for a log line: a file's name is whatever its creator chose.
std::string describeNames(const std::vector<std::string>& names) {
  plist::Array printable;
  for (const std::string& name : names) {
    printable.push_back(printablePath(name));
  }
  return plist::describe(Value(std::move(printable)));
}

} // namespace

CrashLogOperations::CrashLogOperations(const Services& services)
    : services_(services), folders_(services.paths) {}

CrashLogOperations::~CrashLogOperations() {
  std::lock_guard lock(consolidationMutex_);
  consolidationFinished_ = {};
}

void CrashLogOperations::registerIn(OperationTable& table) {
  using C = CrashLogOperations;
  table.add("crashLogsSinceDate:delegate:", *this, &C::crashLogsSinceDate);
  table.add("crashLogObjectsForFiles:", *this, &C::crashLogObjectsForFiles);
  table.add("tovellGetDefinition:", *this, &C::tovellGetDefinition);
  table.add("tovellRemoveLogFilename:", *this, &C::tovellRemoveLogFilename, false);
  table.add("tovellSubmitCrashLog:comment:", *this, &C::tovellSubmitCrashLog);
  table.add("consolidateCrashLogs:", *this, &C::consolidateCrashLogs);
  table.add("consolidateCrashLogsDidFinish:", *this, &C::consolidateCrashLogsDidFinish);
  table.add("populateQVLogFilenames", *this, &C::populateQVLogFilenames);
  table.add("logWithFilename:", *this, &C::logWithFilename);
  table.add("fcsCrashLog:", *this, &C::fcsCrashLog);
  table.add("gatherLogs", *this, &C::gatherLogs);
  table.add("appNameFromCrashLogFilename:", *this, &C::appNameFromCrashLogFilename);
  table.add("systemSpecs", *this, &C::systemSpecs);
}

// ---- Tovell

std::optional<std::string> CrashLogOperations::tovellExecutable(bool logLookup) {
  auto bundle = services_.applications.pathForAppWithBundleID(kTovellIdentifier);
  std::optional<std::string> executable;
  if (bundle) {
    executable = executableOfBundle(*bundle);
  }
  if (logLookup) {
    QVLog::appendLog("Found application at path {} for bundle ID {}", executable.value_or("(null)"),
                     kTovellIdentifier);
  }
  if (!executable || !QVTaskEx::isRunnable(*executable)) {
    QVLog::appendLog("Unable to locate Tovell application");
    services_.errorChannel.postErrorWithCode(1000, std::string(kTovellIdentifier));
    return std::nullopt;
  }
  return executable;
}

plist::Dictionary CrashLogOperations::record(const std::string& path, const plist::Date& date,
                                             const std::string& cause) const {
  return {{"hostname", services_.agent.hostName()},
          {"filename", path},
          {"date", date},
          {"cause", cause},
          {"app", operations::appNameFromCrashLogFilename(path)}};
}

std::optional<plist::Array> CrashLogOperations::recordsFor(const std::string& tovell,
                                                           const std::vector<std::string>& paths) {
  std::vector<std::string> arguments{"-cause"};
  arguments.insert(arguments.end(), paths.begin(), paths.end());
  auto output = tovellOutput(tovell, arguments, kCausesLimit, services_.timer);
  if (!output) {
    return std::nullopt;
  }
  // Tovell prints one line per report, in argument order; a short answer cannot be matched up.
  std::vector<std::string> causes = lines(*output);
  if (causes.size() < paths.size()) {
    return std::nullopt;
  }
  plist::Array records;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    // A report removed meanwhile has no date and is no longer there to report.
    if (auto created = QVFileManager::creationDateForFile(paths[i])) {
      records.push_back(record(paths[i], *created, causes[i]));
    }
  }
  return records;
}

std::optional<std::string>
CrashLogOperations::confinedReport(const std::optional<std::string>& path, const char* operation) {
  if (!path) {
    QVLog::appendLog("{}", kInvalidFilename);
    return std::nullopt;
  }
  if (!folders_.inCrashReportFolder(*path)) {
    QVLog::appendLog("{}: refusing {}, which is not in a crash report folder", operation,
                     printablePath(*path));
    return std::nullopt;
  }
  return path;
}

// ---- reports of the video applications

void CrashLogOperations::crashLogsSinceDate(std::optional<plist::Date> date,
                                            std::optional<plist::ObjectRef> delegate) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Getting crash logs since date {}", date ? date->description() : "(null)");
  // A delegate's failure belongs to its own connection: logged, it ends this delivery, and it
  // never restarts the agent's service as a time-out of the agent's own would.
  auto delegateFailed = [](const NamedException& e) {
    QVException::logException(e, kSinceDateMethod);
  };
  if (delegate) {
    bool responds = false;
    try {
      responds = (*delegate)->respondsTo(kAddLogs);
    } catch (const NamedException& e) {
      delegateFailed(e);
      return;
    }
    if (!responds) {
      QVLog::appendLog("Delegate does not respond to selector.");
      services_.errorChannel.postErrorString("Delegate does not respond to selector.", Value());
      return;
    }
  }
  auto tovell = tovellExecutable(true);
  if (!tovell) {
    return;
  }

  std::string hostName = services_.agent.hostName();
  std::set<std::string> taken;
  std::vector<std::string> pending;
  plist::Array outgoing;
  auto examinePending = [&] {
    auto records = recordsFor(*tovell, pending);
    if (records && delegate) {
      outgoing.insert(outgoing.end(), records->begin(), records->end());
    }
    pending.clear();
  };
  auto deliver = [&] {
    try {
      (*delegate)->invoke(kAddLogs, {Value(std::exchange(outgoing, {})), Value(hostName)});
      return true;
    } catch (const NamedException& e) {
      delegateFailed(e);
      return false;
    }
  };

  for (const std::string& folder : folders_.crashReportFolders()) {
    auto names = listRegularFiles(folder);
    if (!names) {
      QVLog::appendLog("Error listing contents of crash folder {} - {}", printablePath(folder),
                       names.message());
      continue;
    }
    std::vector<std::string> kept;
    std::copy_if(names->begin(), names->end(), std::back_inserter(kept),
                 [](const std::string& name) { return isVideoApplicationCrashReport(name); });
    QVLog::appendLog("Found files: {}", describeNames(kept));
    for (const std::string& name : kept) {
      std::string path = folder + "/" + name;
      auto created = QVFileManager::creationDateForFile(path);
      // The first folder that holds a name wins; a report exactly as old as the date is not
      // newer than it.
      if (created && (!date || *created > *date) && taken.insert(name).second) {
        pending.push_back(std::move(path));
      }
      if (pending.size() == kDelegateBatch) {
        examinePending();
      }
      if (delegate && outgoing.size() >= kDelegateBatch && !deliver()) {
        return;
      }
    }
  }
  if (!pending.empty()) {
    examinePending();
  }
  if (delegate && !outgoing.empty()) {
    deliver();
  }
}

plist::Value CrashLogOperations::crashLogObjectsForFiles(plist::Array files) {
  if (files.size() > kMaxFilesPerRun) {
    QVLog::appendLog("crashLogObjectsForFiles: refusing {} files, more than {} at once",
                     files.size(), kMaxFilesPerRun);
    return {};
  }
  std::vector<std::string> paths;
  for (const Value& file : files) {
    const std::string* path = file.asString();
    if (path == nullptr || !confinedReport(*path, "crashLogObjectsForFiles:")) {
      return {};
    }
    paths.push_back(*path);
  }
  auto tovell = tovellExecutable(false);
  if (!tovell) {
    return {};
  }
  auto records = recordsFor(*tovell, paths);
  return records ? Value(std::move(*records)) : Value();
}

std::optional<std::string>
CrashLogOperations::tovellGetDefinition(std::optional<std::string> path) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Getting Tovell definition for file {}", path ? printablePath(*path) : "(null)");
  auto report = confinedReport(path, "tovellGetDefinition:");
  if (!report) {
    return std::nullopt;
  }
  auto tovell = tovellExecutable(false);
  if (!tovell) {
    return std::nullopt;
  }
  return tovellOutput(*tovell, {"-analyze", "-html", *report}, kAnalysisLimit, services_.timer);
}

bool CrashLogOperations::tovellRemoveLogFilename(std::optional<std::string> path) {
  auto report = confinedReport(path, "tovellRemoveLogFilename:");
  if (!report) {
    return false;
  }
  // Reports are files: a folder that happens to sit among them is not the caller's to remove.
  std::error_code error;
  auto status = std::filesystem::symlink_status(*report, error);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    QVLog::appendLog("tovellRemoveLogFilename: refusing {}, which is not a file",
                     printablePath(*report));
    return false;
  }
  QVFileManager::Environment environment{services_.paths, services_.tools, services_.timer.clock()};
  return QVFileManager::trashFile(*report, true, nullptr, environment);
}

void CrashLogOperations::tovellSubmitCrashLog(std::optional<std::string> path,
                                              std::optional<std::string> comment) {
  services_.errorChannel.setProcessingCancelled(false);
  // The analysis's words, kept for the submission on purpose: the admin side looks for them.
  QVLog::appendLog("Getting Tovell definition for file {}", path ? printablePath(*path) : "(null)");
  auto report = confinedReport(path, "tovellSubmitCrashLog:comment:");
  if (!report) {
    return;
  }
  auto tovell = tovellExecutable(false);
  if (!tovell) {
    return;
  }
  QVTaskEx::runTask(*tovell, {"-submit", *report, comment.value_or("")}, kSubmissionLimit,
                    services_.timer);
}

// ---- consolidation

void CrashLogOperations::consolidateCrashLogs(const Caller& caller,
                                              std::optional<plist::Dictionary> credentials) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Consolidating crash logs...");
  // One session both checks the credentials and runs the helper: one password check, not two.
  auto session = CredentialOperations(services_.credentials, services_.errorChannel)
                     .sessionFor(caller, credentials);
  if (!credentials || !session.isAuthorized()) {
    services_.errorChannel.postErrorWithCode(1006, std::nullopt);
    return;
  }
  auto bundle = services_.applications.pathForAppWithBundleID(kTovellIdentifier);
  if (!bundle) {
    QVLog::appendLog("Cannot find the location of the Tovell application");
    return;
  }
  std::string helper = *bundle + "/Contents/Helpers/LogConsolidator";
  if (!QVTaskEx::isRunnable(helper)) {
    QVLog::appendLog("Cannot find the location of the LogConsolidator helper");
    return;
  }
  {
    std::lock_guard lock(consolidationMutex_);
    // The bus's thread only hands the end over: it lists folders and runs Tovell.
    consolidationFinished_ =
        services_.notifications.observe(kConsolidateFinished, [this](const plist::Dictionary&) {
          services_.workers.submit([this] {
            services_.guard.run("-[AppController consolidateCrashLogsDidFinish:]",
                                [this] { finishConsolidation(); });
          });
        });
    if (!consolidationFinished_) {
      QVLog::appendLog("Notifications are off: the end of this consolidation cannot be seen");
    }
    auto names = listRegularFiles(folders_.userCrashReportFolder());
    snapshot_.emplace();
    if (names) {
      snapshot_->insert(names->begin(), names->end());
    }
  }
  QVLog::appendLog("Launching task...");
  if (int status = session.authExecTask(helper, {}); status != 0) {
    QVLog::appendLog("The LogConsolidator helper did not start ({})", status);
  }
}

void CrashLogOperations::consolidateCrashLogsDidFinish(const Caller& caller, plist::Value) {
  if (caller.connection != 0) {
    QVLog::appendLog("consolidateCrashLogsDidFinish: refused: the end of a consolidation is its "
                     "helper's to announce");
    return;
  }
  finishConsolidation();
}

void CrashLogOperations::finishConsolidation() {
  std::optional<std::set<std::string>> snapshot;
  {
    std::lock_guard lock(consolidationMutex_);
    consolidationFinished_ = {};
    snapshot = std::exchange(snapshot_, std::nullopt);
  }
  if (!snapshot) {
    QVLog::appendLog("No crash log consolidation is under way.");
    return;
  }
  std::string folder = folders_.userCrashReportFolder();
  auto names = listRegularFiles(folder);
  if (!names) {
    QVLog::appendLog("Error listing contents of crash folder {} - {}", printablePath(folder),
                     names.message());
    return;
  }
  std::vector<std::string> added;
  for (const std::string& name : *names) {
    if (snapshot->count(name) == 0) {
      added.push_back(folder + "/" + name);
    }
  }
  if (added.empty()) {
    return;
  }
  auto tovell = tovellExecutable(false);
  if (!tovell) {
    return;
  }
  ErrorChannel& channel = services_.errorChannel;
  std::string hostName = services_.agent.hostName();
  plist::Array batch;
  for (const std::string& path : added) {
    auto created = QVFileManager::creationDateForFile(path);
    if (!created) {
      continue;
    }
    auto cause = tovellOutput(*tovell, {"-cause", path}, kOneCauseLimit, services_.timer);
    batch.push_back(record(path, *created, cause.value_or("Unknown")));
    if (batch.size() == kConsolidationBatch) {
      channel.performErrorCallbackSelector(kAddLogs, std::exchange(batch, {}), hostName);
    }
  }
  if (!batch.empty()) {
    channel.performErrorCallbackSelector(kAddLogs, batch, hostName);
  }
}

// ---- the agent's own logs

plist::Array CrashLogOperations::populateQVLogFilenames() {
  plist::Array paths;
  for (const CrashLogFolders::LogFolder& folder : folders_.agentLogFolders()) {
    auto names = listRegularFiles(folder.path);
    for (const std::string& name : names ? *names : std::vector<std::string>{}) {
      if (folder.keeps(name)) {
        paths.push_back(folder.path + "/" + name);
      }
    }
  }
  return paths;
}

std::optional<std::string> CrashLogOperations::readText(const std::string& path,
                                                        const std::string& missing) {
  if (!entryExists(path)) {
    services_.errorChannel.postErrorString(missing, Value());
    return std::nullopt;
  }
  auto bytes = readRegularFile(path, kFileLimit);
  if (!bytes) {
    QVLog::appendLog("Unable to read {}: {}", printablePath(path), bytes.message());
    return std::nullopt;
  }
  return QVTaskEx::decode(*bytes, StringEncoding::UTF8);
}

std::optional<std::string> CrashLogOperations::logWithFilename(std::optional<std::string> path) {
  std::string given = path.value_or("(null)");
  if (!path || !folders_.isAgentLog(*path)) {
    QVLog::appendLog("logWithFilename: refusing {}, which is not one of the agent's logs",
                     printablePath(given));
    services_.errorChannel.postErrorString(
        fmt::format("Unable to get log {} - not one of the agent's logs.", given), Value());
    return std::nullopt;
  }
  return readText(*path, fmt::format("Unable to get log {} - file doesn't exist.", *path));
}

std::optional<std::string> CrashLogOperations::fcsCrashLog(std::optional<std::string> path) {
  std::string given = path.value_or("(null)");
  if (!path || !folders_.inCrashReportFolder(*path)) {
    QVLog::appendLog("fcsCrashLog: refusing {}, which is not in a crash report folder",
                     printablePath(given));
    services_.errorChannel.postErrorString(
        fmt::format("Unable to load crash log for file {} - not in a crash report folder", given),
        Value());
    return std::nullopt;
  }
  return readText(*path,
                  fmt::format("Unable to load crash log for file {} - file doesn't exist", *path));
}

std::optional<plist::Dictionary> CrashLogOperations::gatherLogs() {
  ErrorChannel& channel = services_.errorChannel;
  channel.setProcessingCancelled(false);
  QVLog::appendLog("Gathering logs...");
  plist::Dictionary logs;
  std::size_t total = 0;
  for (const CrashLogFolders::LogFolder& folder : folders_.agentLogFolders()) {
    if (channel.processingCancelled()) {
      return std::nullopt;
    }
    auto names = listRegularFiles(folder.path);
    for (const std::string& name : names ? *names : std::vector<std::string>{}) {
      if (!folder.keeps(name)) {
        continue;
      }
      if (channel.processingCancelled()) {
        return std::nullopt;
      }
      std::string path = folder.path + "/" + name;
      auto bytes = readRegularFile(path, kFileLimit);
      if (!bytes) {
        QVLog::appendLog("Unable to read {}: {}", printablePath(path), bytes.message());
        continue;
      }
      if (total + bytes->size() > kGatherLimit) {
        QVLog::appendLog("Leaving out {}: the logs gathered already come to {} bytes",
                         printablePath(path), total);
        continue;
      }
      total += bytes->size();
      logs.set(std::move(path), std::move(*bytes));
    }
  }
  if (logs.empty()) {
    QVLog::appendLog("No logs found.");
    return std::nullopt;
  }
  return logs;
}

std::string CrashLogOperations::appNameFromCrashLogFilename(std::string path) {
  return operations::appNameFromCrashLogFilename(path);
}

plist::Dictionary CrashLogOperations::systemSpecs() {
  return QVSysInfo(services_.paths, platform::SystemFacts::current()).systemSpecs();
}

} // namespace kestrin::operations
