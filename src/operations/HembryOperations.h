#pragma once

#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Housekeeping through the maker's tool Hembry: runs the named tasks, as the agent's user only.
// Neither a missing Hembry nor its exit status reaches the admin side; both are in the log.
class HembryOperations {
public:
  explicit HembryOperations(const Services& services)
      : channel_(services.errorChannel), hembry_(services, "Hembry", "com.quorvane.Hembry") {}
  void registerIn(OperationTable& table);

  // The names, Hembry's own, go to it as one argument joined with ",".
  void hembryRunTasks(plist::Array names);

private:
  ErrorChannel& channel_;
  MakerTool hembry_;
};

} // namespace kestrin::operations
