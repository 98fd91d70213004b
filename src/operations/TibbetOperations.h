#pragma once

#include <optional>
#include <string>

#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Scheduled maintenance tasks through the maker's scheduler, Tibbet: list them, add, edit,
// remove, enable and disable them, with the caller's credentials or as the agent's user.
//
// A task is a dictionary whose "filename" (edit only), "bundleid", "taskid", "scheduletype" and
// "intervalval" are passed in that order as far as present, then "-enable" and the "enabled"
// value when there is one; Tibbet reads their meaning. The operations differ on purpose in
// which of them log the found line and what a failure posts.
class TibbetOperations {
public:
  explicit TibbetOperations(const Services& services)
      : channel_(services.errorChannel), tibbet_(services, "Tibbet", "com.quorvane.Tibbet") {}
  void registerIn(OperationTable& table);

  std::optional<plist::Dictionary> tibbetTaskDictionary();
  // settings: "obj1" the task.
  void addTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
               plist::Dictionary settings);
  void editTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
                plist::Dictionary settings);
  // settings: "obj2" the task identifier.
  void removeTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
                  plist::Dictionary settings);
  // settings: "obj1" a task identifier, or none for every task; "obj2" true to enable.
  void enableTask(const Caller& caller, std::optional<plist::Dictionary> credentials,
                  plist::Dictionary settings);

private:
  // Runs Tibbet; a missing Tibbet posts 1000 with its identifier, a non-zero exit status is
  // posted with exitInfo.
  void run(const Caller& caller, const MakerTool::Arguments& arguments,
           const std::optional<plist::Dictionary>& credentials, bool logFound,
           const std::optional<std::string>& exitInfo);

  ErrorChannel& channel_;
  MakerTool tibbet_;
};

} // namespace kestrin::operations
