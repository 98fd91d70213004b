#include "operations/ControllerOperations.h"

namespace kestrin::operations {

void ControllerOperations::registerIn(OperationTable& table) {
  using C = ControllerOperations;
  table_ = &table;
  table.add("ping", *this, &C::ping);
  table.add("clientVersion", *this, &C::clientVersion, "Unknown");
  table.add("clientVersionString", *this, &C::clientVersionString, "Unknown");
  table.add("hostName", *this, &C::hostName, "Unknown");
  table.add("isConnected", *this, &C::isConnected, false);
  table.add("disconnect", *this, &C::disconnect);
  table.add("operationSignatures", *this, &C::operationSignatures);
}

plist::Array ControllerOperations::operationSignatures() {
  plist::Array signatures;
  for (const std::string& selector : table_->selectors()) {
    plist::Array kinds;
    for (const std::string& kind : table_->find(selector)->argumentKinds) {
      kinds.push_back(kind);
    }
    signatures.push_back(plist::Dictionary{{"selector", selector}, {"arguments", kinds}});
  }
  return signatures;
}

} // namespace kestrin::operations
