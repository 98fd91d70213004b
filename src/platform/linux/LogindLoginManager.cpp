#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>

#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include "platform/LoginManager.h"
#include "platform/linux/DBusEventLoop.h"

namespace kestrin::platform {

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kSession = "org.freedesktop.login1.Session";
constexpr const char* kSessionPaths = "/org/freedesktop/login1/session";
constexpr const char* kBusDriver = "org.freedesktop.DBus";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
// A lost or wedged login manager must not hold the bus's thread for long.
constexpr std::chrono::seconds kCallTimeout{5};

// The object path of the agent's session: the one it runs in or, for a service of the user's
// outside every session, the user's graphical one. Empty when there is neither.
std::string ownSessionPath() {
  char* id = nullptr;
  if (sd_pid_get_session(0, &id) < 0 && sd_uid_get_display(::getuid(), &id) < 0) {
    return {};
  }
  char* path = nullptr;
  int encoded = sd_bus_path_encode(kSessionPaths, id, &path);
  std::free(id);
  if (encoded < 0) {
    return {};
  }
  std::string result(path);
  std::free(path);
  return result;
}

class LogindLoginManager final : public LoginManager {
public:
  LogindLoginManager(std::unique_ptr<sdbus::IConnection> connection, Delegate& delegate)
      : connection_(std::move(connection)), delegate_(delegate),
        manager_(sdbus::createProxy(*connection_, kLogind, kManagerPath)),
        driver_(sdbus::createProxy(*connection_, kBusDriver, "/org/freedesktop/DBus")) {
    // Following the owner starts before asking for it, so no change falls in between.
    matches_.push_back(
        connection_->addMatch(std::string("type='signal',sender='") + kBusDriver + "',interface='" +
                                  kBusDriver + "',member='NameOwnerChanged',arg0='" + kLogind + "'",
                              [this](sdbus::Message& message) { nameOwnerChanged(message); }));
    matches_.push_back(
        connection_->addMatch(managerRule("PrepareForSleep"), [this](sdbus::Message& message) {
          if (std::optional<bool> starting = fromLogind<bool>(message)) {
            delegate_.prepareForSleep(*starting);
          }
        }));
    matches_.push_back(
        connection_->addMatch(managerRule("PrepareForShutdown"), [this](sdbus::Message& message) {
          if (std::optional<bool> starting = fromLogind<bool>(message)) {
            delegate_.prepareForShutdown(*starting);
          }
        }));
    matches_.push_back(connection_->addMatch(
        std::string("type='signal',sender='") + kLogind + "',interface='" + kProperties +
            "',member='PropertiesChanged',path_namespace='" + kSessionPaths + "',arg0='" +
            kSession + "'",
        [this](sdbus::Message& message) { sessionPropertiesChanged(message); }));

    try {
      std::string owner;
      driver_->callMethod("GetNameOwner")
          .onInterface(kBusDriver)
          .withTimeout(kCallTimeout)
          .withArguments(std::string(kLogind))
          .storeResultsTo(owner);
      loginManagerAppeared(owner);
    } catch (const sdbus::Error&) {
      // No login manager yet: its arrival is a NameOwnerChanged like any other.
    }
    loop_.emplace(*connection_, [this](const std::string& reason) {
      releaseDelayLock();
      delegate_.loginManagerLost(reason);
    });
  }

  bool loginManagerPresent() const override {
    std::lock_guard lock(mutex_);
    return !owner_.empty();
  }

  Expected<void> takeDelayLock() override {
    if (holdsDelayLock()) {
      return {};
    }
    if (!loginManagerPresent()) {
      return Failure{"no login manager"};
    }
    try {
      sdbus::UnixFd fd;
      manager_->callMethod("Inhibit")
          .onInterface(kManager)
          .withTimeout(kCallTimeout)
          .withArguments(std::string("sleep:shutdown"), std::string("Kestrin"),
                         std::string("Stopping the maintenance service"), std::string("delay"))
          .storeResultsTo(fd);
      // The received descriptor is a duplicate without close-on-exec: a program the agent
      // starts must never hold sleep back.
      ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
      std::lock_guard lock(mutex_);
      lock_ = std::move(fd);
      return {};
    } catch (const sdbus::Error& e) {
      return Failure{e.getName() + ": " + e.getMessage()};
    }
  }

