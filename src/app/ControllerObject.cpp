#include "app/ControllerObject.h"

#include <algorithm>

#include <fmt/format.h>

#include "app/AppController.h"
#include "app/ExceptionGuard.h"
#include "operations/OperationTable.h"

namespace kestrin {

plist::Value ControllerObject::invoke(const std::string& selector,
                                      std::vector<plist::Value> arguments) {
  const operations::Operation* operation = table_.find(selector);
  if (operation == nullptr) {
    throw ArgumentError(fmt::format("AppController does not respond to selector {}", selector));
  }
  auto expected = static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
  if (arguments.size() != expected) {
    throw ArgumentError(
        fmt::format("{} takes {} argument(s), not {}", selector, expected, arguments.size()));
  }
  operations::Arguments args(selector, std::move(arguments));
  std::string method = fmt::format("-[AppController {}]", selector);
  return controller_.exceptionGuard().run(method.c_str(), operation->neutral,
                                          [&] { return operation->handler(controller_, args); });
}

bool ControllerObject::respondsTo(const std::string& selector) {
  return table_.find(selector) != nullptr;
}

} // namespace kestrin
