#include "operations/QmasterOperations.h"

#include <filesystem>

#include <pugixml.hpp>

#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "foundation/Timer.h"
#include "foundation/WorkerPool.h"
#include "operations/ApplicationCatalog.h"
#include "operations/ErrorChannel.h"
#include "operations/ExceptionGuard.h"
#include "operations/MakerTool.h"
#include "platform/ToolTable.h"

namespace kestrin::operations {

namespace {

using namespace std::chrono_literals;

constexpr auto kClusterCacheLife = 60s;
constexpr QVTaskEx::TimeLimit kQueryLimit = 15s;
constexpr QVTaskEx::TimeLimit kSharingLimit = 20s;
// Batch Monitor's answer for one cluster: a few hundred jobs are tens of kilobytes.
constexpr std::size_t kBatchMonitorOutputLimit = std::size_t{8} << 20;
constexpr const char* kThisComputer = "This Computer";
constexpr const char* kBatchMonitorIdentifier = "com.apple.BatchMonitor";

plist::Dictionary attributesOf(const pugi::xml_node& element) {
  plist::Dictionary attributes;
  for (const pugi::xml_attribute& attribute : element.attributes()) {
    attributes.set(attribute.name(), std::string(attribute.value()));
  }
  return attributes;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) {
    return false;
  }
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

} // namespace

void QmasterOperations::registerIn(OperationTable& table) {
  using Q = QmasterOperations;
  table.add("qmasterClusters", *this, &Q::qmasterClusters);
  table.add("qmasterJobs", *this, &Q::qmasterJobs);
  table.add("qmasterJobPause:", *this, &Q::pauseJobs);
  table.add("qmasterJobResume:", *this, &Q::resumeJobs);
  table.add("qmasterJobTerminate:", *this, &Q::terminateJobs);
  table.add("qmasterStartSharing", *this, &Q::startSharing);
  table.add("qmasterStopSharing", *this, &Q::stopSharing);
  table.add("qmasterResetServices", *this, &Q::resetServices);
}

plist::Array QmasterOperations::clustersFromPreferencesList(const std::string& output) {
  plist::Array clusters{kThisComputer};
  constexpr std::string_view kMarker = "servername \"";
  std::size_t start = 0;
  while (start <= output.size()) {
    std::size_t end = output.find(" -", start);
    std::string_view piece = std::string_view(output).substr(
        start, end == std::string::npos ? std::string::npos : end - start);
    start = end == std::string::npos ? output.size() + 1 : end + 2;
    if (!startsWithIgnoringCase(piece, "cluster on")) {
      continue;
    }
    std::size_t at = piece.find(kMarker);
    if (at == std::string_view::npos) {
      continue;
    }
    std::size_t nameStart = at + kMarker.size();
    std::size_t nameEnd = piece.find('"', nameStart);
    if (nameEnd == std::string_view::npos || nameEnd == nameStart) {
      continue;
    }
    std::string name(piece.substr(nameStart, nameEnd - nameStart));
    if (!name.ends_with(" Cluster")) {
      name += " Cluster";
    }
    clusters.push_back(std::move(name));
  }
  return clusters;
}

plist::Array QmasterOperations::qmasterClusters() {
  auto now = services_.timer.clock().now();
  {
    std::lock_guard lock(cacheMutex_);
    if (clusters_ && now - clustersTaken_ < kClusterCacheLife) {
      return *clusters_;
    }
  }
  QVLog::appendLog("Loading Qmaster cluster list...");
  plist::Array clusters{kThisComputer};
  auto output = QVTaskEx::stringFromTask(services_.tools.path(platform::Tool::Qmasterprefs),
                                         {"-list"}, kQueryLimit, services_.timer);
  if (!output || output->empty()) {
    QVLog::appendLog("Unable to load Qmaster preferences");
    return clusters;
  }
  clusters = clustersFromPreferencesList(*output);
  QVLog::appendLog("Clusters found: {}", plist::describe(plist::Value(clusters)));
  std::lock_guard lock(cacheMutex_);
  clusters_ = clusters;
  clustersTaken_ = now;
  return clusters;
}

plist::Dictionary QmasterOperations::qmasterJobs() {
  ErrorChannel& channel = services_.errorChannel;
  channel.setProcessingCancelled(false);
  QVLog::appendLog("Getting Qmaster jobs...");
  plist::Array clusters = qmasterClusters();
  channel.beginProcessing(); // empties the threaded results; the list is never empty
  QVLog::appendLog("Looking through clusters for jobs...");
  for (const plist::Value& cluster : clusters) {
    const std::string* name = cluster.asString();
    if (name == nullptr) {
      continue;
    }
    channel.incrementTaskThreadCount();
    bool started = services_.workers.submit([this, name = *name] {
      services_.guard.run("-[AppController processQmasterClusterOnThread:]",
                          [&] { processQmasterClusterOnThread(name); });
      services_.errorChannel.decrementTaskThreadCount();
    });
    if (!started) {
      channel.decrementTaskThreadCount();
    }
  }
  channel.waitOnProcessing();
  QVLog::appendLog("Qmaster processing complete.");
  return channel.threadedObjectDict();
}

std::optional<std::string> QmasterOperations::batchMonitor() const {
  auto bundle = services_.applications.pathForAppWithBundleID(kBatchMonitorIdentifier);
  if (!bundle) {
    QVLog::appendLog("Unable to find path for Batch Monitor application");
    return std::nullopt;
  }
  std::string executable = *bundle + "/Contents/MacOS/Batch Monitor";
  QVLog::appendLog("Found application at path {} for bundle ID {}", executable,
                   kBatchMonitorIdentifier);
  return executable;
}

Expected<plist::Dictionary>
QmasterOperations::jobsFromBatchMonitorOutput(const plist::Data& output) {
  if (output.size() > kBatchMonitorOutputLimit) {
    return Failure{"the output is larger than " + std::to_string(kBatchMonitorOutputLimit) +
                   " bytes"};
  }
  // Lenient, as a tidying reader is: whatever parsed before a fault is kept. Declarations
  // are kept as nodes and never expanded: no entity of a DOCTYPE reaches the values.
  pugi::xml_document document;
  pugi::xml_parse_result parsed =
      document.load_buffer(output.data(), output.size(), pugi::parse_default | pugi::parse_doctype);
  if (!parsed && !document.first_child()) {
    return Failure{std::string(parsed.description())};
  }
  plist::Dictionary batches;
  for (const pugi::xpath_node& found : document.select_nodes(".//batchStatus")) {
    plist::Dictionary batch = attributesOf(found.node());
    const plist::Value* id = batch.find("batchid");
    if (id != nullptr && id->asString()) {
      std::string key = *id->asString();
      batches.set(key, std::move(batch));
    }
  }
  for (const pugi::xpath_node& found : document.select_nodes(".//jobStatus")) {
    plist::Dictionary job = attributesOf(found.node());
    const plist::Value* batchId = job.find("batchid");
    plist::Value* batch = batchId ? batches.find(*batchId->asString()) : nullptr;
    if (batch == nullptr) {
      continue;
    }
    plist::Dictionary* fields = batch->asDictionary();
    plist::Dictionary jobs;
    if (const plist::Value* existing = fields->find("jobs"); existing && existing->asDictionary()) {
      jobs = *existing->asDictionary();
    }
    if (const plist::Value* jobId = job.find("jobid")) {
      std::string key = *jobId->asString();
      jobs.set(key, std::move(job));
    }
    fields->set("jobs", std::move(jobs));
  }
  return batches;
}

void QmasterOperations::processQmasterClusterOnThread(const std::string& cluster) {
  QVLog::appendLog("Getting jobs for cluster {}...", cluster);
  auto executable = batchMonitor();
  if (!executable) {
    return;
  }
  auto output = QVTaskEx::dataFromTask(
      *executable, {"-clustername", cluster, "-query", "0.3", "-timeout", "0.3"}, kQueryLimit,
      services_.timer);
  auto jobs = jobsFromBatchMonitorOutput(output.value_or(plist::Data{}));
  if (!jobs) {
    QVLog::appendLog("Error loading XML document: {}", jobs.message());
    return;
  }
  services_.errorChannel.threadedObjectDictSetObject(std::move(*jobs), cluster);
}

void QmasterOperations::steerJobs(const plist::Array& references, const char* action) {
  services_.errorChannel.setProcessingCancelled(false);
  // The kill logs the resuming text as well: what the admins' support knows to look for.
  std::string listed = plist::describe(plist::Value(references));
  if (std::string_view(action) == "-pause") {
    QVLog::appendLog("Pausing Qmaster jobs {}...", listed);
  } else {
    QVLog::appendLog("Resuming Qmaster jobs {}...", listed);
  }
  auto executable = batchMonitor();
  if (!executable) {
    return;
  }
  for (const plist::Value& reference : references) {
    const plist::Value* cluster = reference.get("clustername");
    const plist::Value* job = reference.get("jobid");
    auto clusterText = cluster ? argumentText(*cluster) : std::nullopt;
    auto jobText = job ? argumentText(*job) : std::nullopt;
    if (!clusterText || !jobText) {
      QVLog::appendLog("Unable to find cluster name and job ID");
      continue;
    }
    QVTaskEx::runTaskAndReturn(*executable, {"-clustername", *clusterText, "-jobid", *jobText,
                                             action, "-query", "1", "-timeout", "1"});
  }
}

void QmasterOperations::runQmasterprefs(const char* logLine, std::vector<std::string> arguments) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("{}", logLine);
  const std::string& qmasterprefs = services_.tools.path(platform::Tool::Qmasterprefs);
  std::error_code error;
  if (!std::filesystem::exists(qmasterprefs, error)) {
    QVLog::appendLog("Unable to find path for qmasterprefs");
    return;
  }
  QVTaskEx::terminationCodeFromTask(qmasterprefs, arguments, kSharingLimit, services_.timer);
}

void QmasterOperations::startSharing() {
  runQmasterprefs("Starting Qmaster sharing...", {"-startSharing"});
}

void QmasterOperations::stopSharing() {
  runQmasterprefs("Stopping Qmaster sharing...", {"-stopSharing"});
}

void QmasterOperations::resetServices() {
  runQmasterprefs("Resetting Qmaster services...", {"-resetCluster", "cancelJobs"});
}

} // namespace kestrin::operations
