#pragma once

#include <memory>

#include "operations/OperationTable.h"
#include "operations/Services.h"

namespace kestrin::operations {

// Every group of the agent's remote operations, built over the services, and the one table of
// their selectors. To find an operation, grep for its selector (colons included): it is
// registered in its group's registerIn.
class AgentOperations {
public:
  explicit AgentOperations(const Services& services);
  ~AgentOperations();
  AgentOperations(const AgentOperations&) = delete;
  AgentOperations& operator=(const AgentOperations&) = delete;

  const OperationTable& table() const { return table_; }

  // Start-up work that is no remote operation: gathers the system profile that Sevrin's
  // operation answers, so that the first request finds it ready. Slow; for a worker.
  void cacheSevrinSystemInfo();
  // Start-up's software-update count when the agent's version changed. Runs the updater; for a
  // worker.
  void forceSoftwareUpdateCheck();
  // Start-up's render-cluster list, so that the first request finds it ready. For a worker.
  void loadQmasterClusters();

private:
  struct Groups;
  std::unique_ptr<Groups> groups_;
  OperationTable table_;
};

} // namespace kestrin::operations
