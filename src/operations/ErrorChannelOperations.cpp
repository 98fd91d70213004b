#include "operations/ErrorChannelOperations.h"

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::operations {

void ErrorChannelOperations::registerIn(OperationTable& table) {
  using plist::ErrorRecord;
  using plist::ObjectRef;
  using plist::Value;
  ErrorChannel& c = channel_;
  table.add("setErrorCallback:", [&c](const Caller& caller, ObjectRef callback) {
    c.setErrorCallback(callback, caller.connection);
  });
  table.add("setupCallbackListener:withName:",
            [this](const Caller& caller, ObjectRef callback, std::string name) {
              relay_.setupCallbackListener(caller, callback, name);
            });
  table.add("cancelProcessing", [&c] { c.cancelProcessing(); });
  // A caller may broadcast the admin side's events and nothing else: any other selector would
  // reach every admin's callback object as though this agent had sent it.
  table.add("performErrorCallbackSelector:withObject:withObject:", [&c](std::string selector,
                                                                        Value first, Value second) {
    if (!ErrorChannel::isEventSelector(selector)) {
      throw ArgumentError(fmt::format("{} is not an event that callers may broadcast", selector));
    }
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
