#include "operations/HembryOperations.h"

#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"

namespace kestrin::operations {

namespace {

constexpr MakerTool::TimeLimit kRunLimit{20.0};

} // namespace

void HembryOperations::registerIn(OperationTable& table) {
  table.add("hembryRunTasks:", *this, &HembryOperations::hembryRunTasks);
}

void HembryOperations::hembryRunTasks(plist::Array names) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Running Hembry tasks: {}", plist::describe(plist::Value(names)));
  std::string joined;
  for (const plist::Value& name : names) {
    if (&name != &names.front()) {
      joined += ',';
    }
    joined += argumentText(name).value_or(plist::describe(name));
  }
  // Without credentials the caller is never consulted.
  hembry_.launch(Caller{}, {"-runtask", joined}, std::nullopt, true, kRunLimit,
                 "Launching tasks...");
}

} // namespace kestrin::operations
