#pragma once

#include <optional>

#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Removal of Final Cut Studio applications through the maker's tool Scallin. The admin side
// waits for a finished task: announced first with a deadline of 600 seconds, and posted however
// the operation ends (for a run with credentials, when Scallin reports its end or the deadline
// passes).
class ScallinOperations {
public:
  explicit ScallinOperations(const Services& services)
      : channel_(services.errorChannel), scallin_(services, "Scallin", "com.quorvane.Scallin") {}
  void registerIn(OperationTable& table);

  // settings: "obj1" the numeric identifier of the application to remove.
  void scallinRemoveApps(const Caller& caller, std::optional<plist::Dictionary> credentials,
                         plist::Dictionary settings);

  static constexpr double kFinishedTaskDeadline = 600.0;

private:
  ErrorChannel& channel_;
  MakerTool scallin_;
};

} // namespace kestrin::operations
