#include "operations/AgentOperations.h"

#include "operations/ApplicationOperations.h"
#include "operations/ConfigurationOperations.h"
#include "operations/ControllerOperations.h"
#include "operations/CrashLogOperations.h"
#include "operations/CredentialOperations.h"
#include "operations/ErrorChannelOperations.h"
#include "operations/FeldaneOperations.h"
#include "operations/HembryOperations.h"
#include "operations/LintrowOperations.h"
#include "operations/OrrickOperations.h"
#include "operations/PluginOperations.h"
#include "operations/QmasterOperations.h"
#include "operations/ScallinOperations.h"
#include "operations/SevrinOperations.h"
#include "operations/SoftwareUpdateOperations.h"
#include "operations/SuiteSettingsOperations.h"
#include "operations/TaskOperations.h"
#include "operations/TibbetOperations.h"

namespace kestrin::operations {

struct AgentOperations::Groups {
  explicit Groups(const Services& s)
      : controller(s.agent, s.bundle), errorChannel(s.errorChannel, s.callbackRelay),
        credentials(s.credentials, s.errorChannel), tasks(s),
        configuration(s.applications, s.bundle, s.agent), lintrow(s), feldane(s), tibbet(s),
        hembry(s), orrick(s), scallin(s), sevrin(s.paths, s.errorChannel), plugins(s), crashLogs(s),
        softwareUpdates(s), qmaster(s), applications(s), suiteSettings(s) {}

  ControllerOperations controller;
  ErrorChannelOperations errorChannel;
  CredentialOperations credentials;
  TaskOperations tasks;
  ConfigurationOperations configuration;
  LintrowOperations lintrow;
  FeldaneOperations feldane;
  TibbetOperations tibbet;
  HembryOperations hembry;
  OrrickOperations orrick;
  ScallinOperations scallin;
  SevrinOperations sevrin;
  PluginOperations plugins;
  CrashLogOperations crashLogs;
  SoftwareUpdateOperations softwareUpdates;
  QmasterOperations qmaster;
  ApplicationOperations applications;
  SuiteSettingsOperations suiteSettings;
};

AgentOperations::AgentOperations(const Services& services)
    : groups_(std::make_unique<Groups>(services)) {
  groups_->controller.registerIn(table_);
  groups_->errorChannel.registerIn(table_);
  groups_->credentials.registerIn(table_);
  groups_->tasks.registerIn(table_);
  groups_->configuration.registerIn(table_);
  groups_->plugins.registerIn(table_);
  groups_->lintrow.registerIn(table_);
  groups_->feldane.registerIn(table_);
  groups_->tibbet.registerIn(table_);
  groups_->hembry.registerIn(table_);
  groups_->orrick.registerIn(table_);
  groups_->scallin.registerIn(table_);
  groups_->sevrin.registerIn(table_);
  groups_->crashLogs.registerIn(table_);
  groups_->softwareUpdates.registerIn(table_);
  groups_->qmaster.registerIn(table_);
  groups_->applications.registerIn(table_);
  groups_->suiteSettings.registerIn(table_);
}

void AgentOperations::cacheSevrinSystemInfo() {
  groups_->sevrin.cacheSevrinSystemInfo();
}

void AgentOperations::forceSoftwareUpdateCheck() {
  groups_->softwareUpdates.forceSoftwareUpdateCheck();
}

void AgentOperations::loadQmasterClusters() {
  groups_->qmaster.qmasterClusters();
}

AgentOperations::~AgentOperations() = default;

} // namespace kestrin::operations
