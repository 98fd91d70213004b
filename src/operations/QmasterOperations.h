#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "platform/Clock.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::operations {

// Render clusters as this workstation sees them, through two programs: qmasterprefs for the
// cluster list and the sharing switches, Batch Monitor for each cluster's batches and jobs (one
// worker per cluster, gathered in the error channel's threaded results), and Batch Monitor
// again to pause, resume or kill jobs without waiting for it.
class QmasterOperations {
public:
  explicit QmasterOperations(const Services& services) : services_(services) {}
  void registerIn(OperationTable& table);

  // "This Computer" and every cluster of the Qmaster preferences, each ending in " Cluster";
  // kept for a minute.
  plist::Array qmasterClusters();
  // Cluster name to that cluster's batches, each with its jobs.
  plist::Dictionary qmasterJobs();
  // One cluster's batches and jobs into the threaded results; on a worker.
  void processQmasterClusterOnThread(const std::string& cluster);
  // references: dictionaries with "clustername" and "jobid".
  void pauseJobs(plist::Array references) { steerJobs(references, "-pause"); }
  void resumeJobs(plist::Array references) { steerJobs(references, "-resume"); }
  void terminateJobs(plist::Array references) { steerJobs(references, "-kill"); }
  void startSharing();
  void stopSharing();
  void resetServices();

  // A cluster's Batch Monitor output read leniently: batch identifier to the batch's
  // attributes and "jobs" (job identifier to the job's attributes). The reason when nothing
  // could be read at all.
  static Expected<plist::Dictionary> jobsFromBatchMonitorOutput(const plist::Data& output);
  // The cluster names of qmasterprefs' "-list" output, after "This Computer".
  static plist::Array clustersFromPreferencesList(const std::string& output);

private:
  std::optional<std::string> batchMonitor() const;
  void steerJobs(const plist::Array& references, const char* action);
  void runQmasterprefs(const char* logLine, std::vector<std::string> arguments);

  const Services services_;
  std::mutex cacheMutex_;
  std::optional<plist::Array> clusters_;     // under cacheMutex_
  platform::Clock::TimePoint clustersTaken_; // under cacheMutex_
};

} // namespace kestrin::operations
