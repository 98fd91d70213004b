#pragma once

#include <optional>

#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Cache clearing through the maker's tool Orrick. The admin side waits for a finished task: it
// is announced with a deadline of 300 seconds first, and posted when the run ends, when Orrick
// is missing (with no error code), or, for a run with credentials, when Orrick reports its end
// or the deadline passes.
class OrrickOperations {
public:
  explicit OrrickOperations(const Services& services)
      : channel_(services.errorChannel), orrick_(services, "Orrick", "com.quorvane.Orrick") {}
  void registerIn(OperationTable& table);

  // settings: "obj1" the name of the caches, Orrick's own.
  void orrickTrashCaches(const Caller& caller, std::optional<plist::Dictionary> credentials,
                         plist::Dictionary settings);

  static constexpr double kFinishedTaskDeadline = 300.0;

private:
  ErrorChannel& channel_;
  MakerTool orrick_;
};

} // namespace kestrin::operations
