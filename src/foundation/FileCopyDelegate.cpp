#include "foundation/FileCopyDelegate.h"

#include <utility>
#include <vector>

#include "support/NamedException.h"

namespace kestrin {

namespace {

using Message = FileCopyDelegate::Message;

constexpr Message kMessages[] = {
    Message::BytesWritten,
    Message::ShouldContinue,
    Message::VerificationFailed,
    Message::Finished,
    Message::OperationProgressWithHandle,
    Message::OperationProgress,
    Message::OperationFinishedWithHandle,
    Message::OperationFinished,
};

std::optional<Message> messageFor(std::string_view selector) {
  for (Message message : kMessages) {
    if (FileCopyDelegate::selector(message) == selector) {
      return message;
    }
  }
  return std::nullopt;
}

// A local delegate as an object that peers can call by selector. A call after the delegate is
// gone, or one with arguments the message does not take, is refused like an unknown selector.
class DelegateObject final : public plist::RemoteObject {
public:
  explicit DelegateObject(std::weak_ptr<FileCopyDelegate> delegate)
      : delegate_(std::move(delegate)) {}

  std::string description() const override { return "<file copy delegate>"; }

  bool respondsTo(const std::string& selector) override {
    auto message = messageFor(selector);
    auto delegate = delegate_.lock();
    return message && delegate && delegate->respondsTo(*message);
  }

  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override {
    auto message = messageFor(selector);
    auto delegate = delegate_.lock();
    if (!message || !delegate || !delegate->respondsTo(*message)) {
      throw ArgumentError(description() + " does not respond to selector " + selector);
    }
    auto dictionary = [&](std::size_t at) -> const plist::Dictionary& {
      const plist::Dictionary* value =
          at < arguments.size() ? arguments[at].asDictionary() : nullptr;
      if (value == nullptr) {
        throw ArgumentError(selector + ": argument " + std::to_string(at + 1) +
                            " is not a dictionary");
      }
      return *value;
    };
    switch (*message) {
    case Message::BytesWritten: {
      auto total = arguments.empty() ? std::nullopt : arguments[0].asInteger();
      if (!total || *total < 0) {
        throw ArgumentError(selector + ": argument 1 is not a byte count");
      }
      delegate->fileCopyBytesWritten(static_cast<std::uint64_t>(*total), dictionary(1));
      return {};
    }
    case Message::ShouldContinue:
      return delegate->fileCopyShouldContinue(dictionary(0));
    case Message::VerificationFailed: {
      const std::string* file = arguments.size() > 1 ? arguments[1].asString() : nullptr;
      if (file == nullptr) {
        throw ArgumentError(selector + ": argument 2 is not a path");
      }
      delegate->fileCopyVerificationFailed(dictionary(0), *file);
      return {};
    }
    case Message::Finished:
      delegate->fileCopyFinished(dictionary(0));
      return {};
    case Message::OperationProgressWithHandle:
      delegate->fileOperationProgress(dictionary(0),
                                      arguments.size() > 1 ? arguments[1].asObject() : nullptr);
      return {};
    case Message::OperationProgress:
      delegate->fileOperationProgress(dictionary(0));
      return {};
    case Message::OperationFinishedWithHandle:
      delegate->fileOperationFinished(dictionary(0),
                                      arguments.size() > 1 ? arguments[1].asObject() : nullptr);
      return {};
    case Message::OperationFinished:
      delegate->fileOperationFinished(dictionary(0));
      return {};
    }
    return {};
  }

private:
  std::weak_ptr<FileCopyDelegate> delegate_;
};

} // namespace

std::string_view FileCopyDelegate::selector(Message message) {
  switch (message) {
  case Message::BytesWritten:
    return "fileCopyBytesWritten:settings:";
  case Message::ShouldContinue:
    return "fileCopyShouldContinue:";
  case Message::VerificationFailed:
    return "fileCopyVerificationFailed:file:";
  case Message::Finished:
    return "fileCopyFinished:";
  case Message::OperationProgressWithHandle:
    return "fileOperationProgress:fileOperation:";
  case Message::OperationProgress:
    return "fileOperationProgress:";
  case Message::OperationFinishedWithHandle:
    return "fileOperationFinished:fileOperation:";
  case Message::OperationFinished:
    return "fileOperationFinished:";
  }
  return {};
}

// Never sent to a delegate that does not answer them; here so that a delegate overrides only
// the messages it answers.
void FileCopyDelegate::fileCopyBytesWritten(std::uint64_t, const plist::Dictionary&) {}
bool FileCopyDelegate::fileCopyShouldContinue(const plist::Dictionary&) {
  return true;
}
void FileCopyDelegate::fileCopyVerificationFailed(const plist::Dictionary&, const std::string&) {}
void FileCopyDelegate::fileCopyFinished(const plist::Dictionary&) {}
void FileCopyDelegate::fileOperationProgress(const plist::Dictionary&, const plist::ObjectRef&) {}
void FileCopyDelegate::fileOperationProgress(const plist::Dictionary&) {}
void FileCopyDelegate::fileOperationFinished(const plist::Dictionary&, const plist::ObjectRef&) {}
void FileCopyDelegate::fileOperationFinished(const plist::Dictionary&) {}

plist::ObjectRef FileCopyDelegate::object() {
  return std::make_shared<DelegateObject>(weak_from_this());
}

} // namespace kestrin
