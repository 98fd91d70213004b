#pragma once

#include <optional>
#include <string>

#include "foundation/QVAuthorization.h"
#include "operations/CredentialThrottle.h"
#include "operations/ErrorChannel.h"
#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Remote credentials: an administrator's user name and the password encrypted under the shared
// passcode, turned into administrator rights for the operations that need them.
class CredentialOperations {
public:
  CredentialOperations(CredentialThrottle& credentials, ErrorChannel& channel)
      : credentials_(credentials), channel_(channel) {}
  void registerIn(OperationTable& table);

  bool validateUsername(const Caller& caller, std::optional<std::string> user,
                        plist::Value password);
  // Null when the credentials open an authorisation, otherwise the error to report (1006).
  plist::Value authWithDict(const Caller& caller, std::optional<plist::Dictionary> credentials);
  plist::Value launchAuthTask(const Caller& caller, std::string tool, plist::Array arguments,
                              std::optional<plist::Dictionary> credentials);
  bool needsAdminAccess(plist::Array paths);
  plist::Array stripComponents(plist::Array base, plist::Array path);

  // The session a caller's authInfo dictionary opens, through the throttle like every other
  // check; a refusal is logged. Other groups that take authInfo open their sessions here.
  QVAuthorization::Session sessionFor(const Caller& caller,
                                      const std::optional<plist::Dictionary>& credentials);

private:
  CredentialThrottle& credentials_;
  ErrorChannel& channel_;
};

} // namespace kestrin::operations
