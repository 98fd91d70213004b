#include "operations/AgentOperations.h"

#include "operations/ConfigurationOperations.h"
#include "operations/ControllerOperations.h"
#include "operations/CrashLogOperations.h"
#include "operations/CredentialOperations.h"
#include "operations/ErrorChannelOperations.h"
#include "operations/TaskOperations.h"

namespace kestrin::operations {

struct AgentOperations::Groups {
  explicit Groups(const Services& s)
      : controller(s.agent, s.bundle), errorChannel(s.errorChannel, s.callbackRelay),
        credentials(s.authorization, s.errorChannel), tasks(s),
        configuration(s.applications, s.bundle, s.agent), crashLogs(s) {}

  ControllerOperations controller;
  ErrorChannelOperations errorChannel;
  CredentialOperations credentials;
  TaskOperations tasks;
  ConfigurationOperations configuration;
  CrashLogOperations crashLogs;
};

AgentOperations::AgentOperations(const Services& services)
    : groups_(std::make_unique<Groups>(services)) {
  groups_->controller.registerIn(table_);
  groups_->errorChannel.registerIn(table_);
  groups_->credentials.registerIn(table_);
  groups_->tasks.registerIn(table_);
  groups_->configuration.registerIn(table_);
  groups_->crashLogs.registerIn(table_);
}

AgentOperations::~AgentOperations() = default;

} // namespace kestrin::operations
