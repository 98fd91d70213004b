#include <mutex>
#include <optional>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/NotificationCenter.h"
#include "platform/linux/DBusEventLoop.h"
#include "plist/PropertyList.h"

namespace kestrin::platform {

namespace {

constexpr const char* kObjectPath = "/com/quorvane/Kestrin/Notifications";
constexpr const char* kInterface = "com.quorvane.Kestrin.Notifications";
constexpr const char* kMember = "Notification";

// D-Bus match rules quote with single quotes and know no escape for them inside a value; a name
// with one cannot be matched by the bus, so it is filtered here instead.
bool matchable(const std::string& name) {
  return name.find('\'') == std::string::npos;
}

class DBusNotificationCenter final : public NotificationCenter {
public:
  DBusNotificationCenter(std::unique_ptr<sdbus::IConnection> connection, LostHandler lost)
      : connection_(std::move(connection)),
        object_(sdbus::createObject(*connection_, kObjectPath)) {
    object_->registerSignal(kMember)
        .onInterface(kInterface)
        .withParameters<std::string, std::vector<std::uint8_t>>();
    object_->finishRegistration();
    loop_.emplace(*connection_, std::move(lost));
  }

  // The loop ends first, so no handler runs while the matches and the object go.
  ~DBusNotificationCenter() override { loop_.reset(); }

  bool isConnected() const override { return loop_->running(); }

  void post(const std::string& name, const plist::Dictionary& userInfo) override {
    auto bytes = plist::toBinary(plist::Value(userInfo));
    if (!bytes) {
      return;
    }
    std::lock_guard lock(mutex_);
    try {
      object_->emitSignal(kMember).onInterface(kInterface).withArguments(name, *bytes);
    } catch (const sdbus::Error&) {
      // The bus went away: the loop has noticed, or notices at its next turn.
    }
  }

  Observation observe(const std::string& name, Handler handler) override {
    std::string rule =
        std::string("type='signal',interface='") + kInterface + "',member='" + kMember + "'";
    if (matchable(name)) {
      rule += ",arg0='" + name + "'";
    }
    auto deliver = [name, handler = std::move(handler)](sdbus::Message& message) {
      try {
        std::string posted;
        std::vector<std::uint8_t> bytes;
        message >> posted >> bytes;
        if (posted != name) {
          return;
        }
        auto info = plist::parse(bytes);
        handler(info && info->asDictionary() ? *info->asDictionary() : plist::Dictionary());
      } catch (const sdbus::Error&) {
        // A signal of our name with other arguments: not one of ours.
      }
    };
    std::lock_guard lock(mutex_);
    try {
      auto slot = connection_->addMatch(rule, std::move(deliver));
      return Observation(std::shared_ptr<void>(slot.release(), slot.get_deleter()));
    } catch (const sdbus::Error&) {
      return Observation();
    }
  }

private:
  std::mutex mutex_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IObject> object_;
  std::optional<DBusEventLoop> loop_;
};

} // namespace

Expected<std::unique_ptr<NotificationCenter>>
NotificationCenter::connectSessionBus(LostHandler lost) {
  try {
    return std::unique_ptr<NotificationCenter>(std::make_unique<DBusNotificationCenter>(
        sdbus::createSessionBusConnection(), std::move(lost)));
  } catch (const sdbus::Error& e) {
    return Failure{"no session bus: " + e.getMessage()};
  }
}

} // namespace kestrin::platform
