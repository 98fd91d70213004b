#pragma once

#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin {

class AppController;

namespace operations {
class OperationTable;
}

// AppController as the root object that the listening endpoint vends: a call is looked up by
// selector in the operation table, its argument count checked, and its body run inside the
// controller's exception guard. An unknown selector or a wrong argument count answers an
// ArgumentError; nothing a caller sends can take the agent down.
class ControllerObject : public plist::RemoteObject {
public:
  ControllerObject(AppController& controller, const operations::OperationTable& table)
      : controller_(controller), table_(table) {}

  std::string description() const override { return "<AppController>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

private:
  AppController& controller_;
  const operations::OperationTable& table_;
};

} // namespace kestrin
