#include "platform/ToolTable.h"

#include <filesystem>

#include <cctype>
#include <cstdlib>

namespace kestrin::platform {
namespace {

struct ToolInfo {
  Tool tool;
  std::string_view name;
  std::string_view defaultPath;
};

// Debian's locations. Indexed by Tool: keep the order of the enumeration.
constexpr std::array<ToolInfo, kToolCount> kTools{{
    {Tool::Id, "id", "/usr/bin/id"},
    {Tool::Chown, "chown", "/bin/chown"},
    {Tool::Chmod, "chmod", "/bin/chmod"},
    {Tool::Rm, "rm", "/bin/rm"},
    {Tool::Mv, "mv", "/bin/mv"},
    {Tool::Cp, "cp", "/bin/cp"},
    {Tool::Mkdir, "mkdir", "/bin/mkdir"},
    {Tool::Touch, "touch", "/usr/bin/touch"},
    {Tool::Systemctl, "systemctl", "/bin/systemctl"},
    {Tool::Umount, "umount", "/bin/umount"},
    {Tool::Killall, "killall", "/usr/bin/killall"},
    {Tool::Qmasterprefs, "qmasterprefs", "/usr/sbin/qmasterprefs"},
    {Tool::Gm, "gm", "/usr/bin/gm"},
    {Tool::Ditto, "ditto", ""}, // beside the running executable, see below
    {Tool::KestrinAuth, "kestrin_auth", "/usr/lib/kestrin/kestrin-auth"},
    {Tool::XdgOpen, "xdg_open", "/usr/bin/xdg-open"},
    {Tool::Runuser, "runuser", "/sbin/runuser"},
}};

constexpr bool inEnumerationOrder() {
  for (std::size_t i = 0; i < kTools.size(); ++i) {
    if (static_cast<std::size_t>(kTools[i].tool) != i) {
      return false;
    }
  }
  return true;
}
static_assert(inEnumerationOrder(), "kTools must list every Tool in enumeration order");

const ToolInfo& info(Tool tool) {
  return kTools[static_cast<std::size_t>(tool)];
}

} // namespace

ToolTable::ToolTable(std::initializer_list<std::pair<Tool, std::string>> entries) {
  for (const auto& tool : kTools) {
    paths_[static_cast<std::size_t>(tool.tool)] = tool.defaultPath;
  }
  // The bundle's own zip program is installed next to the agent (and next to the test
  // programs' own executables in a build tree, where tests name it explicitly).
  std::error_code ec;
  auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    paths_[static_cast<std::size_t>(Tool::Ditto)] = (self.parent_path() / "ditto").string();
  }
  for (const auto& [tool, path] : entries) {
    paths_[static_cast<std::size_t>(tool)] = path;
  }
}

ToolTable ToolTable::fromEnvironment() {
  return fromEnvironment([](const std::string& variable) -> std::optional<std::string> {
    // Read once at start-up, before worker threads that could call setenv exist.
    const char* value = std::getenv(variable.c_str()); // NOLINT(concurrency-mt-unsafe)
    if (value == nullptr) {
      return std::nullopt;
    }
    return std::string(value);
  });
}

ToolTable ToolTable::fromEnvironment(
    const std::function<std::optional<std::string>(const std::string&)>& lookup) {
  ToolTable table;
  for (const auto& tool : kTools) {
    auto value = lookup(environmentVariable(tool.tool));
    if (value && !value->empty() && value->front() == '/') {
      table.paths_[static_cast<std::size_t>(tool.tool)] = *value;
    }
  }
  return table;
}

const ToolTable& ToolTable::shared() {
  static const ToolTable table = fromEnvironment();
  return table;
}

std::string_view ToolTable::name(Tool tool) {
  return info(tool).name;
}

std::string_view ToolTable::defaultPath(Tool tool) {
  return info(tool).defaultPath;
}

std::string ToolTable::environmentVariable(Tool tool) {
  std::string variable = "KESTRIN_TOOL_";
  for (char c : info(tool).name) {
    variable += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return variable;
}

} // namespace kestrin::platform
