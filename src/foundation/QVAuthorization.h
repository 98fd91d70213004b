#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "auth/CredentialFrame.h"
#include "platform/ToolTable.h"

namespace kestrin {

class QVLocalPaths;

// File operations and tool runs with administrator rights. When the agent runs as root they
// run directly; otherwise each goes through kestrin-auth, the setuid helper, with the user
// name and password that authStartWithUser() accepted. Those credentials stay in memory, in one
// wiped-on-release buffer, only until authEnd(); they reach the helper on its standard input,
// never in arguments, the environment or a log.
//
// Every removal, trash and move refuses the system's own directories.
class QVAuthorization {
public:
  struct Environment {
    const QVLocalPaths& paths;
    const platform::ToolTable& tools;
    bool runningAsRoot = false;
    // Extra options for the helper before the program (tests name their PAM folder here).
    std::vector<std::string> helperOptions = {};
  };

  // The one instance, made on first use (hasGUI is read then only).
  static QVAuthorization& sharedController(bool hasGUI = true);

  QVAuthorization(Environment environment, bool hasGUI);
  ~QVAuthorization();
  QVAuthorization(const QVAuthorization&) = delete;
  QVAuthorization& operator=(const QVAuthorization&) = delete;

  // There is no password dialog on this platform: true only when already authorised.
  bool authStart();
  // Checks the credentials with the helper and keeps them until authEnd().
  bool authStartWithUser(const std::optional<std::string>& user,
                         const std::optional<std::string>& password);
  void authEnd();
  bool isAuthorized() const;
  bool canAuthorize() const { return hasGUI_ || environment_.runningAsRoot; }
  bool hasGUI() const { return hasGUI_; }
  void setHasGUI(bool hasGUI) { hasGUI_ = hasGUI; }

  bool authRemoveFile(const std::string& path);
  bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
  bool authTrashFolderContents(const std::string& path, bool deleteOnRootAccount = false);
  bool authMoveFile(const std::optional<std::string>& from, const std::optional<std::string>& to);
  bool authMoveFolderContents(const std::string& from, const std::string& to);
  bool authCopyFile(const std::optional<std::string>& from, const std::optional<std::string>& to);
  bool authCreateDir(const std::string& path);
  // 0 on success, -2 when the tool does not exist, -1 without authorisation, otherwise the
  // helper's refusal status.
  int authExecTask(const std::string& tool, const std::vector<std::string>& parameters,
                   bool async = true);

  // Runs the tool with rights and waits: its output (standard output, then standard error) as
  // UTF-8 text, or nullopt when it could not run or the helper refused.
  std::optional<std::string> authOutputFromTask(const std::string& tool,
                                                const std::vector<std::string>& parameters);

  // Where trashing `path` puts it: the trash folder (the console user's own when root), with a
  // "_YYYYMMDDHHMMSS" stamp before the extension when the name is taken.
  std::string trashDestination(const std::string& path) const;

private:
  // A copy of the kept credentials for one helper run, or null when not authorised.
  std::shared_ptr<auth::CredentialFrame> credentialCopy();
  std::vector<std::string> helperArguments(const std::string& tool,
                                           const std::vector<std::string>& parameters) const;
  // Logs why the helper did not run the program; true when it did not.
  static bool helperRefused(const std::string& helper, int status);
  bool refuseSystemDirectory(const std::string& path, const char* message) const;

  Environment environment_;
  bool hasGUI_;
  std::optional<std::string> userDirectory_;
  mutable std::mutex mutex_;
  std::unique_ptr<auth::CredentialFrame> credentials_; // under mutex_
};

} // namespace kestrin
