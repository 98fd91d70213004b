// The error and progress channel: callback registration, events, the finished-task deadline
// and cancellation. The work is ErrorChannel's; these are its remote entry points.

#include "app/AppController.h"
#include "app/ErrorChannel.h"
#include "operations/OperationGroups.h"
#include "operations/OperationTable.h"

namespace kestrin::operations {

namespace {

using plist::Value;

// Adds an operation that answers nothing.
template <typename Body> void addVoid(OperationTable& table, std::string selector, Body body) {
  table.add(std::move(selector), [body](AppController& controller, const Arguments& arguments) {
    body(controller.errorChannel(), arguments);
    return Value();
  });
}

} // namespace

void addErrorChannelOperations(OperationTable& table) {
  addVoid(table, "setErrorCallback:", [](ErrorChannel& channel, const Arguments& a) {
    channel.setErrorCallback(a.object(0));
  });
  table.add("setupCallbackListener:withName:", [](AppController& controller, const Arguments& a) {
    controller.setupCallbackListener(a.object(0), a.string(1));
    return Value();
  });
  addVoid(table, "cancelProcessing",
          [](ErrorChannel& channel, const Arguments&) { channel.cancelProcessing(); });
  addVoid(table, "performErrorCallbackSelector:withObject:withObject:",
          [](ErrorChannel& channel, const Arguments& a) {
            channel.performErrorCallbackSelector(a.string(0), a.at(1), a.at(2));
          });
  addVoid(table, "postError:", [](ErrorChannel& channel, const Arguments& a) {
    channel.postError(a.error(0));
  });
  addVoid(table, "postError:userInfo:", [](ErrorChannel& channel, const Arguments& a) {
    channel.postError(a.error(0), a.at(1));
  });
  addVoid(table, "postErrorWithCode:infoString:", [](ErrorChannel& channel, const Arguments& a) {
    channel.postErrorWithCode(a.integer(0), a.optionalString(1));
  });
  addVoid(table, "postErrorString:", [](ErrorChannel& channel, const Arguments& a) {
    channel.postErrorString(a.string(0));
  });
  addVoid(table, "postErrorString:userInfo:", [](ErrorChannel& channel, const Arguments& a) {
    channel.postErrorString(a.string(0), a.at(1));
  });
  addVoid(table, "incrementRemoteProgress",
          [](ErrorChannel& channel, const Arguments&) { channel.incrementRemoteProgress(); });
  addVoid(table,
          "shouldPostFinishedTaskWithTimeout:", [](ErrorChannel& channel, const Arguments& a) {
            channel.shouldPostFinishedTaskWithTimeout(a.real(0));
          });
  addVoid(table, "postFinishedTask",
          [](ErrorChannel& channel, const Arguments&) { channel.postFinishedTask(); });
  addVoid(table, "invalidateTaskFinishTimeoutTimer", [](ErrorChannel& channel, const Arguments&) {
    channel.invalidateTaskFinishTimeoutTimer();
  });
}

} // namespace kestrin::operations
