#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace kestrin {

class QVLocalPaths;
namespace platform {
class ToolTable;
}

// Installs the agent as a per-user service of every user and (re)starts it for the console
// user: the work of "-setup", which runs once as root. Every program it runs comes from the
// tool table, so tests point them at fakes.
//
// Set-up trusts only what root alone can change: it refuses a bundle when the bundle, a folder
// above it, the agent or the helper in it is not root's or may be changed by anyone else, or is
// a symbolic link, since whoever could change them would choose what runs as every user or as
// root. Files are installed as new files that root owns, never through a link.
class Installer {
public:
  static constexpr const char* kUnitName = "com.quorvane.Kestrin.service";

  struct Environment {
    const QVLocalPaths& paths;
    const platform::ToolTable& tools;
    std::optional<std::string> bundlePath;
    // Moves a file with administrator rights (the fallback when the unit folder is not
    // writable). Answers success.
    std::function<bool(const std::string& from, const std::string& to)> privilegedMove;
    std::function<void(std::chrono::seconds)> sleep;
    // Where the system's own files go (the unit, the PAM service, the helper, /media): "/",
    // or a staging folder that tests and packaging name. Distinct from the maker's tree under
    // the local root.
    std::string systemRoot = "/";
  };

  explicit Installer(Environment environment);

  // The whole "-setup" mode, after becoming root.
  void runSetup();

  // Writes the user unit for all users, owned by root with mode 644, and enables it for
  // default.target. Installs a copy of the bundle's kestrin-auth setuid root at helperPath()
  // and its PAM service (mode 644, fixed contents) at pamServicePath(). Refused, with a log
  // line, for a bundle that is not root's alone.
  void setupClient();
  // Stops and starts the unit in the console user's service manager.
  void runClient();
  // Detaches mounted volumes whose names begin with "Kestrin" (the product's disk images).
  void cleanupMountedDisks();

  // <system root>/etc/systemd/user/com.quorvane.Kestrin.service
  std::string unitPath() const;
  // <system root>/usr/lib/systemd/user/com.quorvane.Kestrin.service: where the Debian package
  // puts the unit. When it is there, set-up only enables it and restarts the agent.
  std::string packagedUnitPath() const;
  // <system root>/usr/lib/kestrin/kestrin-auth: where the agent looks for the helper (the tool
  // table's default), in a folder only root may change.
  std::string helperPath() const;
  // <system root>/etc/pam.d/kestrin-auth
  std::string pamServicePath() const;
  // The unit's text: the counterpart of the launch-agent dictionary.
  static std::string unitText(const std::string& program, const std::string& workingDirectory);
  // The agent's executable inside its bundle, or inside its preference pane; nullopt if neither.
  std::optional<std::string> programPath() const;

private:
  bool writeUnit(const std::string& path, const std::string& text) const;
  // Why set-up must not trust the agent's bundle, or nullopt.
  std::optional<std::string> whyUntrusted(const std::string& program) const;
  void installAuthHelper(const std::string& program) const;

  Environment environment_;
};

} // namespace kestrin
