#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/NotificationHub.h"
#include "operations/CrashLogFolders.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Crash reports and logs for the admin side: the reports of the video applications, found by
// name and date and explained by the maker's crash-analysis tool Tovell; their consolidation
// into the user's crash folder by Tovell's helper, run with an administrator's rights; and the
// agent's own logs and crash reports.
//
// A crash record is a dictionary of "hostname", "filename" (the report's path), "date" (its
// creation date: the birth time where the file system records one, else the modification
// time), "cause" (Tovell's line for it, or "Unknown") and "app" (appNameFromCrashLogFilename:).
//
// Paths from callers are held to the folders each operation documents, files are read only up
// to a size limit, and every Tovell run has its time limit on the agent's timer.
class CrashLogOperations {
public:
  static constexpr const char* kTovellIdentifier = "com.quorvane.Tovell";
  static constexpr const char* kConsolidateFinished = "QVTovellConsolidateFinished";
  // Records per delivery to a delegate, and report paths per Tovell run.
  static constexpr std::size_t kDelegateBatch = 10;
  // Records per delivery through the error channel after a consolidation.
  static constexpr std::size_t kConsolidationBatch = 5;
  // The most paths one Tovell run is given by a caller of crashLogObjectsForFiles:.
  static constexpr std::size_t kMaxFilesPerRun = 100;
  // A report or log read for a caller; the agent's logs start afresh at 500,000 bytes.
  static constexpr std::size_t kFileLimit = 4 << 20;
  // What gatherLogs answers at most, well inside what one remote answer may carry.
  static constexpr std::size_t kGatherLimit = 48 << 20;

  explicit CrashLogOperations(const Services& services);
  ~CrashLogOperations();
  CrashLogOperations(const CrashLogOperations&) = delete;
  CrashLogOperations& operator=(const CrashLogOperations&) = delete;
  void registerIn(OperationTable& table);

  // The reports created after `date` (all with none), in batches of kDelegateBatch records to
  // the delegate's tovellAddLogs:hostName:. Without a delegate the reports are still examined.
  // A delegate that fails (its connection gone, an exception of its own) ends the delivery.
  void crashLogsSinceDate(std::optional<plist::Date> date,
                          std::optional<plist::ObjectRef> delegate);
  // Records for reports in the crash-report folders, from one Tovell run; null when Tovell
  // printed fewer lines than it was given paths, or when a path is not a report's.
  plist::Value crashLogObjectsForFiles(plist::Array files);
  std::optional<std::string> tovellGetDefinition(std::optional<std::string> path);
  // Trashes a report of the crash-report folders: a file, never a folder or a link; a report
  // that is not there any more counts as trashed.
  bool tovellRemoveLogFilename(std::optional<std::string> path);
  void tovellSubmitCrashLog(std::optional<std::string> path, std::optional<std::string> comment);
  // Starts Tovell's LogConsolidator with the caller's administrator rights; its
  // "QVTovellConsolidateFinished" notification ends the consolidation, and the new reports go to
  // every error callback in batches of kConsolidationBatch.
  void consolidateCrashLogs(const Caller& caller, std::optional<plist::Dictionary> credentials);
  // The end of a consolidation, which its notification brings. Without one under way (a stray
  // notification) there is nothing new to report, and nothing is. Callers over a connection are
  // refused: one admin could otherwise cut short another's consolidation and lose its reports.
  void consolidateCrashLogsDidFinish(const Caller& caller, plist::Value notification);
  plist::Array populateQVLogFilenames();
  // The text of one of the agent's logs or crash reports (a path populateQVLogFilenames could
  // answer); null when missing (posted), unreadable or not UTF-8.
  std::optional<std::string> logWithFilename(std::optional<std::string> path);
  // The text of a report in the crash-report folders, on the same terms.
  std::optional<std::string> fcsCrashLog(std::optional<std::string> path);
  // Every log and report of populateQVLogFilenames by path; null when there is none or when
  // cancelProcessing came first.
  std::optional<plist::Dictionary> gatherLogs();
  std::string appNameFromCrashLogFilename(std::string path);
  plist::Dictionary systemSpecs();

private:
  // The Tovell executable; logs and posts 1000 when there is none.
  std::optional<std::string> tovellExecutable(bool logLookup);
  std::optional<plist::Array> recordsFor(const std::string& tovell,
                                         const std::vector<std::string>& paths);
  plist::Dictionary record(const std::string& path, const plist::Date& date,
                           const std::string& cause) const;
  // A caller's path to a report, or nullopt (logged) when it is none.
  std::optional<std::string> confinedReport(const std::optional<std::string>& path,
                                            const char* operation);
  std::optional<std::string> readText(const std::string& path, const std::string& missing);
  void finishConsolidation();

  const Services services_; // references: a copy is as good as the original
  const CrashLogFolders folders_;

  // The consolidation under way: the user's crash folder as it was when it started, and the
  // observation of its end. A second consolidation replaces both; the first notification then
  // ends both.
  std::mutex consolidationMutex_;
  std::optional<std::set<std::string>> snapshot_;
  NotificationHub::Observation consolidationFinished_;
};

} // namespace kestrin::operations
