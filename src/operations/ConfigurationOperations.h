#pragma once

#include <optional>

#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin::operations {

class AgentBundle;
class AgentControl;
class ApplicationCatalog;

// What the administration application reads when it first connects to an agent: versions,
// names, the maintenance flag, the installed suite's version and the agent's own crash report.
class ConfigurationOperations {
public:
  ConfigurationOperations(ApplicationCatalog& applications, const AgentBundle& bundle,
                          AgentControl& agent)
      : applications_(applications), bundle_(bundle), agent_(agent) {}
  void registerIn(OperationTable& table);

  // {"version", "versionString"} of the first application that belongs to the suite, or null.
  plist::Value ambrantVersion();
  plist::Dictionary initialConfiguration();
  void fetchInitialConfiguration(std::optional<plist::ObjectRef> receiver);

private:
  plist::Dictionary fullConfiguration();

  ApplicationCatalog& applications_;
  const AgentBundle& bundle_;
  AgentControl& agent_;
};

} // namespace kestrin::operations
