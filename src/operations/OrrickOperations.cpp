#include "operations/OrrickOperations.h"

#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"

namespace kestrin::operations {

namespace {

constexpr MakerTool::TimeLimit kRunLimit{60.0};

} // namespace

void OrrickOperations::registerIn(OperationTable& table) {
  table.add("orrickTrashCaches:settings:", *this, &OrrickOperations::orrickTrashCaches);
}

void OrrickOperations::orrickTrashCaches(const Caller& caller,
                                         std::optional<plist::Dictionary> credentials,
                                         plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  // Without a name Orrick would be told to clear, and not what: refused before anything starts.
  auto caches = settingsArgument<std::string>(settings, "obj1", "orrickTrashCaches:settings:");
  channel_.shouldPostFinishedTaskWithTimeout(kFinishedTaskDeadline);
  QVLog::appendLog("Trashing caches {}", caches);
  auto launched =
      orrick_.launch(caller, {"-clearcaches", caches, "-force"}, credentials, true, kRunLimit);
  if (launched.outcome == MakerTool::Launch::Outcome::HandedOver) {
    return;
  }
  if (launched.outcome == MakerTool::Launch::Outcome::Ran) {
    if (launched.status != 0) {
      QVLog::appendLog("Task finished with an error.");
      channel_.postErrorWithCode(launched.status, std::nullopt);
    } else {
      QVLog::appendLog("Task finished successfully.");
    }
  }
  channel_.postFinishedTask();
}

} // namespace kestrin::operations
