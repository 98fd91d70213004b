#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kestrin::platform {

// Every system program the agent runs. The maker's own tools are not here: they are found by
// bundle identifier. A new program gets an entry here and a default in ToolTable.cpp.
enum class Tool {
  Id,           // numeric user id of a user name
  Chown,        // ownership of files the agent installs
  Chmod,        // modes of files the agent installs
  Rm,           // removals with administrator rights
  Mv,           // moves with administrator rights
  Cp,           // copies with administrator rights
  Mkdir,        // folder creation with administrator rights
  Touch,        // time stamps
  Systemctl,    // the agent's own service unit (the platform's launchctl)
  Umount,       // detaching the agent's installer volumes (the platform's hdiutil detach)
  Killall,      // stopping processes by name (software update, force quit)
  Qmasterprefs, // the render-cluster preferences tool
  Gm,           // GraphicsMagick: icons scaled to TIFF, out of the agent's process
  Ditto,        // zip archives, written and extracted out of the agent's process; the bundle's
                // own program, beside the agent's executable
  KestrinAuth,  // the setuid helper for administrator rights, where "-setup" installs it: a
                // fixed place that only root may change, never inside the bundle
  XdgOpen,      // opens a document or a URL with the desktop's handler for it
  Runuser,      // runs systemctl as the console user, to reach that user's service manager
};

inline constexpr std::size_t kToolCount = static_cast<std::size_t>(Tool::Runuser) + 1;

// Where each program lives. Tests and the integration harness point entries at fake tools,
// so no test ever runs the machine's real chown or systemctl.
//
// Immutable once built, so one table may be shared by every thread.
class ToolTable {
public:
  // The Linux defaults, with `entries` replacing the defaults of the tools they name.
  explicit ToolTable(std::initializer_list<std::pair<Tool, std::string>> entries = {});

  // The defaults, with each tool whose variable (environmentVariable) is set in the process's
  // environment to an absolute path taken from there. Empty and relative values are ignored: a
  // relative path would depend on the agent's working directory.
  static ToolTable fromEnvironment();
  // The same with an explicit lookup of variables, for tests.
  static ToolTable
  fromEnvironment(const std::function<std::optional<std::string>(const std::string&)>& lookup);

  // The process-wide table, built by fromEnvironment() on first use. Components receive a table
  // in their constructor; this is for the wiring in main() and the class-level QV interfaces.
  static const ToolTable& shared();

  const std::string& path(Tool tool) const { return paths_[static_cast<std::size_t>(tool)]; }
  // A copy with one tool pointed elsewhere.
  ToolTable withPath(Tool tool, std::string path) const {
    ToolTable copy = *this;
    copy.paths_[static_cast<std::size_t>(tool)] = std::move(path);
    return copy;
  }

  // Lower-case program name ("chown"), for messages.
  static std::string_view name(Tool tool);
  static std::string_view defaultPath(Tool tool);
  // "KESTRIN_TOOL_" and the upper-case name: KESTRIN_TOOL_CHOWN.
  static std::string environmentVariable(Tool tool);

private:
  std::array<std::string, kToolCount> paths_;
};

} // namespace kestrin::platform
