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
  };

  explicit Installer(Environment environment);

  // The whole "-setup" mode, after becoming root.
  void runSetup();

  // Writes the user unit for all users, owned by root with mode 644, and enables it for
  // default.target. Installs kestrin-auth setuid root beside the agent.
  void setupClient();
  // Stops and starts the unit in the console user's service manager.
  void runClient();
  // Detaches mounted volumes whose names begin with "Kestrin" (the product's disk images).
  void cleanupMountedDisks();

  // <local root>/etc/systemd/user/com.quorvane.Kestrin.service
  std::string unitPath() const;
  // The unit's text: the counterpart of the launch-agent dictionary.
  static std::string unitText(const std::string& program, const std::string& workingDirectory);
  // The agent's executable inside its bundle, or inside its preference pane; nullopt if neither.
  std::optional<std::string> programPath() const;

private:
  bool writeUnit(const std::string& path, const std::string& text) const;
  void installAuthHelper(const std::string& program) const;

  Environment environment_;
};

} // namespace kestrin
