// The controller's own remote operations: liveness, versions and names.

#include "app/AppController.h"
#include "operations/OperationGroups.h"
#include "operations/OperationTable.h"

namespace kestrin::operations {

void addControllerOperations(OperationTable& table) {
  // A cheap round trip for admins and monitors to tell a live agent from a dead one.
  table.add("ping", [](AppController&, const Arguments&) { return plist::Value(); });
  table.add(
      "clientVersion",
      [](AppController& controller, const Arguments&) {
        return plist::Value(controller.clientVersion());
      },
      "Unknown");
  table.add(
      "clientVersionString",
      [](AppController& controller, const Arguments&) {
        return plist::Value(controller.clientVersionString());
      },
      "Unknown");
  table.add(
      "hostName",
      [](AppController& controller, const Arguments&) {
        return plist::Value(controller.hostName());
      },
      "Unknown");
  // Ends the agent: local tools ask for it through the callback endpoint ("postDisconnect").
  table.add("disconnect", [](AppController& controller, const Arguments&) {
    controller.disconnect();
    return plist::Value();
  });
  table.add(
      "isConnected",
      [](AppController& controller, const Arguments&) {
        return plist::Value(controller.isConnected());
      },
      false);
}

} // namespace kestrin::operations
