#include "operations/ScallinOperations.h"

#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"

namespace kestrin::operations {

namespace {

constexpr MakerTool::TimeLimit kRunLimit{360.0};

} // namespace

void ScallinOperations::registerIn(OperationTable& table) {
  table.add("scallinRemoveApps:settings:", *this, &ScallinOperations::scallinRemoveApps);
}

void ScallinOperations::scallinRemoveApps(const Caller& caller,
                                          std::optional<plist::Dictionary> credentials,
                                          plist::Dictionary settings) {
  channel_.setProcessingCancelled(false);
  auto application = settingsArgument<std::optional<std::int64_t>>(settings, "obj1",
                                                                   "scallinRemoveApps:settings:");
  channel_.shouldPostFinishedTaskWithTimeout(kFinishedTaskDeadline);
  if (!application) {
    constexpr const char* kNoIdentifier =
        "Unable to remove Final Cut Studio application - no app ID found";
    QVLog::appendLog("{}", kNoIdentifier);
    channel_.postErrorString(kNoIdentifier, plist::Value());
    channel_.postFinishedTask();
    return;
  }
  QVLog::appendLog("Removing Final Cut Studio app id {} with Scallin...",
                   static_cast<int>(*application));
  auto launched = scallin_.launch(caller, {"-auto", "-custom", std::to_string(*application)},
                                  credentials, false, kRunLimit);
  switch (launched.outcome) {
  case MakerTool::Launch::Outcome::HandedOver:
    return;
  case MakerTool::Launch::Outcome::ToolMissing:
    channel_.postErrorWithCode(1000, scallin_.bundleIdentifier());
    break;
  case MakerTool::Launch::Outcome::Ran:
    if (launched.status != 0) {
      QVLog::appendLog("Task finished with an error.");
      channel_.postErrorWithCode(launched.status, std::nullopt);
    } else {
      QVLog::appendLog("Task finished successfully.");
    }
    break;
  }
  channel_.postFinishedTask();
}

} // namespace kestrin::operations
