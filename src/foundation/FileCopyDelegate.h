#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "plist/Value.h"

namespace kestrin {

// What follows a copy of QVFileCopier: progress, a say in whether it goes on, verification
// failures and the end. Every message is optional: a copy asks respondsTo() before sending one
// and sends only those the delegate answers. `settings` is the copy's settings dictionary (see
// QVFileCopier), by which a delegate serving several copies tells them apart.
//
// The streaming copy calls its delegate on the copying thread, synchronously; the asynchronous
// copy calls it through the executor it was given. An exception thrown by a message ends a
// streaming copy and reaches its caller (see QVFileCopier).
class FileCopyDelegate : public std::enable_shared_from_this<FileCopyDelegate> {
public:
  // The messages, named in the comments by the selectors a remote delegate answers.
  enum class Message {
    BytesWritten,                // fileCopyBytesWritten:settings:
    ShouldContinue,              // fileCopyShouldContinue:
    VerificationFailed,          // fileCopyVerificationFailed:file:
    Finished,                    // fileCopyFinished:
    OperationProgressWithHandle, // fileOperationProgress:fileOperation:
    OperationProgress,           // fileOperationProgress:
    OperationFinishedWithHandle, // fileOperationFinished:fileOperation:
    OperationFinished,           // fileOperationFinished:
  };
  static std::string_view selector(Message message);

  virtual ~FileCopyDelegate() = default;

  virtual bool respondsTo(Message message) = 0;

  // Bytes read from the source so far: every 40 MiB and once at the end.
  virtual void fileCopyBytesWritten(std::uint64_t total, const plist::Dictionary& settings);
  // Asked right after each of those reports but the last; false cancels the copy.
  virtual bool fileCopyShouldContinue(const plist::Dictionary& settings);
  // A destination whose digest differs from the source's; settings carry it as "destChecksum".
  virtual void fileCopyVerificationFailed(const plist::Dictionary& settings,
                                          const std::string& file);
  virtual void fileCopyFinished(const plist::Dictionary& settings);
  // The asynchronous copy's stages, with the operation's handle when the delegate takes it.
  virtual void fileOperationProgress(const plist::Dictionary& status,
                                     const plist::ObjectRef& operation);
  virtual void fileOperationProgress(const plist::Dictionary& status);
  virtual void fileOperationFinished(const plist::Dictionary& status,
                                     const plist::ObjectRef& operation);
  virtual void fileOperationFinished(const plist::Dictionary& status);

  // What the settings dictionary holds under "delegate": an object answering these messages
  // under their selectors, so that settings handed on to a peer carry a delegate it can call.
  // It refers to this delegate without keeping it alive.
  virtual plist::ObjectRef object();
};

} // namespace kestrin
