#include "operations/ControllerObject.h"

#include <fmt/format.h>

#include "foundation/Cancellation.h"
#include "operations/ExceptionGuard.h"
#include "support/NamedException.h"

namespace kestrin::operations {

plist::Value ControllerObject::invoke(const std::string& selector,
                                      std::vector<plist::Value> arguments) {
  return invokeFrom(Caller{}, selector, std::move(arguments));
}

plist::Value ControllerObject::invokeFrom(const Caller& caller, const std::string& selector,
                                          std::vector<plist::Value> arguments) {
  const OperationTable::Operation* operation = table_.find(selector);
  if (operation == nullptr) {
    throw ArgumentError(fmt::format("AppController does not respond to selector {}", selector));
  }
  std::size_t expected = OperationTable::argumentCount(selector);
  if (arguments.size() != expected) {
    throw ArgumentError(
        fmt::format("{} takes {} argument(s), not {}", selector, expected, arguments.size()));
  }
  std::string method = fmt::format("-[AppController {}]", selector);
  // Long work in the call (a walk of the file system) ends early once the caller has gone.
  Cancellation::Scope scope([&caller] { return caller.hasGone(); });
  return guard_.run(method.c_str(), operation->neutral,
                    [&] { return operation->handler(caller, arguments); });
}

bool ControllerObject::respondsTo(const std::string& selector) {
  return table_.find(selector) != nullptr;
}

} // namespace kestrin::operations
