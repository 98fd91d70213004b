#pragma once

#include <string>

#include "operations/AgentBundle.h"
#include "operations/AgentControl.h"
#include "operations/OperationTable.h"

namespace kestrin::operations {

// The controller's own remote operations: liveness, versions, names and the way out.
class ControllerOperations {
public:
  ControllerOperations(AgentControl& agent, const AgentBundle& bundle)
      : agent_(agent), bundle_(bundle) {}
  void registerIn(OperationTable& table);

  // A cheap round trip for admins and monitors to tell a live agent from a dead one.
  void ping() {}
  std::string clientVersion() { return bundle_.clientVersion(); }
  std::string clientVersionString() { return bundle_.clientVersionString(); }
  std::string hostName() { return agent_.hostName(); }
  bool isConnected() { return agent_.isConnected(); }
  // Ends the agent: local tools ask for it through the callback endpoint ("postDisconnect").
  void disconnect() { agent_.disconnect(); }
  // Every selector the agent answers with the kinds of its arguments, in selector order:
  // [{"selector": "feldaneBackup:type:", "arguments": ["a string", "a number"]}, ...], so an
  // admin tool can show what it may call without a copy of the agent's table.
  plist::Array operationSignatures();

private:
  const OperationTable* table_ = nullptr;
  AgentControl& agent_;
  const AgentBundle& bundle_;
};

} // namespace kestrin::operations