  void releaseDelayLock() override {
    sdbus::UnixFd released;
    std::lock_guard lock(mutex_);
    released = std::move(lock_); // closed when this returns
  }

  bool holdsDelayLock() const override {
    std::lock_guard lock(mutex_);
    return lock_.isValid();
  }

private:
  static std::string managerRule(const char* member) {
    return std::string("type='signal',sender='") + kLogind + "',path='" + kManagerPath +
           "',interface='" + kManager + "',member='" + member + "'";
  }

  // A broadcast from another connection never matches the rules above, but a signal sent to
  // this connection alone is delivered whatever its sender: only the name's owner counts.
  bool sentByLogind(const sdbus::Message& message) const {
    std::lock_guard lock(mutex_);
    return !owner_.empty() && message.getSender() == owner_;
  }

  template <typename T> std::optional<T> fromLogind(sdbus::Message& message) const {
    if (!sentByLogind(message)) {
      return std::nullopt;
    }
    try {
      T value{};
      message >> value;
      return value;
    } catch (const sdbus::Error&) {
      return std::nullopt; // the member's name with other arguments
    }
  }

  void nameOwnerChanged(sdbus::Message& message) {
    if (message.getSender() != kBusDriver) {
      return; // only the bus itself says who owns a name
    }
    std::string name, oldOwner, newOwner;
    try {
      message >> name >> oldOwner >> newOwner;
    } catch (const sdbus::Error&) {
      return;
    }
    if (name != kLogind) {
      return;
    }
    // A restarted login manager knows nothing of the old lock.
    releaseDelayLock();
    {
      std::lock_guard lock(mutex_);
      owner_.clear();
    }
    if (!newOwner.empty()) {
      loginManagerAppeared(newOwner);
    }
  }

  void loginManagerAppeared(const std::string& owner) {
    {
      std::lock_guard lock(mutex_);
      owner_ = owner;
    }
    (void)takeDelayLock(); // refused: sleep and shutdown simply do not wait for the agent
  }

  void sessionPropertiesChanged(sdbus::Message& message) {
    if (!sentByLogind(message)) {
      return;
    }
    std::string interface;
    std::map<std::string, sdbus::Variant> changed;
    std::vector<std::string> invalidated;
    try {
      message >> interface >> changed >> invalidated;
    } catch (const sdbus::Error&) {
      return;
    }
    auto active = changed.find("Active");
    if (interface != kSession || active == changed.end()) {
      return;
    }
    // Looked up each time: the user may have logged in anew since the last change.
    if (message.getPath() != ownSessionPath()) {
      return;
    }
    try {
      delegate_.sessionActiveChanged(active->second.get<bool>());
    } catch (const sdbus::Error&) {
      // "Active" of another type: not the login manager's.
    }
  }

  std::unique_ptr<sdbus::IConnection> connection_;
  Delegate& delegate_;
  std::unique_ptr<sdbus::IProxy> manager_;
  std::unique_ptr<sdbus::IProxy> driver_;
  std::vector<sdbus::Slot> matches_;

  mutable std::mutex mutex_;
  std::string owner_; // unique name owning the login manager's name, empty when none
  sdbus::UnixFd lock_;

  // Last: it starts once everything above exists and, destroyed first, ends before any goes.
  std::optional<DBusEventLoop> loop_;
};

} // namespace

Expected<std::unique_ptr<LoginManager>> LoginManager::connectSystemBus(Delegate& delegate) {
  try {
    return std::unique_ptr<LoginManager>(
        std::make_unique<LogindLoginManager>(sdbus::createSystemBusConnection(), delegate));
  } catch (const sdbus::Error& e) {
    return Failure{"no system bus: " + e.getMessage()};
  }
}

} // namespace kestrin::platform
