#include "app/AppController.h"

#include <filesystem>
#include <iostream>

#include <climits>

#include <fmt/format.h>
#include <unistd.h>

#include "app/ControllerObject.h"
#include "app/MainLoop.h"
#include "app/ServiceState.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVBugReporter.h"
#include "foundation/QVException.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "operations/MakerApplications.h"
#include "operations/OperationTable.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"
#include "transport/HostIdentity.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

std::string preferencePath(const QVLocalPaths& paths) {
  fs::path folder =
      paths.prefsDirectory(true).value_or(paths.machine().home + "/Library/Preferences");
  return (folder / AppController::kPreferenceFileName).string();
}

} // namespace

AppController::AppController(Environment environment)
    : environment_(std::move(environment)), preferences_(preferencePath(environment_.paths)),
      exceptionGuard_([this] { return isQuitting(); },
                      [this](double seconds) { reconnectWithTimeInterval(seconds); }),
      errorChannel_({environment_.mainLoop, exceptionGuard_, [this] { return hostName(); }}),
      rootObject_(
          std::make_shared<ControllerObject>(*this, operations::OperationTable::agentOperations())),
      service_(std::make_unique<ServiceState>(*this)) {}

AppController::~AppController() {
  observations_.clear();
  {
    std::lock_guard lock(relayMutex_);
    relays_.clear();
  }
  notificationCenter_.reset(); // no handler runs from here on
  {
    std::lock_guard lock(quitMutex_);
    isQuitting_ = true;
  }
  quitCondition_.notify_all();
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(threadsMutex_);
    threads.swap(threads_);
  }
  for (std::thread& t : threads) {
    if (t.joinable()) {
      t.join();
    }
  }
  {
    std::lock_guard lock(serviceMutex_);
    service_.reset(); // stops both endpoints before the rest of the controller goes
  }
  if (initialized_) {
    // Reaching here is the orderly end; a killed agent never writes this stamp.
    QVBugReporter::stopBugReporter(environment_.paths, platform::ToolTable::shared(),
                                   preferences_.path(), stampWriter());
  }
}

void AppController::setQVApps(std::vector<std::string> paths) {
  {
    std::lock_guard lock(stateMutex_);
    qvAppArray_ = std::move(paths);
    qvAppsPopulated_ = true;
  }
  qvAppsChanged_.notify_all();
}

void AppController::populateQVApps() {
  exceptionGuard_.run("-[AppController populateQVApps]", [this] {
    QVLog::appendLog("Getting Quorvane app list...");
    setQVApps(operations::qvAppsInFolder(
        environment_.paths, environment_.paths.applicationDirectory(false).value_or("")));
  });
}

bool AppController::qvAppsPopulated() const {
  std::lock_guard lock(stateMutex_);
  return qvAppsPopulated_;
}

// The crash stamps share the settings file with every other writer, so they go through the
// same locked read-modify-write rather than a write of their own.
QVBugReporter::StampWriter AppController::stampWriter() {
  return [this](const std::string& key, const plist::Value& value) {
    return preferences_.setObject(value, key).ok();
  };
}

std::vector<std::string> AppController::qvApps(std::chrono::milliseconds wait) {
  std::unique_lock lock(stateMutex_);
  qvAppsChanged_.wait_for(lock, wait, [this] { return qvAppsPopulated_; });
  return qvAppArray_;
}

std::optional<std::string> AppController::takeLastCrashLogPath() {
  std::lock_guard lock(stateMutex_);
  return std::exchange(lastCrashLogPath_, std::nullopt);
}

void AppController::startThread(std::function<void()> fn) {
  std::lock_guard lock(threadsMutex_);
  threads_.emplace_back(std::move(fn));
}

bool AppController::init() {
  // The new log opens first so that a crash found in the previous run is written into it:
  // before the first log of this process there is no file to take the line.
  QVLog::createNewLog(std::string(kApplicationName));
  QVBugReporter::startBugReporter(
      environment_.paths, platform::ToolTable::shared(), std::string(kApplicationName),
      preferences_.path(),
      [this](const std::string& crashLog) {
        std::lock_guard lock(stateMutex_);
        lastCrashLogPath_ = crashLog;
      },
      stampWriter());
  initialized_ = true;
  connectNotificationCenter();
  updateStatus("Starting up...");
  disconnectAllOtherInstances();
  QVLog::appendLog("Version {}.", clientVersion());
  {
    std::lock_guard lock(stateMutex_);
    iconDict_ = plist::Value();
  }
  startService();
  QVAuthorization::sharedController(false);
  startThread([this] { populateQVApps(); });
  observeNotifications();

  // The bundle's own "lastRunVersion" is compared while the preference file receives the
  // value, so the check below runs at every start. The asymmetry is deliberate.
  std::string version = clientVersion();
  const plist::Value lastRunVersion = objectForInfoDictionaryKey("lastRunVersion");
  const std::string* last = lastRunVersion.asString();
  if (last == nullptr || *last != version) {
    setObjectForPreferenceDictionaryKey(version, "lastRunVersion");
  }
  return true;
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
  startThread([this] { loadSettings(); });
  killAllOtherInstances();

  int port = listeningPortFromPreferences(objectForPreferenceDictionaryKey("customPortSet"),
                                          objectForPreferenceDictionaryKey("customPort"));
  if (port != 0) {
    QVLog::appendLog("Custom port set to {}", port);
  }
  requestedPort_ = port;
  startVendingOnPort(port);
  if (objectForPreferenceDictionaryKey("disableBonjour").integerValue() != 1) {
    publishService();
  }
  startCallbackVending();
}

