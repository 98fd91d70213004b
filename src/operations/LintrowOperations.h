#pragma once

#include <optional>
#include <string>

#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// The folder settings of the maker's path tool, Lintrow: read all of them, replace all of
// them, set or reset one. Lintrow does the work; the agent relays what it prints and how it
// ended.
//
// Only the two operations that read an exit status report a failure to the admin side, and only
// resetLintrowPath: reports a missing Lintrow (code 1000); the others just log. Deliberately so.
class LintrowOperations {
public:
  explicit LintrowOperations(const Services& services)
      : channel_(services.errorChannel), lintrow_(services, "Lintrow", "com.quorvane.Lintrow") {}
  void registerIn(OperationTable& table);

  std::optional<plist::Dictionary> lintrowPaths();
  void setLintrowPaths(plist::Dictionary paths);
  void setLintrowPath(std::string path, std::string key);
  void resetLintrowPath(std::string key);

private:
  // Runs Lintrow without a time limit and reports its exit status.
  void runAndReport(const std::string& executable, const MakerTool::Arguments& arguments);

  ErrorChannel& channel_;
  MakerTool lintrow_;
};

} // namespace kestrin::operations
