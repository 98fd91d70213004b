#include "app/AppController.h"

#include <filesystem>
#include <iostream>

#include <fmt/format.h>
#include <unistd.h>

#include "app/CallbackEndpoint.h"
#include "app/MainLoop.h"
#include "app/StatusItem.h"
#include "foundation/QVException.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "foundation/QVTaskEx.h"
#include "operations/AgentOperations.h"
#include "operations/ControllerObject.h"
#include "operations/Services.h"
#include "platform/NetworkProfile.h"
#include "plist/PropertyList.h"
#include "transport/HostIdentity.h"
#include "transport/ServiceAdvertisement.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

std::string preferencePath(const QVLocalPaths& paths) {
  fs::path folder =
      paths.prefsDirectory(true).value_or(paths.machine().home + "/Library/Preferences");
  return (folder / AppController::kPreferenceFileName).string();
}

} // namespace

// Hands a failed publication to the controller.
class AppController::AdvertisementDelegate : public transport::ServiceAdvertisement::Delegate {
public:
  explicit AdvertisementDelegate(AppController& controller) : controller_(controller) {}
  void netServiceDidNotPublish(const plist::Dictionary& error) override {
    controller_.netServiceDidNotPublish(error);
  }

private:
  AppController& controller_;
};

AppController::AppController(Environment environment)
    : environment_(std::move(environment)), timer_(environment_.clock),
      preferences_(preferencePath(environment_.paths)), bundle_(environment_.bundlePath),
      workspace_(platform::Workspace::forMachine(environment_.paths.machine().localRoot,
                                                 environment_.paths.machine().home)),
      notifications_(timer_, workers_),
      guard_([this] { return isQuitting(); },
             [this](double seconds) { reconnectWithTimeInterval(seconds); }),
      errorChannel_({timer_, workers_, guard_, [this] { return hostName(); },
                     [this] { return environment_.mainLoop.isMainThread(); }}),
      callbackRelay_(notifications_, workers_),
      credentials_(environment_.authorization, environment_.clock),
      applications_(environment_.paths, environment_.clock), icons_(bundle_),
      registry_(transport::NameRegistry::defaultDirectory()) {
  operations::Services services{environment_.paths,
                                environment_.tools,
                                timer_,
                                workers_,
                                guard_,
                                errorChannel_,
                                environment_.authorization,
                                credentials_,
                                workspace_,
                                applications_,
                                preferences_,
                                bundle_,
                                icons_,
                                notifications_,
                                callbackRelay_,
                                *this};
  operations_ = std::make_unique<operations::AgentOperations>(services);
  rootObject_ = std::make_shared<operations::ControllerObject>(operations_->table(), guard_);
  statusItem_ = std::make_unique<StatusItem>(
      StatusItem::Environment{environment_.mainLoop, notifications_, preferences_, errorChannel_,
                              [this] { return hostName(); }, [this] { return isQuitting(); },
                              environment_.paths, environment_.tools});
  endpoint_ = std::make_unique<ListeningEndpoint>(
      ListeningEndpoint::Environment{
          preferences_, workers_, guard_, registry_, *this,
          environment_.paths.libraryDirectory(true).value_or(environment_.paths.machine().home +
                                                             "/Library") +
              "/Kestrin/agent-identity.pem",
          environment_.paths.libraryDirectory(false).value_or("/Library") +
              "/Preferences/Kestrin/authorized_admins"},
      rootObject_);
  callbackEndpoint_ = std::make_unique<CallbackEndpoint>(
      CallbackEndpoint::Environment{environment_.mainLoop, timer_, workers_, guard_, registry_,
                                    [this] { return isQuitting(); }},
      rootObject_);
  advertisementDelegate_ = std::make_unique<AdvertisementDelegate>(*this);
  advertisement_ = std::make_unique<transport::ServiceAdvertisement>(*advertisementDelegate_);
  systemEvents_ =
      std::make_unique<SystemEvents>(workers_, static_cast<SystemEvents::Handlers&>(*this));
}

