#include "platform/NotificationCenter.h"

#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "fixtures/PrivateBus.h"

namespace kestrin::platform {
namespace {

using namespace std::chrono_literals;

// Collects what one observer receives.
struct Inbox {
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<plist::Dictionary> received;

  NotificationCenter::Handler handler() {
    return [this](const plist::Dictionary& info) {
      std::lock_guard lock(mutex);
      received.push_back(info);
      arrived.notify_all();
    };
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds limit = 5s) {
    std::unique_lock lock(mutex);
    return arrived.wait_for(lock, limit, [&] { return received.size() >= count; });
  }
};

class NotificationCenterTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(bus.running());
    auto a = NotificationCenter::connectSessionBus();
    auto b = NotificationCenter::connectSessionBus();
    ASSERT_TRUE(a.ok() && b.ok()) << (a.ok() ? b.message() : a.message());
    poster = std::move(*a);
    listener = std::move(*b);
  }

  testing::PrivateBus bus{testing::PrivateBus::Kind::Session};
  std::unique_ptr<NotificationCenter> poster;
  std::unique_ptr<NotificationCenter> listener;
};

TEST_F(NotificationCenterTest, ObserversOfANameReceiveItsUserInformationInEveryProcess) {
  Inbox elsewhere, own, other;
  auto a = listener->observe("QVKestrinDisconnect", elsewhere.handler());
  auto b = poster->observe("QVKestrinDisconnect", own.handler());
  auto c = listener->observe("QVKestrinStatusUpdate", other.handler());

  plist::Dictionary info{{"excluded_pid", 4242},
                         {"nested", plist::Dictionary{{"list", plist::Array{1, "two"}}}}};
  poster->post("QVKestrinDisconnect", info);
  ASSERT_TRUE(elsewhere.waitFor(1));
  ASSERT_TRUE(own.waitFor(1)); // the poster hears itself
  EXPECT_EQ(elsewhere.received[0], info);
  EXPECT_FALSE(other.waitFor(1, 200ms));
}

TEST_F(NotificationCenterTest, LargePayloadsArriveWholeAndDroppedObservationsStop) {
  Inbox inbox;
  auto observation = listener->observe("QVAmbrantTaskError", inbox.handler());
  plist::Dictionary big{{"errorString", std::string(100'000, 'x')}};
  poster->post("QVAmbrantTaskError", big);
  ASSERT_TRUE(inbox.waitFor(1));
  EXPECT_EQ(inbox.received[0], big);

  observation = {};
  poster->post("QVAmbrantTaskError", big);
  EXPECT_FALSE(inbox.waitFor(2, 300ms));
}

TEST(NotificationCenterWithoutBus, ConnectingFailsWithAReason) {
  const char* saved = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  std::string keep = saved ? saved : "";
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  auto center = NotificationCenter::connectSessionBus();
  EXPECT_FALSE(center.ok());
  if (saved) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", keep.c_str(), 1);
  } else {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
}

} // namespace
} // namespace kestrin::platform
