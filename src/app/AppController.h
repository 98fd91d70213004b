#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/ErrorChannel.h"
#include "app/ExceptionGuard.h"
#include "app/PreferenceFile.h"
#include "foundation/QVBugReporter.h"
#include "platform/NotificationCenter.h"
#include "plist/Value.h"

namespace kestrin {

class MainLoop;
class QVLocalPaths;

// The agent's one controller and the root object it vends. It owns the agent's state and its
// lifecycle; the work of each remote operation lives in its operation group, which the
// controller calls.
//
// Threads: init() and the signal path run on the main thread; remote operations and start-up
// work run on worker threads. Flags are atomics; startService/stopService exclude each other.
class AppController {
  friend class EndpointDelegate;

public:
  static constexpr const char* kBundleIdentifier = "com.quorvane.Kestrin";
  static constexpr const char* kApplicationName = "Kestrin";
  static constexpr const char* kPreferenceFileName = "com.quorvane.Kestrin.plist";

  struct Environment {
    const QVLocalPaths& paths;
    MainLoop& mainLoop;
    // The agent's bundle (Kestrin.app). Resolved by the caller so that tests can point the
    // controller at a throwaway bundle.
    std::optional<std::string> bundlePath;
  };

  explicit AppController(Environment environment);
  // Joins the start-up threads it detached.
  ~AppController();
  AppController(const AppController&) = delete;
  AppController& operator=(const AppController&) = delete;

  // The whole start-up, in order. Answers false when the controller could not be set up.
  bool init();

  // ---- service
  void startService();
  void stopService();
  void loadSettings();

  // ---- ending
  void disconnect();
  // Handler of the "QVKestrinDisconnect" notification: quits unless "excluded_pid" is ours.
  void disconnect(const plist::Dictionary& userInfo);
  void relaunch();
  void disconnectAllOtherInstances();
  void killAllOtherInstances() {} // deliberately empty hook
  // The orderly stop for SIGTERM and SIGINT: stop the service, flush the log.
  void terminate(int signal);

  // ---- settings and bundle information
  plist::Value objectForPreferenceDictionaryKey(std::string_view key) const;
  void setObjectForPreferenceDictionaryKey(const plist::Value& value, const std::string& key);
  plist::Value objectForInfoDictionaryKey(std::string_view key) const;
  std::string clientVersion() const;
  std::string clientVersionString() const;
  const std::optional<std::string>& bundlePath() const { return environment_.bundlePath; }
  std::string preferenceFilePath() const { return preferences_.path(); }

  // The listening port that the settings ask for: "customPort" when "customPortSet" is 1 and
  // the port lies in 1025..65535, otherwise 0 (the endpoint's own default).
  static int listeningPortFromPreferences(const plist::Value& customPortSet,
                                          const plist::Value& customPort);

  // ---- status, status item and maintenance requests
  void updateStatus(const std::string& status);
  std::string statusString() const;
  // Broadcasts the status as "QVKestrinStatusUpdate".
  void notifyCurrentStatus();
  // There is no status bar to show an item in: the item is never created, while the log
  // lines, flags and callbacks of its actions still happen.
  void showMenuBarItem() {}
  void hideMenuBarItem();
  void setStatusBarConnected() {}
  void setStatusBarDisconnected() {}
  void sendMaintenanceRequest();
  void cancelMaintenanceRequest();
  void enableMaintenance();
  void disableMaintenance();
  bool maintenanceRequested() const { return maintenanceRequested_; }
  // Loads the status-item and service images from the bundle's Resources into iconDict.
  void setupIconDict();
  // The images by role ("normal", "highlight", "maintenance", "disconnected",
  // "smallServiceIcon", "largeServiceIcon"), or null until setupIconDict has run.
  plist::Value iconDict() const;

  // ---- distributed notifications
  // Connects to the session bus; without one, notifications are off (logged once).
  void connectNotificationCenter();
  // Subscribes the handlers of every notification the agent observes.
  void observeNotifications();
  void postNotification(const std::string& name, const plist::Dictionary& userInfo);

  // ---- remote service: the listening endpoint
  void startVendingOnPort(int port);
  void stopVending();
  void connectionDidDie();
  // Every connection is accepted unless the "allowedAdminAddresses" preference lists the
  // addresses that may connect.
  bool shouldMakeNewConnection(const std::string& peerAddress);
  int listenPortNumber() const;
  std::optional<std::string> pdoName() const;
  // "Kestrin - <host>" cut to 63 characters, as names are registered.
  static std::string registeredName(const std::string& name);

