#include "operations/ErrorChannelOperations.h"

namespace kestrin::operations {

void ErrorChannelOperations::registerIn(OperationTable& table) {
  using plist::ErrorRecord;
  using plist::ObjectRef;
  using plist::Value;
  ErrorChannel& c = channel_;
  table.add("setErrorCallback:", [&c](ObjectRef callback) { c.setErrorCallback(callback); });
  table.add("setupCallbackListener:withName:",
            [this](const Caller& caller, ObjectRef callback, std::string name) {
              relay_.setupCallbackListener(caller, callback, name);
            });
  table.add("cancelProcessing", [&c] { c.cancelProcessing(); });
  table.add("performErrorCallbackSelector:withObject:withObject:",
            [&c](std::string selector, Value first, Value second) {
              c.performErrorCallbackSelector(selector, first, second);
            });
  table.add("postError:", [&c](ErrorRecord error) { c.postError(error); });
  table.add("postError:userInfo:",
            [&c](ErrorRecord error, Value userInfo) { c.postError(error, userInfo); });
  table.add("postErrorWithCode:infoString:",
            [&c](std::int64_t code, std::optional<std::string> info) {
              c.postErrorWithCode(code, info);
            });
  table.add("postErrorString:", [&c](std::string message) { c.postErrorString(message); });
  table.add("postErrorString:userInfo:",
            [&c](std::string message, Value userInfo) { c.postErrorString(message, userInfo); });
  table.add("incrementRemoteProgress", [&c] { c.incrementRemoteProgress(); });
  table.add("shouldPostFinishedTaskWithTimeout:",
            [&c](double seconds) { c.shouldPostFinishedTaskWithTimeout(seconds); });
  table.add("postFinishedTask", [&c] { c.postFinishedTask(); });
  table.add("invalidateTaskFinishTimeoutTimer", [&c] { c.invalidateTaskFinishTimeoutTimer(); });
}

} // namespace kestrin::operations
