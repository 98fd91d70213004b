#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/ListeningEndpoint.h"
#include "app/SystemEvents.h"
#include "foundation/NotificationHub.h"
#include "foundation/PreferenceFile.h"
#include "foundation/QVBugReporter.h"
#include "foundation/Timer.h"
#include "foundation/WorkerPool.h"
#include "operations/AgentBundle.h"
#include "operations/AgentControl.h"
#include "operations/AgentIcons.h"
#include "operations/ApplicationCatalog.h"
#include "operations/CallbackRelay.h"
#include "operations/CredentialThrottle.h"
#include "operations/ErrorChannel.h"
#include "operations/ExceptionGuard.h"
#include "platform/Workspace.h"
#include "plist/Value.h"

namespace kestrin {

class CallbackEndpoint;
class MainLoop;
class QVAuthorization;
class QVLocalPaths;
class StatusItem;

namespace operations {
class AgentOperations;
class ControllerObject;
} // namespace operations

namespace platform {
class Clock;
class ToolTable;
} // namespace platform

namespace transport {
class ServiceAdvertisement;
}

// The agent's one controller: its lifecycle (the start-up order, starting and stopping the
// service, reconnection, the ways out), its state, and the table of remote operations. The
// work of each operation lives in its group (operations/); the endpoints, the status item and
// the advertisement are classes of their own that the controller owns and starts in order.
//
// Threads: init() and the signal path run on the main thread; remote operations, start-up
// work, notification handlers and reconnections run on the controller's worker pool; deadlines
// on its timer. The destructor stops both before anything they use goes away.
class AppController final : public operations::AgentControl,
                            private ListeningEndpoint::Delegate,
                            private SystemEvents::Handlers {
public:
  static constexpr const char* kBundleIdentifier = operations::AgentBundle::kBundleIdentifier;
  static constexpr const char* kApplicationName = operations::AgentBundle::kApplicationName;
  static constexpr const char* kPreferenceFileName = "com.quorvane.Kestrin.plist";

  struct Environment {
    const QVLocalPaths& paths;
    MainLoop& mainLoop;
    // The agent's bundle (Kestrin.app). Resolved by the caller so that tests can point the
    // controller at a throwaway bundle.
    std::optional<std::string> bundlePath;
    // Every deadline of the agent; tests pass a ManualClock.
    const platform::Clock& clock;
    const platform::ToolTable& tools;
    QVAuthorization& authorization;
  };

  explicit AppController(Environment environment);
  ~AppController() override;
  AppController(const AppController&) = delete;
  AppController& operator=(const AppController&) = delete;

  // The whole start-up, in order. Answers false when the controller could not be set up.
  bool init();
  // After start-up: the console-user watcher and the login manager's events.
  void applicationDidFinishLaunching();

  // ---- service
  void startService();
  void stopService();
  void loadSettings();
  // Schedules one restart of the whole service after the interval; does nothing while one is
  // pending.
  void reconnectWithTimeInterval(double seconds) override;

  // ---- the workstation's own life; each logs its line, then acts
  void userLogIn() override;
  void userLogOut() override;
  void systemShutdown() override;
  void systemSleep() override;
  void systemWake() override;
  // There is no window server to connect to; the line stays for those who read the log.
  void connectToWindowServer();

  // ---- ending
  void disconnect() override;
  // Handler of the "QVKestrinDisconnect" notification: quits unless "excluded_pid" is ours.
  void disconnect(const plist::Dictionary& userInfo);
  void relaunch();
  void disconnectAllOtherInstances();
  void killAllOtherInstances() {} // deliberately empty hook
  // The orderly stop for SIGTERM and SIGINT: stop the service, flush the log.
  void terminate(int signal);

  // ---- settings
  plist::Value objectForPreferenceDictionaryKey(std::string_view key) const;
  void setObjectForPreferenceDictionaryKey(const plist::Value& value, const std::string& key);
  std::string preferenceFilePath() const { return preferences_.path(); }
  // The listening port that the settings ask for: "customPort" when "customPortSet" is 1 and
  // the port lies in 1025..65535, otherwise 0 (the endpoint's own default).
  static int listeningPortFromPreferences(const plist::Value& customPortSet,
                                          const plist::Value& customPort);

  // ---- what the operation groups see
  std::string hostName() const override;
  bool isConnected() const override;
  bool maintenanceRequested() const override;
  std::optional<std::string> takeLastCrashLogPath() override;
  plist::Value availableUpdateCount() const override;
  plist::Value availableUpdateCountLastUpdate() const override;
  void setAvailableUpdateCount(plist::Value count, plist::Value lastUpdate) override;
  void runOnMainThreadAndWait(const std::function<void()>& work) override;
  void setMenuBarItemShown(bool shown) override;

  // ---- parts, for the entry point and tests
  const operations::AgentBundle& bundle() const { return bundle_; }
  StatusItem& statusItem() { return *statusItem_; }
  ListeningEndpoint& listeningEndpoint() { return *endpoint_; }
  operations::ErrorChannel& errorChannel() { return errorChannel_; }
  operations::ApplicationCatalog& applications() { return applications_; }
  const operations::OperationTable& operationTable() const;
  // The object that the listening endpoint vends.
  plist::ObjectRef rootObject() const;
  Timer& timer() { return timer_; }
  WorkerPool& workers() { return workers_; }

  bool isQuitting() const { return isQuitting_; }
  bool isRelaunching() const { return isRelaunching_; }
  int requestedPort() const { return requestedPort_; }

private:
  // ---- ListeningEndpoint::Delegate
  void updateStatus(const std::string& status) override;
  void connectionDidDie() override;

  void forgetHostName();
  void announce();
  void publishService();
  void netServiceDidNotPublish(const plist::Dictionary& error);
  void observeNotifications();
  QVBugReporter::StampWriter stampWriter();
  void reconnectAfter(double seconds);
  void restartService();
  void setQuitting();

  class AdvertisementDelegate;

  Environment environment_;
  // Declared first, destroyed last; the destructor stops them before the members below go.
  Timer timer_;
  WorkerPool workers_;

  PreferenceFile preferences_;
  operations::AgentBundle bundle_;
  platform::Workspace workspace_;
  NotificationHub notifications_;
  ExceptionGuard guard_;
  operations::ErrorChannel errorChannel_;
  operations::CallbackRelay callbackRelay_;
  operations::CredentialThrottle credentials_;
  operations::ApplicationCatalog applications_;
  operations::AgentIcons icons_;
  std::unique_ptr<operations::AgentOperations> operations_;
  std::shared_ptr<operations::ControllerObject> rootObject_;
  std::unique_ptr<StatusItem> statusItem_;
  transport::NameRegistry registry_;
  std::unique_ptr<ListeningEndpoint> endpoint_;
  std::unique_ptr<CallbackEndpoint> callbackEndpoint_;
  std::unique_ptr<AdvertisementDelegate> advertisementDelegate_;
  std::unique_ptr<transport::ServiceAdvertisement> advertisement_;
  std::unique_ptr<SystemEvents> systemEvents_;
  std::vector<NotificationHub::Observation> observations_;

  std::atomic<bool> initialized_{false};
  std::atomic<bool> isQuitting_{false};
  std::atomic<bool> isRelaunching_{false};
  std::atomic<bool> willReconnect_{false};
  std::atomic<int> requestedPort_{0};

  mutable std::recursive_mutex serviceMutex_; // startService / stopService
  mutable std::mutex stateMutex_;             // guards the values below, replaced whole
  mutable std::optional<std::string> hostName_;
  std::optional<std::string> lastCrashLogPath_;
  plist::Value availableUpdateCount_;
  plist::Value availableUpdateCountLastUpdate_;
};

} // namespace kestrin