AppController::~AppController() {
  observations_.clear();
  setQuitting();
  // No deadline fires and no worker runs from here on; then nothing else can start the
  // service or reach the parts that go away below.
  timer_.stop();
  workers_.stop();
  systemEvents_.reset();
  advertisement_.reset();
  callbackEndpoint_.reset();
  endpoint_.reset();
  if (initialized_) {
    // Reaching here is the orderly end; a killed agent never writes this stamp.
    QVBugReporter::stopBugReporter(environment_.paths, environment_.tools, preferences_.path(),
                                   stampWriter());
  }
}

const operations::OperationTable& AppController::operationTable() const {
  return operations_->table();
}

plist::ObjectRef AppController::rootObject() const {
  return rootObject_;
}

// The crash stamps share the settings file with every other writer, so they go through the
// same locked read-modify-write rather than a write of their own.
QVBugReporter::StampWriter AppController::stampWriter() {
  return [this](const std::string& key, const plist::Value& value) {
    return preferences_.setObject(value, key).ok();
  };
}

bool AppController::init() {
  // The new log opens first so that a crash found in the previous run is written into it:
  // before the first log of this process there is no file to take the line.
  QVLog::createNewLog(std::string(kApplicationName));
  QVBugReporter::startBugReporter(
      environment_.paths, environment_.tools, std::string(kApplicationName), preferences_.path(),
      [this](const std::string& crashLog) {
        std::lock_guard lock(stateMutex_);
        lastCrashLogPath_ = crashLog;
      },
      stampWriter());
  initialized_ = true;
  notifications_.connectSessionBus();
  updateStatus("Starting up...");
  disconnectAllOtherInstances();
  QVLog::appendLog("Version {}.", bundle_.clientVersion());
  icons_.reset();
  connectToWindowServer();
  startService();
  announce();
  // The privileged-operations object came with the environment: the entry point made it.
  workers_.submit([this] {
    guard_.run("-[AppController populateQVApps]", [this] { applications_.populateQVApps(); });
  });
  workers_.submit([this] {
    guard_.run("-[AppController cacheSevrinSystemInfo]",
               [this] { operations_->cacheSevrinSystemInfo(); });
  });
  observeNotifications();

  // The bundle's own "lastRunVersion" is compared while the preference file receives the
  // value, so the check below runs at every start. The asymmetry is deliberate.
  std::string version = bundle_.clientVersion();
  const plist::Value lastRunVersion = bundle_.objectForInfoDictionaryKey("lastRunVersion");
  const std::string* last = lastRunVersion.asString();
  if (last == nullptr || *last != version) {
    setObjectForPreferenceDictionaryKey(version, "lastRunVersion");
    workers_.submit([this] {
      guard_.run("-[AppController forceSoftwareUpdateCheck]",
                 [this] { operations_->forceSoftwareUpdateCheck(); });
      // Its "updateConfig:" has gone to the admins registered by now; said for support.
      QVLog::appendLog("Start-up software update check finished.");
    });
  }
  workers_.submit([this] {
    guard_.run("-[AppController qmasterClusters]", [this] { operations_->loadQmasterClusters(); });
  });
  return true;
}

// What someone who started the agent by hand needs next: where it listens, where its log and
// settings are.
void AppController::announce() {
  std::vector<std::string> addresses;
  if (auto bound = endpoint_->listenIPAddress()) {
    addresses.push_back(*bound);
  } else {
    plist::Value profile = platform::networkDataType();
    const plist::Array* types = profile.asArray();
    const plist::Value* items = types && !types->empty() ? types->front().get("_items") : nullptr;
    for (const plist::Value& item :
         items && items->asArray() ? *items->asArray() : plist::Array{}) {
      const plist::Value* ips = item.get("ip_address");
      for (const plist::Value& ip : ips && ips->asArray() ? *ips->asArray() : plist::Array{}) {
        if (ip.asString()) {
          addresses.push_back(*ip.asString());
        }
      }
    }
  }
  std::string joined;
  for (const std::string& address : addresses) {
    joined += (joined.empty() ? "" : ", ") + address;
  }
  std::cout << "Addresses: " << (joined.empty() ? "all of this machine's" : joined) << ", port "
            << endpoint_->listenPortNumber() << "\n"
            << "Log: " << QVLog::sharedController().currentLogPath() << "\n"
            << "Settings: " << preferences_.path() << std::endl;
}

