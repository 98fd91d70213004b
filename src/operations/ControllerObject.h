#pragma once

#include <string>
#include <vector>

#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin {
class ExceptionGuard;
}

namespace kestrin::operations {

// AppController as the root object that the listening endpoint vends: a call is looked up by
// selector in the operation table, its argument count checked, and its body run inside the
// controller's exception guard. An unknown selector or a wrong argument count or kind answers
// an ArgumentError; nothing a caller sends can take the agent down.
class ControllerObject : public plist::RemoteObject {
public:
  ControllerObject(const OperationTable& table, const ExceptionGuard& guard)
      : table_(table), guard_(guard) {}

  std::string description() const override { return "<AppController>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

  plist::Value invokeFrom(const Caller& caller, const std::string& selector,
                          std::vector<plist::Value> arguments) override;

private:
  const OperationTable& table_;
  const ExceptionGuard& guard_;
};

} // namespace kestrin::operations
