#include "operations/ControllerOperations.h"

namespace kestrin::operations {

void ControllerOperations::registerIn(OperationTable& table) {
  using C = ControllerOperations;
  table.add("ping", *this, &C::ping);
  table.add("clientVersion", *this, &C::clientVersion, "Unknown");
  table.add("clientVersionString", *this, &C::clientVersionString, "Unknown");
  table.add("hostName", *this, &C::hostName, "Unknown");
  table.add("isConnected", *this, &C::isConnected, false);
  table.add("disconnect", *this, &C::disconnect);
}

} // namespace kestrin::operations
