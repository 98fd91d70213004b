#include "platform/ToolTable.h"

#include <map>

#include <filesystem>

#include <gtest/gtest.h>

namespace kestrin::platform {
namespace {

TEST(ToolTable, DefaultsAreTheDebianPaths) {
  ToolTable table;
  EXPECT_EQ(table.path(Tool::Id), "/usr/bin/id");
  EXPECT_EQ(table.path(Tool::Chown), "/bin/chown");
  EXPECT_EQ(table.path(Tool::Systemctl), "/bin/systemctl");
  EXPECT_EQ(table.path(Tool::Umount), "/bin/umount");
  EXPECT_EQ(table.path(Tool::Touch), "/usr/bin/touch");
  for (std::size_t i = 0; i < kToolCount; ++i) {
    auto tool = static_cast<Tool>(i);
    if (tool != Tool::Ditto) {
      EXPECT_EQ(table.path(tool), ToolTable::defaultPath(tool));
    }
    EXPECT_EQ(table.path(tool).front(), '/') << ToolTable::name(tool);
  }
  // The zip program is found beside the running program, as it is installed; the setuid
  // helper only where set-up puts it, never in a bundle someone else could change.
  auto self = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(table.path(Tool::Ditto), (self.parent_path() / "ditto").string());
  EXPECT_EQ(table.path(Tool::KestrinAuth), "/usr/lib/kestrin/kestrin-auth");
}

TEST(ToolTable, ExplicitEntriesReplaceOnlyTheToolsTheyName) {
  ToolTable table{{Tool::Chown, "/fake/chown"}, {Tool::Rm, "/fake/rm"}};
  EXPECT_EQ(table.path(Tool::Chown), "/fake/chown");
  EXPECT_EQ(table.path(Tool::Rm), "/fake/rm");
  EXPECT_EQ(table.path(Tool::Chmod), "/bin/chmod");
}

TEST(ToolTable, TakesAbsoluteOverridesFromTheEnvironmentAndIgnoresTheRest) {
  std::map<std::string, std::string> environment{
      {"KESTRIN_TOOL_CHOWN", "/tmp/fakes/chown"},
      {"KESTRIN_TOOL_QMASTERPREFS", "/tmp/fakes/qmasterprefs"},
      {"KESTRIN_TOOL_CHMOD", ""},
      {"KESTRIN_TOOL_RM", "fakes/rm"},
      {"KESTRIN_TOOL_chown", "/wrong/case"},
  };
  auto table =
      ToolTable::fromEnvironment([&](const std::string& name) -> std::optional<std::string> {
        auto found = environment.find(name);
        return found == environment.end() ? std::nullopt : std::optional(found->second);
      });
  EXPECT_EQ(table.path(Tool::Chown), "/tmp/fakes/chown");
  EXPECT_EQ(table.path(Tool::Qmasterprefs), "/tmp/fakes/qmasterprefs");
  EXPECT_EQ(table.path(Tool::Chmod), "/bin/chmod");
  EXPECT_EQ(table.path(Tool::Rm), "/bin/rm");
  EXPECT_EQ(ToolTable::environmentVariable(Tool::Systemctl), "KESTRIN_TOOL_SYSTEMCTL");
}

} // namespace
} // namespace kestrin::platform
