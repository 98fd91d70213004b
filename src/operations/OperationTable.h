#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "operations/Arguments.h"
#include "plist/Value.h"

namespace kestrin {
class AppController;
}

namespace kestrin::operations {

using Handler = std::function<plist::Value(AppController&, const Arguments&)>;

struct Operation {
  std::string selector;
  Handler handler;
  // What the operation answers when its body fails with an exception: nil, 0, NO or
  // "Unknown", as each operation documents.
  plist::Value neutral;
};

// The remote operations of AppController by selector ("feldaneBackup:type:"). Each group of
// operations adds its selectors in its own source file (see OperationGroups.h).
class OperationTable {
public:
  // Adds or replaces the operation. The selector's colons give the number of arguments.
  void add(std::string selector, Handler handler, plist::Value neutral = {});
  const Operation* find(std::string_view selector) const;
  std::vector<std::string> selectors() const;

  // Every operation of the agent, built once.
  static const OperationTable& agentOperations();

private:
  std::map<std::string, Operation, std::less<>> operations_;
};

} // namespace kestrin::operations
