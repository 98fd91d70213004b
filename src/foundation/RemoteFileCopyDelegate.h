#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "foundation/FileCopyDelegate.h"
#include "plist/Value.h"

namespace kestrin {

// A remote object (an administrator's, reached over its connection) as a delegate: each
// message is sent under its selector when the object answers respondsTo for it. Failures of
// the connection come out of the messages as the object's own exceptions (NamedException).
// An answer to fileCopyShouldContinue: that does not read as a true boolean (plist::Value::
// boolValue: null, a dictionary, "no") counts as false: only a clear yes keeps a copy going.
class RemoteFileCopyDelegate final : public FileCopyDelegate {
public:
  explicit RemoteFileCopyDelegate(plist::ObjectRef remote) : remote_(std::move(remote)) {}

  bool respondsTo(Message message) override;
  void fileCopyBytesWritten(std::uint64_t total, const plist::Dictionary& settings) override;
  bool fileCopyShouldContinue(const plist::Dictionary& settings) override;
  void fileCopyVerificationFailed(const plist::Dictionary& settings,
                                  const std::string& file) override;
  void fileCopyFinished(const plist::Dictionary& settings) override;
  void fileOperationProgress(const plist::Dictionary& status,
                             const plist::ObjectRef& operation) override;
  void fileOperationProgress(const plist::Dictionary& status) override;
  void fileOperationFinished(const plist::Dictionary& status,
                             const plist::ObjectRef& operation) override;
  void fileOperationFinished(const plist::Dictionary& status) override;
  // The remote object itself.
  plist::ObjectRef object() override { return remote_; }

private:
  plist::Value send(Message message, std::vector<plist::Value> arguments);

  plist::ObjectRef remote_;
};

} // namespace kestrin
