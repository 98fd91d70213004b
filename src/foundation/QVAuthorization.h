#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "foundation/WorkerPool.h"
#include "platform/ToolTable.h"
#include "support/SecretBuffer.h"

namespace kestrin {

class QVLocalPaths;

// File operations and tool runs with administrator rights. The rights belong to a Session: one
// caller's credentials, checked by kestrin-auth (the setuid helper) when the session starts,
// kept in a wiped-on-release buffer inside the session and dropped when it ends. Sessions
// running at once on several workers never see each other's credentials, and ending one ends
// no other.
//
// When the agent runs as root a session's tools run directly, but a caller's credentials are
// still checked by the helper first: running as root is no password. Only the agent's own local
// work (authStart) runs as root without one.
//
// Credentials reach the helper on its standard input, never in arguments, the environment or a
// log. Every removal, trash and move refuses the system's own directories, and every path handed
// to rm, mv, cp or mkdir follows "--", so a name that begins with "-" is never read as an option
// of a tool running as root.
class QVAuthorization {
public:
  struct Environment {
    const QVLocalPaths& paths;
    const platform::ToolTable& tools;
    bool runningAsRoot = false;
    // Extra options for the helper before the program (tests name their PAM folder here).
    std::vector<std::string> helperOptions = {};
  };

  class Session;

  // The process's instance, made on first use (hasGUI is read then only).
  static QVAuthorization& sharedController(bool hasGUI = true);

  QVAuthorization(Environment environment, bool hasGUI);
  // Waits for the asynchronous helper runs that have started; runs still waiting for a thread
  // are dropped, their credentials wiped.
  ~QVAuthorization();
  QVAuthorization(const QVAuthorization&) = delete;
  QVAuthorization& operator=(const QVAuthorization&) = delete;

  // A session without credentials, for the agent's own local work: authorised only when the
  // agent runs as root. There is no password dialog on this platform.
  Session authStart() const;
  // A session for a caller's credentials, authorised when kestrin-auth accepts them (also when
  // the agent runs as root). A null user gives an unauthorised session without asking.
  Session authStartWithUser(const std::optional<std::string>& user,
                            const SecretBuffer& password) const;

  bool canAuthorize() const { return hasGUI_ || environment_.runningAsRoot; }
  bool hasGUI() const { return hasGUI_; }
  void setHasGUI(bool hasGUI) { hasGUI_ = hasGUI; }
  bool runningAsRoot() const { return environment_.runningAsRoot; }
  // The console user's home; unknown when the agent runs as root.
  const std::optional<std::string>& userDirectory() const { return userDirectory_; }

private:
  std::vector<std::string> helperArguments(const std::string& tool,
                                           const std::vector<std::string>& parameters) const;
  // Logs why the helper did not run the program; true when it did not.
  static bool helperRefused(const std::string& helper, int status);
  bool refuseSystemDirectory(const std::string& path, const char* message) const;

  Environment environment_;
  std::atomic<bool> hasGUI_;
  std::optional<std::string> userDirectory_;
  // Asynchronous helper runs wait for their helper here. A pool rather than a detached thread
  // per run: its threads end when idle and are joined, so they never pile up with use; and
  // rather than the session waiting in its destructor, so a caller that starts a long tool and
  // ends its session answers at once. Each run owns a copy of its session's credentials, wiped
  // as soon as they are in the helper's pipe. Last member: stopped before anything a run might use.
  mutable WorkerPool helperRuns_;
};

// One caller's administrator rights. Move-only; ends (authEnd) on destruction. Must not outlive
// the QVAuthorization that started it. One thread uses a session at a time; sessions on
// different threads are independent.
class QVAuthorization::Session {
public:
  Session(Session&& other) noexcept;
  Session& operator=(Session&& other) noexcept;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  bool isAuthorized() const { return authorized_; }
  // Wipes the credentials and ends the rights; what the session runs afterwards is refused (-1).
  // Asynchronous runs already started keep their own copy until their helper has read it.
  void authEnd();

  bool authRemoveFile(const std::string& path);
  bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
  bool authTrashFolderContents(const std::string& path, bool deleteOnRootAccount = false);
  bool authMoveFile(const std::optional<std::string>& from, const std::optional<std::string>& to);
  bool authMoveFolderContents(const std::string& from, const std::string& to);
  bool authCopyFile(const std::optional<std::string>& from, const std::optional<std::string>& to);
  bool authCreateDir(const std::string& path);
  // 0 on success, -2 when the tool does not exist, -1 without authorisation, otherwise the
  // helper's refusal status. An asynchronous run answers 0 once started and logs a refusal.
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
  friend class QVAuthorization;
  // `direct`: authorised, and tools run in this process (the agent is root).
  Session(const QVAuthorization& owner, bool direct, SecretBuffer credentials);

  // A copy of the credentials for one helper run; empty when not authorised.
  SecretBuffer credentialCopy() const;

  const QVAuthorization* owner_;
  bool authorized_;
  bool direct_;
  SecretBuffer credentials_; // a credential frame; empty unless the helper runs the tools
};

} // namespace kestrin