void AppController::applicationDidFinishLaunching() {
  systemEvents_->start();
}

void AppController::connectToWindowServer() {
  QVLog::appendLog("Connecting to WindowServer...");
}

// ---- service

int AppController::listeningPortFromPreferences(const plist::Value& customPortSet,
                                                const plist::Value& customPort) {
  if (customPortSet.integerValue() != 1) {
    return 0;
  }
  auto port = customPort.integerValue();
  // The range test is an unsigned difference, as the original check was written.
  if (port && static_cast<std::uint64_t>(*port - 1025) < 64511u) {
    return static_cast<int>(*port);
  }
  return 0;
}

void AppController::startService() {
  std::lock_guard lock(serviceMutex_);
  forgetHostName(); // a restart may follow a change of the machine's name
  updateStatus("Starting up...");
  workers_.submit([this] { loadSettings(); });
  killAllOtherInstances();

  int port = listeningPortFromPreferences(objectForPreferenceDictionaryKey("customPortSet"),
                                          objectForPreferenceDictionaryKey("customPort"));
  if (port != 0) {
    QVLog::appendLog("Custom port set to {}", port);
  }
  requestedPort_ = port;
  endpoint_->startVendingOnPort(port);
  if (objectForPreferenceDictionaryKey("disableBonjour").integerValue() != 1) {
    publishService();
  }
  callbackEndpoint_->startCallbackVending();
}

void AppController::stopService() {
  std::lock_guard lock(serviceMutex_);
  errorChannel_.performErrorCallbackSelector("willDisconnect:", hostName());
  if (!isRelaunching_) {
    updateStatus("Disconnecting...");
  }
  endpoint_->stopVending();
  callbackEndpoint_->stopCallbackVending();
  advertisement_->stop();
  if (!isRelaunching_) {
    updateStatus("Disconnected");
  }
}

void AppController::loadSettings() {
  QVLog::appendLog("Loading settings...");
  auto showIcon = objectForPreferenceDictionaryKey("showMenuBarIcon").integerValue();
  if (showIcon.value_or(0) != 0) {
    if (icons_.iconDict().isNull()) {
      icons_.setupIconDict();
    }
    environment_.mainLoop.runOnMainThreadAndWait([this] { statusItem_->showMenuBarItem(); });
  }
  plist::Value count = objectForPreferenceDictionaryKey("availableUpdateCount");
  plist::Value lastUpdate = objectForPreferenceDictionaryKey("availableUpdateCountLastUpdate");
  std::lock_guard lock(stateMutex_);
  availableUpdateCount_ = std::move(count);
  availableUpdateCountLastUpdate_ = std::move(lastUpdate);
}

void AppController::reconnectWithTimeInterval(double seconds) {
  if (willReconnect_.exchange(true)) {
    return;
  }
  if (!workers_.submit([this, seconds] { reconnectAfter(seconds); })) {
    willReconnect_ = false;
  }
}

void AppController::reconnectAfter(double seconds) {
  try {
    updateStatus("Disconnecting...");
    stopService();
    long whole = static_cast<long>(seconds);
    updateStatus(fmt::format("Reconnecting in {} seconds...", whole));
    std::cout << "Reconnecting in " << whole << " seconds..." << std::endl;
    Timer::Id restart =
        timer_.runAfter(platform::Clock::seconds(static_cast<double>(whole)), [this] {
          bool queued = workers_.submit([this] {
            try {
              if (!isQuitting_) {
                startService();
              }
            } catch (const std::exception& e) {
              QVException::logException(e, "-[AppController reconnectOnThread:]");
            }
            willReconnect_ = false;
          });
          if (!queued) {
            willReconnect_ = false;
          }
        });
    if (restart != 0) {
      return;
    }
  } catch (const std::exception& e) {
    QVException::logException(e, "-[AppController reconnectOnThread:]");
  }
  willReconnect_ = false;
}

void AppController::connectionDidDie() {
  QVLog::appendLogAndPrint("Connection died. Cleaning up...");
  if (isQuitting_) {
    stopService();
  } else {
    reconnectWithTimeInterval(10.0);
  }
}

