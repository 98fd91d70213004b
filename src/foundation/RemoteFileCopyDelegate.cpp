#include "foundation/RemoteFileCopyDelegate.h"

namespace kestrin {

plist::Value RemoteFileCopyDelegate::send(Message message, std::vector<plist::Value> arguments) {
  return remote_->invoke(std::string(selector(message)), std::move(arguments));
}

bool RemoteFileCopyDelegate::respondsTo(Message message) {
  return remote_ && remote_->respondsTo(std::string(selector(message)));
}

void RemoteFileCopyDelegate::fileCopyBytesWritten(std::uint64_t total,
                                                  const plist::Dictionary& settings) {
  send(Message::BytesWritten, {total, settings});
}

bool RemoteFileCopyDelegate::fileCopyShouldContinue(const plist::Dictionary& settings) {
  return send(Message::ShouldContinue, {settings}).boolValue().value_or(false);
}

void RemoteFileCopyDelegate::fileCopyVerificationFailed(const plist::Dictionary& settings,
                                                        const std::string& file) {
  send(Message::VerificationFailed, {settings, file});
}

void RemoteFileCopyDelegate::fileCopyFinished(const plist::Dictionary& settings) {
  send(Message::Finished, {settings});
}

void RemoteFileCopyDelegate::fileOperationProgress(const plist::Dictionary& status,
                                                   const plist::ObjectRef& operation) {
  send(Message::OperationProgressWithHandle, {status, operation});
}

void RemoteFileCopyDelegate::fileOperationProgress(const plist::Dictionary& status) {
  send(Message::OperationProgress, {status});
}

void RemoteFileCopyDelegate::fileOperationFinished(const plist::Dictionary& status,
                                                   const plist::ObjectRef& operation) {
  send(Message::OperationFinishedWithHandle, {status, operation});
}

void RemoteFileCopyDelegate::fileOperationFinished(const plist::Dictionary& status) {
  send(Message::OperationFinished, {status});
}

} // namespace kestrin
