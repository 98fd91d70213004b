// Remote credentials: an administrator's user name and the password encrypted under the shared
// passcode, turned into administrator rights for the operations that need them.

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "app/AppController.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/OperationGroups.h"
#include "operations/OperationTable.h"
#include "operations/PathComponents.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

using plist::Value;

SecretBuffer passwordFrom(const Value& data) {
  const plist::Data* bytes = data.asData();
  return bytes ? QVEncryption::decryptPassword(*bytes) : SecretBuffer();
}

// The session the credentials open; a refusal is logged.
QVAuthorization::Session authWithDict(const plist::Dictionary& credentials) {
  const Value* user = credentials.find("authUser");
  const Value* pass = credentials.find("authPass");
  std::optional<std::string> name;
  if (user && user->asString()) {
    name = *user->asString();
  }
  SecretBuffer password = pass ? passwordFrom(*pass) : SecretBuffer();
  auto session = QVAuthorization::sharedController(false).authStartWithUser(name, password);
  if (!session.isAuthorized()) {
    QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
  }
  return session;
}

constexpr std::int64_t kRefusedCredentials = 1006;

Value refusedCredentials() {
  return plist::ErrorRecord{"ambrantDomain", kRefusedCredentials, {}};
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

void addCredentialOperations(OperationTable& table) {
  table.add(
      "validateUsername:password:",
      [](AppController&, const Arguments& a) {
        return Value(QVAuthorization::sharedController(false)
                         .authStartWithUser(a.optionalString(0), passwordFrom(a.at(1)))
                         .isAuthorized());
      },
      false);

  table.add(
      "authWithDict:",
      [](AppController&, const Arguments& a) {
        return authWithDict(a.optionalDictionary(0).value_or(plist::Dictionary{})).isAuthorized()
                   ? Value()
                   : refusedCredentials();
      },
      Value(plist::ErrorRecord{"ambrantDomain", -1, {}}));

  table.add(
      "launchAuthTask:arguments:authInfo:",
      [](AppController& controller, const Arguments& a) {
        auto session = authWithDict(a.optionalDictionary(2).value_or(plist::Dictionary{}));
        if (!session.isAuthorized()) {
          controller.errorChannel().postErrorWithCode(kRefusedCredentials, std::nullopt);
          return refusedCredentials();
        }
        std::vector<std::string> arguments = stringsOf(a.array(1));
        QVLog::appendLog("Executing auth task...");
        session.authExecTask(a.string(0), arguments);
        QVLog::appendLog("Ending authorization...");
        session.authEnd();
        return Value();
      },
      Value(plist::ErrorRecord{"ambrantDomain", -1, {}}));

  table.add(
      "needsAdminAccess:",
      [](AppController& controller, const Arguments& a) {
        controller.errorChannel().setProcessingCancelled(false);
        for (const Value& entry : a.array(0)) {
          if (!entry.asString()) {
            continue;
          }
          std::filesystem::path path(*entry.asString());
          std::filesystem::path parent = path.parent_path();
          std::error_code ec;
          if (!std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
            continue;
          }
          if (!isDeletable(path) || !isWritable(path) || !isDeletable(parent) ||
              !isWritable(parent)) {
            return Value(true);
          }
        }
        return Value(false);
      },
      false);

  table.add("stripComponents:fromPath:", [](AppController&, const Arguments& a) {
    plist::Array stripped;
    for (std::string& component : stripComponents(stringsOf(a.array(0)), stringsOf(a.array(1)))) {
      stripped.push_back(std::move(component));
    }
    return Value(stripped);
  });
}

} // namespace kestrin::operations