std::string AppController::hostName() const {
  std::lock_guard lock(stateMutex_);
  if (!hostName_) {
    hostName_ = transport::currentHostName();
  }
  return *hostName_;
}

void AppController::forgetHostName() {
  std::lock_guard lock(stateMutex_);
  hostName_.reset();
}

// ---- advertisement

void AppController::publishService() {
  guard_.run("-[AppController publishService]", [&] {
    advertisement_->publishService({endpoint_->listenPortNumber(), endpoint_->listenIPAddress(),
                                    endpoint_->listenBSDName(), endpoint_->pdoName(),
                                    QVSysInfo::shared().machineType(), endpoint_->fingerprint()});
  });
}

void AppController::netServiceDidNotPublish(const plist::Dictionary& error) {
  updateStatus("Failed to publish. Retrying in 10 seconds...");
  QVLog::console("Failed to publish: {}", plist::describe(plist::Value(error)));
  reconnectWithTimeInterval(10.0);
}

// ---- the workstation's own life

void AppController::userLogIn() {
  QVLog::appendLog("System event: user logged in.");
  guard_.run("-[AppController userLogIn:]", [this] { restartService(); });
}

void AppController::userLogOut() {
  QVLog::appendLog("System event: user logged out.");
  guard_.run("-[AppController userLogOut:]", [this] { stopService(); });
}

void AppController::systemShutdown() {
  QVLog::appendLog("System event: shutdown.");
  disconnect();
}

void AppController::systemSleep() {
  QVLog::appendLog("System event: entering sleep mode...");
  guard_.run("-[AppController systemSleep:]", [this] { stopService(); });
}

// Waking restarts the service whatever its state: sockets held across sleep may be dead.
void AppController::systemWake() {
  QVLog::appendLog("System event: woke from sleep");
  guard_.run("-[AppController systemWake:]", [this] { restartService(); });
}

// An agent on its way out (a disconnect, a signal) stops but starts nothing again.
void AppController::restartService() {
  stopService();
  if (!isQuitting_) {
    startService();
  }
}

// ---- distributed notifications

void AppController::disconnectAllOtherInstances() {
  QVLog::appendLog("Disconnecting other instances of client...");
  notifications_.post("QVKestrinDisconnect",
                      {{"excluded_pid", static_cast<std::int64_t>(::getpid())}});
  QVLog::appendLog("Searching for other instances of client...");
}

void AppController::observeNotifications() {
  using Handler = std::function<void(const plist::Dictionary&)>;
  StatusItem& item = *statusItem_;
  operations::ErrorChannel& channel = errorChannel_;
  const std::pair<const char*, Handler> table[] = {
      {"QVKestrinMenuBarIconShow", [&item](const plist::Dictionary&) { item.showMenuBarItem(); }},
      {"QVKestrinMenuBarIconHide", [&item](const plist::Dictionary&) { item.hideMenuBarItem(); }},
      {"QVKestrinMaintenanceEnable",
       [&item](const plist::Dictionary&) { item.enableMaintenance(); }},
      {"QVKestrinMaintenanceDisable",
       [&item](const plist::Dictionary&) { item.disableMaintenance(); }},
      // From kestrin-maintenance, the user's way to the status item's actions.
      {"QVKestrinMaintenanceRequest",
       [&item](const plist::Dictionary&) { item.maintenanceRequestFromCommand(true); }},
      {"QVKestrinMaintenanceCancel",
       [&item](const plist::Dictionary&) { item.maintenanceRequestFromCommand(false); }},
      {"QVKestrinCurrentStatus", [&item](const plist::Dictionary&) { item.notifyCurrentStatus(); }},
      {"QVKestrinDisconnect", [this](const plist::Dictionary& info) { disconnect(info); }},
      {"QVKestrinRelaunch", [this](const plist::Dictionary&) { relaunch(); }},
      {"QVAmbrantTaskProgressIncrement",
       [&channel](const plist::Dictionary& info) { channel.taskIncrementProgress(info); }},
      {"QVAmbrantTaskFinished",
       [&channel](const plist::Dictionary& info) { channel.taskFinished(info); }},
      {"QVAmbrantTaskError",
       [&channel](const plist::Dictionary& info) { channel.taskError(info); }},
  };
  for (const auto& [name, handler] : table) {
    // Off the bus's thread: a handler may stop the service or call admins for a long time.
    observations_.push_back(
        notifications_.observe(name, [this, handler](const plist::Dictionary& info) {
          workers_.submit([handler, info] { handler(info); });
        }));
  }
}

