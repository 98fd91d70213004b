#include "operations/CredentialOperations.h"

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "foundation/QVAuthorization.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVLog.h"
#include "operations/PathComponents.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

using plist::Value;

SecretBuffer passwordFrom(const Value& data) {
  const plist::Data* bytes = data.asData();
  return bytes ? QVEncryption::decryptPassword(*bytes) : SecretBuffer();
}

plist::ErrorRecord refusedCredentials() {
  return {ErrorChannel::kErrorDomain, 1006, {}};
}

bool isWritable(const std::filesystem::path& path) {
  return ::access(path.c_str(), W_OK) == 0;
}

// Removing an entry needs write access to its folder and, in a sticky folder such as /tmp,
// ownership of the entry or the folder.
bool isDeletable(const std::filesystem::path& path) {
  std::filesystem::path parent = path.parent_path();
  if (!isWritable(parent)) {
    return false;
  }
  struct stat folder {};
  struct stat entry {};
  if (::stat(parent.c_str(), &folder) != 0 || (folder.st_mode & S_ISVTX) == 0) {
    return true;
  }
  uid_t me = ::geteuid();
  return me == 0 || folder.st_uid == me ||
         (::lstat(path.c_str(), &entry) == 0 && entry.st_uid == me);
}

std::vector<std::string> stringsOf(const plist::Array& values) {
  std::vector<std::string> strings;
  for (const Value& value : values) {
    strings.push_back(value.asString() ? *value.asString() : plist::describe(value));
  }
  return strings;
}

} // namespace

void CredentialOperations::registerIn(OperationTable& table) {
  using C = CredentialOperations;
  const Value refused = plist::ErrorRecord{ErrorChannel::kErrorDomain, -1, {}};
  table.add("validateUsername:password:", *this, &C::validateUsername, false);
  table.add("authWithDict:", *this, &C::authWithDict, refused);
  table.add("launchAuthTask:arguments:authInfo:", *this, &C::launchAuthTask, refused);
  table.add("needsAdminAccess:", *this, &C::needsAdminAccess, false);
  table.add("stripComponents:fromPath:", *this, &C::stripComponents);
}

bool CredentialOperations::validateUsername(const Caller& caller, std::optional<std::string> user,
                                            Value password) {
  return credentials_.startSession(caller, user, passwordFrom(password)).isAuthorized();
}

QVAuthorization::Session
CredentialOperations::sessionFor(const Caller& caller,
                                 const std::optional<plist::Dictionary>& credentials) {
  const Value* user = credentials ? credentials->find("authUser") : nullptr;
  const Value* pass = credentials ? credentials->find("authPass") : nullptr;
  std::optional<std::string> name;
  if (user && user->asString()) {
    name = *user->asString();
  }
  auto session =
      credentials_.startSession(caller, name, pass ? passwordFrom(*pass) : SecretBuffer());
  if (!session.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
  }
  return session;
}

Value CredentialOperations::authWithDict(const Caller& caller,
                                         std::optional<plist::Dictionary> credentials) {
  return sessionFor(caller, credentials).isAuthorized() ? Value() : Value(refusedCredentials());
}

Value CredentialOperations::launchAuthTask(const Caller& caller, std::string tool,
                                           plist::Array arguments,
                                           std::optional<plist::Dictionary> credentials) {
  auto session = sessionFor(caller, credentials);
  if (!session.isAuthorized()) {
    channel_.postErrorWithCode(refusedCredentials().code, std::nullopt);
    return refusedCredentials();
  }
  QVLog::appendLog("Executing auth task...");
  session.authExecTask(tool, stringsOf(arguments));
  QVLog::appendLog("Ending authorization...");
  session.authEnd();
  return {};
}

bool CredentialOperations::needsAdminAccess(plist::Array paths) {
  channel_.setProcessingCancelled(false);
  for (const Value& entry : paths) {
    if (!entry.asString()) {
      continue;
    }
    std::filesystem::path path(*entry.asString());
    std::filesystem::path parent = path.parent_path();
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
      continue;
    }
    if (!isDeletable(path) || !isWritable(path) || !isDeletable(parent) || !isWritable(parent)) {
      return true;
    }
  }
  return false;
}

plist::Array CredentialOperations::stripComponents(plist::Array base, plist::Array path) {
  plist::Array stripped;
  for (std::string& component : operations::stripComponents(stringsOf(base), stringsOf(path))) {
    stripped.push_back(std::move(component));
  }
  return stripped;
}

} // namespace kestrin::operations
