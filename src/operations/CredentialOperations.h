#pragma once

#include <optional>
#include <string>

#include "foundation/QVAuthorization.h"
#include "operations/ErrorChannel.h"
#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Remote credentials: an administrator's user name and the password encrypted under the shared
// passcode, turned into administrator rights for the operations that need them.
class CredentialOperations {
public:
  CredentialOperations(QVAuthorization& authorization, ErrorChannel& channel)
      : authorization_(authorization), channel_(channel) {}
  void registerIn(OperationTable& table);

  bool validateUsername(std::optional<std::string> user, plist::Value password);
  // Null when the credentials open an authorisation, otherwise the error to report (1006).
  plist::Value authWithDict(std::optional<plist::Dictionary> credentials);
  plist::Value launchAuthTask(std::string tool, plist::Array arguments,
                              std::optional<plist::Dictionary> credentials);
  bool needsAdminAccess(plist::Array paths);
  plist::Array stripComponents(plist::Array base, plist::Array path);

private:
  // The session the credentials open; a refusal is logged.
  QVAuthorization::Session sessionFor(const std::optional<plist::Dictionary>& credentials);

  QVAuthorization& authorization_;
  ErrorChannel& channel_;
};

} // namespace kestrin::operations