// ---- ending

void AppController::setQuitting() {
  isQuitting_ = true;
}

void AppController::disconnect() {
  try {
    QVLog::appendLog("Preparing to disconnect...");
    setQuitting();
    stopService();
    // Quitting by now, the item sends no cancellation to the admins.
    environment_.mainLoop.runOnMainThreadAndWait([this] { statusItem_->hideMenuBarItem(); });
  } catch (const std::exception& e) {
    std::cerr << "Exception in -[AppController disconnect]: " << typeid(e).name() << " - "
              << e.what() << std::endl;
  }
  environment_.mainLoop.quit();
}

void AppController::disconnect(const plist::Dictionary& userInfo) {
  const plist::Value* excluded = userInfo.find("excluded_pid");
  std::int64_t pid = excluded ? excluded->integerValue().value_or(0) : 0;
  if (pid == ::getpid()) {
    return;
  }
  disconnect();
}

void AppController::relaunch() {
  if (isRelaunching_) {
    return;
  }
  fs::path executable =
      fs::path(bundle_.path().value_or("")) / "Contents" / "MacOS" / kApplicationName;
  std::error_code ec;
  if (!bundle_.path() || !fs::exists(executable, ec)) {
    QVLog::appendLog("Unable to relaunch client - {} doesn't exist.", executable.string());
    return;
  }
  isRelaunching_ = true;
  QVTaskEx::runTaskAndReturn(executable.string(), {"-wait"});
  updateStatus("Relaunching...");
  disconnect();
}

void AppController::terminate(int signal) {
  QVLog::appendLog("Received signal {}. Stopping...", signal);
  setQuitting();
  stopService();
  QVLog::sharedController().willTerminate();
}

// ---- settings and state

plist::Value AppController::objectForPreferenceDictionaryKey(std::string_view key) const {
  return preferences_.object(key);
}

void AppController::setObjectForPreferenceDictionaryKey(const plist::Value& value,
                                                        const std::string& key) {
  auto written = preferences_.setObject(value, key);
  if (!written) {
    QVLog::appendLog("Unable to write preference {}: {}", key, written.message());
  }
}

void AppController::updateStatus(const std::string& status) {
  statusItem_->updateStatus(status);
}

bool AppController::isConnected() const {
  return endpoint_->isConnected();
}

bool AppController::maintenanceRequested() const {
  return statusItem_->maintenanceRequested();
}

std::optional<std::string> AppController::takeLastCrashLogPath() {
  std::lock_guard lock(stateMutex_);
  return std::exchange(lastCrashLogPath_, std::nullopt);
}

plist::Value AppController::availableUpdateCount() const {
  std::lock_guard lock(stateMutex_);
  return availableUpdateCount_;
}

plist::Value AppController::availableUpdateCountLastUpdate() const {
  std::lock_guard lock(stateMutex_);
  return availableUpdateCountLastUpdate_;
}

void AppController::runOnMainThreadAndWait(const std::function<void()>& work) {
  environment_.mainLoop.runOnMainThreadAndWait(work);
}

void AppController::setMenuBarItemShown(bool shown) {
  environment_.mainLoop.runOnMainThreadAndWait([this, shown] {
    if (shown) {
      statusItem_->showMenuBarItem();
    } else {
      statusItem_->hideMenuBarItem();
    }
  });
}

void AppController::setAvailableUpdateCount(plist::Value count, plist::Value lastUpdate) {
  std::lock_guard lock(stateMutex_);
  availableUpdateCount_ = std::move(count);
  availableUpdateCountLastUpdate_ = std::move(lastUpdate);
}

} // namespace kestrin
