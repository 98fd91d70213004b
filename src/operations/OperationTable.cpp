#include "operations/OperationTable.h"

namespace kestrin::operations {

void OperationTable::insert(Operation operation) {
  std::string selector = operation.selector;
  // try_emplace leaves `operation` alone when the selector is taken.
  if (!operations_.try_emplace(selector, std::move(operation)).second) {
    throw std::logic_error(selector + " is registered twice");
  }
}

const OperationTable::Operation* OperationTable::find(std::string_view selector) const {
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

} // namespace kestrin::operations
