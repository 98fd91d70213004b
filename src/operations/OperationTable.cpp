#include "operations/OperationTable.h"

#include "operations/OperationGroups.h"

namespace kestrin::operations {

void OperationTable::add(std::string selector, Handler handler, plist::Value neutral) {
  Operation operation{selector, std::move(handler), std::move(neutral)};
  operations_.insert_or_assign(std::move(selector), std::move(operation));
}

const Operation* OperationTable::find(std::string_view selector) const {
  auto found = operations_.find(selector);
  return found == operations_.end() ? nullptr : &found->second;
}

std::vector<std::string> OperationTable::selectors() const {
  std::vector<std::string> names;
  names.reserve(operations_.size());
  for (const auto& [selector, operation] : operations_) {
    names.push_back(selector);
  }
  return names;
}

const OperationTable& OperationTable::agentOperations() {
  static const OperationTable table = [] {
    OperationTable built;
    addControllerOperations(built);
    addErrorChannelOperations(built);
    addCredentialOperations(built);
    addTaskOperations(built);
    addConfigurationOperations(built);
    return built;
  }();
  return table;
}

} // namespace kestrin::operations
