#pragma once

#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kestrin {

// Standard directory kinds and domains, with the platform's numbering.
enum class DirectoryKind {
  Application = 1,
  AdminApplication = 4,
  Library = 5,
  Documentation = 8,
  Document = 9,
  Desktop = 12,
  Caches = 13,
  ApplicationSupport = 14,
  Movies = 17,
};
enum class DomainMask { User = 1, Local = 2, System = 8 };

// Where things are on this machine. The local domain lives under a local root (KESTRIN_ROOT,
// default /opt/quorvane, the place for an add-on package's own tree: /opt/quorvane/Library,
// /opt/quorvane/Applications, /opt/quorvane/System/Library); the user domain under the user's
// home (~/Library, ~/Documents, ~/Movies, ~/.Trash). When the process runs as root, every
// user-domain answer points into the console user's home instead of root's.
//
// Paths are strings; a missing answer is std::nullopt. Thread-safe: the object is immutable
// after construction.
class QVLocalPaths {
public:
  static constexpr const char* kDefaultLocalRoot = "/opt/quorvane";

  // What the answers are computed from. Every member has a working default taken from the
  // process (see fromEnvironment); tests replace them to build a throwaway machine.
  struct Machine {
    std::string localRoot = kDefaultLocalRoot; // KESTRIN_ROOT
    std::string home;                          // HOME of the process
    uid_t realUid = 0;                         // getuid()
    std::string ownUserName;                   // the process's own short user name
    std::string tempDirectory = "/tmp";        // TMPDIR or /tmp
    // The user logged in at the console, or nullopt (nobody, or no login manager).
    std::function<std::optional<std::string>()> consoleUser;
    // Home directory of a named user, or nullopt when the user is unknown.
    std::function<std::optional<std::string>(const std::string&)> homeOfUser;
  };

  explicit QVLocalPaths(Machine machine);

  // The machine of this process: KESTRIN_ROOT, HOME, TMPDIR, getuid, the password database
  // and the login manager's console user.
  static Machine machineFromEnvironment();

  // The process-wide instance, built from the environment on first use. Tests that need
  // another machine construct their own QVLocalPaths instead.
  static const QVLocalPaths& shared();

  const Machine& machine() const { return machine_; }
  bool runningAsRoot() const { return machine_.realUid == 0; }

  std::optional<std::string> pathForDirectory(DirectoryKind kind, DomainMask domain) const;
  std::optional<std::string> applicationDirectory(bool user) const;
  std::optional<std::string> adminApplicationDirectory(bool user) const;
  std::optional<std::string> documentDirectory(bool user) const;
  std::optional<std::string> libraryDirectory(bool user) const;
  std::optional<std::string> prefsDirectory(bool user) const;
  std::optional<std::string> cacheDirectory(bool user) const;
  std::optional<std::string> appSupportDirectory(bool user) const;
  std::optional<std::string> logDirectory(bool user) const;
  std::optional<std::string> movieDirectory() const;
  std::optional<std::string> desktopDirectory() const;
  std::optional<std::string> systemLibraryDirectory() const;
  std::optional<std::string> localDocumentationDirectory() const;
  std::optional<std::string> trashDirectory() const;
  std::optional<std::string> userDirectory() const;
  std::optional<std::string> username() const;
  std::optional<std::string> currentConsoleUser() const;
  std::optional<std::string> darwinCacheDirectory() const;
  std::string tempDirectory() const;
  std::string tempFile() const;

  static std::string uuid();
  static std::string randomString(unsigned length);

  bool isPathSystemDirectory(const std::string& path, bool exactMatch = false) const;
  static bool isPathOnTimeMachineVolume(const std::string& path);

private:
  Machine machine_;
};

} // namespace kestrin