void AppController::stopService() {
  std::lock_guard lock(serviceMutex_);
  errorChannel_.performErrorCallbackSelector("willDisconnect:", hostName());
  if (!isRelaunching_) {
    updateStatus("Disconnecting...");
  }
  stopVending();
  stopCallbackVending();
  service_->advertisement.stop();
  if (!isRelaunching_) {
    updateStatus("Disconnected");
  }
}

void AppController::loadSettings() {
  QVLog::appendLog("Loading settings...");
  auto showIcon = objectForPreferenceDictionaryKey("showMenuBarIcon").integerValue();
  if (showIcon.value_or(0) != 0) {
    if (iconDict().isNull()) {
      setupIconDict();
    }
    // There is no status bar to show an item in; the request still passes through the main
    // thread like every status-item change.
    environment_.mainLoop.runOnMainThreadAndWait([] {});
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
  startThread([this, seconds] { reconnectOnThread(seconds); });
}

void AppController::reconnectOnThread(double seconds) {
  try {
    updateStatus("Disconnecting...");
    stopService();
    long whole = static_cast<long>(seconds);
    updateStatus(fmt::format("Reconnecting in {} seconds...", whole));
    std::cout << "Reconnecting in " << whole << " seconds..." << std::endl;
    if (sleepUnlessQuitting(static_cast<double>(whole))) {
      startService();
    }
  } catch (const std::exception& e) {
    QVException::logException(e, "-[AppController reconnectOnThread:]");
  }
  willReconnect_ = false;
}

bool AppController::sleepUnlessQuitting(double seconds) {
  std::unique_lock lock(quitMutex_);
  auto until = std::chrono::steady_clock::now() +
               std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
  return !quitCondition_.wait_until(lock, until, [this] { return isQuitting_.load(); });
}

std::string AppController::hostName() const {
  std::lock_guard lock(hostNameMutex_);
  if (!hostName_) {
    hostName_ = transport::currentHostName();
  }
  return *hostName_;
}

void AppController::forgetHostName() {
  std::lock_guard lock(hostNameMutex_);
  hostName_.reset();
}

// ---- ending

void AppController::disconnect() {
  try {
    QVLog::appendLog("Preparing to disconnect...");
    {
      std::lock_guard lock(quitMutex_);
      isQuitting_ = true;
    }
    quitCondition_.notify_all();
    stopService();
    environment_.mainLoop.runOnMainThreadAndWait(
        [] { QVLog::appendLog("Hiding menu bar item..."); });
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
      fs::path(environment_.bundlePath.value_or("")) / "Contents" / "MacOS" / kApplicationName;
  std::error_code ec;
  if (!environment_.bundlePath || !fs::exists(executable, ec)) {
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
  {
    std::lock_guard lock(quitMutex_);
    isQuitting_ = true;
  }
  quitCondition_.notify_all();
  stopService();
  QVLog::sharedController().willTerminate();
}

// ---- settings and bundle information

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

plist::Value AppController::objectForInfoDictionaryKey(std::string_view key) const {
  if (!environment_.bundlePath) {
    return {};
  }
  auto info = plist::readFile(fs::path(*environment_.bundlePath) / "Contents" / "Info.plist");
  if (!info) {
    return {};
  }
  const plist::Value* value = info->get(key);
  return value ? *value : plist::Value();
}

std::string AppController::clientVersion() const {
  plist::Value version = objectForInfoDictionaryKey("CFBundleVersion");
  return version.asString() ? *version.asString() : "Unknown";
}

std::string AppController::clientVersionString() const {
  plist::Value version = objectForInfoDictionaryKey("CFBundleShortVersionString");
  return version.asString() ? *version.asString() : "Unknown";
}

// ---- status

std::string AppController::statusString() const {
  std::lock_guard lock(stateMutex_);
  return statusString_;
}

plist::Value AppController::availableUpdateCount() const {
  std::lock_guard lock(stateMutex_);
  return availableUpdateCount_;
}

plist::Value AppController::availableUpdateCountLastUpdate() const {
  std::lock_guard lock(stateMutex_);
  return availableUpdateCountLastUpdate_;
}

} // namespace kestrin
