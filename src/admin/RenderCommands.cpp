#include "admin/RenderCommands.h"

#include <iostream>

#include "admin/CommandLine.h"
#include "admin/JsonValue.h"

namespace kestrin::admin {

namespace {

void printAttributes(std::ostream& out, const plist::Dictionary& attributes) {
  for (const auto& [key, value] : attributes) {
    if (key == "jobs") {
      continue;
    }
    out << "  " << key << "=" << (value.asString() ? *value.asString() : jsonFromValue(value));
  }
  out << "\n";
}

} // namespace

void printJobTree(std::ostream& out, const plist::Dictionary& clusters) {
  for (const auto& [cluster, batches] : clusters) {
    out << cluster << "\n";
    const plist::Dictionary* byBatch = batches.asDictionary();
    for (const auto& [batchId, batch] : byBatch ? *byBatch : plist::Dictionary{}) {
      out << "  batch " << batchId;
      printAttributes(out, batch.asDictionary() ? *batch.asDictionary() : plist::Dictionary{});
      const plist::Value* jobs = batch.get("jobs");
      const plist::Dictionary* byJob = jobs ? jobs->asDictionary() : nullptr;
      for (const auto& [jobId, job] : byJob ? *byJob : plist::Dictionary{}) {
        out << "    job " << jobId;
        printAttributes(out, job.asDictionary() ? *job.asDictionary() : plist::Dictionary{});
      }
    }
  }
}

int jobsCommand(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto agent = command.connect(operands[0]);
  plist::Value clusters = callAgent(*agent, "qmasterJobs");
  if (!clusters.asDictionary()) {
    throw CommandFailure(kExitAgentError, "the agent answered no render clusters");
  }
  printJobTree(std::cout, *clusters.asDictionary());
  std::cout << std::flush;
  return kExitOk;
}

} // namespace kestrin::admin