  // ---- advertisement
  void publishService();
  void netServiceDidNotPublish(const plist::Dictionary& error);

  // ---- the machine-local callback endpoint
  static constexpr const char* kCallbackName = "QVKestrinCallback";
  void startCallbackVending();
  void stopCallbackVending();
  void reconnectCallbackWithTimeInterval(double seconds);
  // The one-shot relay: the next notification of that name goes to the record's
  // postCallback:, once. A second relay replaces the first record.
  void setupCallbackListener(const plist::ObjectRef& callback, const std::string& name);
  void executeCallback(const std::string& name, const plist::Dictionary& userInfo);

  // The object that the listening endpoint vends.
  plist::ObjectRef rootObject() { return rootObject_; }
  ErrorChannel& errorChannel() { return errorChannel_; }
  const ExceptionGuard& exceptionGuard() const { return exceptionGuard_; }
  // Schedules one restart of the whole service after the interval; does nothing while one is
  // pending.
  void reconnectWithTimeInterval(double seconds);
  // The agent's name for itself ("name.local."), the first argument of most events. Resolved
  // once per start of the service: a renamed machine is seen after the next restart.
  std::string hostName() const;
  void forgetHostName();
  bool isConnected() const { return isConnected_; }

  // ---- the maker's applications found at start-up
  // Scans the Applications folder for the maker's applications and stores the list.
  void populateQVApps();
  void setQVApps(std::vector<std::string> paths);
  bool qvAppsPopulated() const;
  // The list, once the scan has finished or `wait` has passed (whatever there is then).
  std::vector<std::string> qvApps(std::chrono::milliseconds wait);
  const QVLocalPaths& paths() const { return environment_.paths; }

  // The crash report of the previous run, once: the configuration reports it a single time.
  std::optional<std::string> takeLastCrashLogPath();

  // ---- state that other parts read
  bool isQuitting() const { return isQuitting_; }
  bool isRelaunching() const { return isRelaunching_; }
  int requestedPort() const { return requestedPort_; }
  plist::Value availableUpdateCount() const;
  plist::Value availableUpdateCountLastUpdate() const;

private:
  QVBugReporter::StampWriter stampWriter();
  // Starts fn on a thread of its own; the destructor joins it.
  void startThread(std::function<void()> fn);
  void reconnectOnThread(double seconds);
  // Sleeps for the interval or until the agent starts quitting. Answers false when quitting.
  bool sleepUnlessQuitting(double seconds);

  Environment environment_;
  PreferenceFile preferences_;

  std::atomic<bool> initialized_{false};
  std::atomic<bool> maintenanceRequested_{false};
  std::atomic<bool> isQuitting_{false};
  std::atomic<bool> isConnected_{false};
  std::atomic<bool> isRelaunching_{false};
  std::atomic<bool> willReconnect_{false};
  std::atomic<int> requestedPort_{0};

  mutable std::mutex stateMutex_; // guards the values below, replaced whole
  std::string statusString_;
  std::optional<std::string> lastCrashLogPath_;
  std::vector<std::string> qvAppArray_;
  bool qvAppsPopulated_ = false;
  std::condition_variable qvAppsChanged_;
  plist::Value availableUpdateCount_;
  plist::Value availableUpdateCountLastUpdate_;
  plist::Value iconDict_;

  mutable std::mutex hostNameMutex_;
  mutable std::optional<std::string> hostName_; // under hostNameMutex_

  mutable std::recursive_mutex serviceMutex_; // startService / stopService

  std::mutex threadsMutex_;
  std::vector<std::thread> threads_;

  std::mutex quitMutex_;
  std::condition_variable quitCondition_;

  ExceptionGuard exceptionGuard_;
  ErrorChannel errorChannel_;
  plist::ObjectRef rootObject_;

  struct ServiceState;
  std::unique_ptr<ServiceState> service_; // under serviceMutex_

  std::unique_ptr<platform::NotificationCenter> notificationCenter_;
  std::vector<platform::NotificationCenter::Observation> observations_;
  std::mutex relayMutex_;
  plist::ObjectRef theCallback_;                                            // under relayMutex_
  std::map<std::string, platform::NotificationCenter::Observation> relays_; // under relayMutex_
};

} // namespace kestrin
