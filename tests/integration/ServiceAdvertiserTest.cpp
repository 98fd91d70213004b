// Runs inside tests/scripts/with-avahi-netns: a network namespace with only its loopback
// interface and an avahi-daemon of its own, which these tests stop and start at will.

#include "platform/ServiceAdvertiser.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/ThrowawayMachine.h"
#include "platform/ServiceBrowser.h"
#include "transport/ServiceAdvertisement.h"

namespace kestrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::eventually;

constexpr const char* kType = "_kestrin._tcp.";

int shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str());
}

void stopResponder() {
  shell("avahi-daemon -k");
  ASSERT_TRUE(eventually([] { return shell("avahi-daemon --check") != 0; }, 10s));
}

void startResponder() {
  const char* config = std::getenv("KESTRIN_AVAHI_CONFIG");
  ASSERT_NE(config, nullptr) << "run this program through tests/scripts/with-avahi-netns";
  ASSERT_EQ(shell(std::string("avahi-daemon --no-drop-root --no-chroot -D -f ") + config), 0);
  ASSERT_TRUE(eventually([] { return shell("avahi-daemon --check") == 0; }, 10s));
}

class RecordingListener : public ServiceAdvertiser::Listener {
public:
  void didPublish(const std::string& name) override {
    std::lock_guard lock(mutex_);
    published_.push_back(name);
  }
  void didNotPublish(const plist::Dictionary& error) override {
    std::lock_guard lock(mutex_);
    errors_.push_back(error);
  }
  void daemonUnavailable(const std::string&) override {
    std::lock_guard lock(mutex_);
    ++absences_;
  }
  std::vector<std::string> published() const {
    std::lock_guard lock(mutex_);
    return published_;
  }
  std::vector<plist::Dictionary> errors() const {
    std::lock_guard lock(mutex_);
    return errors_;
  }
  int absences() const {
    std::lock_guard lock(mutex_);
    return absences_;
  }

private:
  mutable std::mutex mutex_;
  std::vector<std::string> published_;
  std::vector<plist::Dictionary> errors_;
  int absences_ = 0;
};

std::optional<FoundService> find(const std::string& name, std::chrono::milliseconds limit = 2s) {
  auto found = browseServices(kType, limit);
  if (!found) {
    return std::nullopt;
  }
  for (const FoundService& service : *found) {
    if (service.name == name) {
      return service;
    }
  }
  return std::nullopt;
}

// The TXT strings of "<instance>._kestrin._tcp.local" as the responder sends them, asked by a
// one-shot (legacy unicast) query, so the order on the wire is seen without Avahi's lists.
std::vector<std::string> txtOnTheWire(const std::string& instance) {
  std::string query("\x12\x34\0\0\0\x01\0\0\0\0\0\0", 12);
  for (const std::string& label :
       {instance, std::string("_kestrin"), std::string("_tcp"), std::string("local")}) {
    query += static_cast<char>(label.size()) + label;
  }
  query += std::string("\0\0\x10\0\x01", 5); // TXT, class IN
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  timeval limit{2, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in responder{};
  responder.sin_family = AF_INET;
  responder.sin_port = htons(5353);
  responder.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::sendto(fd, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&responder),
           sizeof responder);
  unsigned char reply[9000];
  ssize_t size = ::recv(fd, reply, sizeof reply, 0);
  ::close(fd);
  std::vector<std::string> strings;
  auto skipName = [&](std::size_t at) {
    while (at < static_cast<std::size_t>(size) && reply[at] != 0) {
      if ((reply[at] & 0xc0) == 0xc0) {
        return at + 2;
      }
      at += 1 + reply[at];
    }
    return at + 1;
  };
  if (size < 12 || reply[7] == 0) {
    return strings; // no answer
  }
  std::size_t at = 12;
  for (int question = 0; question < reply[5]; ++question) {
    at = skipName(at) + 4;
  }
  at = skipName(at) + 8; // type, class, TTL
  std::size_t end = at + 2 + (reply[at] << 8 | reply[at + 1]);
  for (at += 2; at < end && end <= static_cast<std::size_t>(size); at += 1 + reply[at]) {
    strings.emplace_back(reinterpret_cast<const char*>(reply + at + 1), reply[at]);
  }
  return strings;
}

ServiceAdvertiser::Registration registration(const std::string& name, int port,
                                             std::variant<TxtPairs, TxtRecord> txt = {}) {
  return {kType, name, port, "", std::move(txt)};
}

class ServiceAdvertiserTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (shell("avahi-daemon --check") != 0) {
      startResponder(); // an earlier test may have left it stopped by failing halfway
    }
  }
};

TEST_F(ServiceAdvertiserTest, APublishedServiceIsFoundWithItsTxtEntries) {
  RecordingListener listener;
  auto advertiser = ServiceAdvertiser::create(listener);
  advertiser->publish(registration("Kestrin found", 4101,
                                   TxtPairs{{"model", "Box1,1"}, {"name", "Kestrin - a.local."}}));
  ASSERT_TRUE(eventually([&] { return !listener.published().empty(); }, 10s));
  EXPECT_EQ(listener.published().front(), "Kestrin found");

  auto service = find("Kestrin found");
  ASSERT_TRUE(service);
  EXPECT_EQ(service->port, 4101);
  EXPECT_EQ(service->address, "127.0.0.1");
  EXPECT_EQ(service->txt, (TxtPairs{{"model", "Box1,1"}, {"name", "Kestrin - a.local."}}));
  EXPECT_EQ(txtOnTheWire("Kestrin found"),
            (std::vector<std::string>{"model=Box1,1", "name=Kestrin - a.local."}));
  EXPECT_TRUE(listener.errors().empty());

  advertiser->stop();
  EXPECT_TRUE(eventually([] { return !find("Kestrin found", 1s); }, 10s));
}

TEST_F(ServiceAdvertiserTest, ASecondPublicationUnderTheSameNameIsRefused) {
  RecordingListener first;
  RecordingListener second;
  auto holder = ServiceAdvertiser::create(first);
  holder->publish(registration("Kestrin twice", 4102));
  ASSERT_TRUE(eventually([&] { return !first.published().empty(); }, 10s));

  auto latecomer = ServiceAdvertiser::create(second);
  latecomer->publish(registration("Kestrin twice", 4103));
  ASSERT_TRUE(eventually([&] { return !second.errors().empty(); }, 10s));
  const plist::Dictionary error = second.errors().front();
  EXPECT_EQ(*error.find("NSNetServicesErrorCode"), plist::Value(-8)); // local collision
  EXPECT_TRUE(error.find("reason")->asString());
  EXPECT_TRUE(second.published().empty());
  EXPECT_TRUE(first.errors().empty());
}

TEST_F(ServiceAdvertiserTest, ARestartedResponderGetsTheRegistrationAgain) {
  RecordingListener listener;
  auto advertiser = ServiceAdvertiser::create(listener);
  advertiser->publish(registration("Kestrin again", 4105));
  ASSERT_TRUE(eventually([&] { return listener.published().size() == 1; }, 10s));

  stopResponder();
  startResponder();
  ASSERT_TRUE(eventually([&] { return listener.published().size() == 2; }, 20s));
  EXPECT_TRUE(find("Kestrin again"));
  EXPECT_TRUE(listener.errors().empty());
}

TEST_F(ServiceAdvertiserTest, AnInterfaceBoundRegistrationCarriesItsRawRecordOnlyThere) {
  RecordingListener listener;
  auto advertiser = ServiceAdvertiser::create(listener);
  auto onLoopback = registration("Kestrin on lo", 4106,
                                 TxtRecord{std::string("\x0cip=127.0.0.1") + "\x06name=x"});
  onLoopback.interfaceName = "lo";
  advertiser->publish(onLoopback);
  ASSERT_TRUE(eventually([&] { return !listener.published().empty(); }, 10s));
  auto service = find("Kestrin on lo");
  ASSERT_TRUE(service);
  EXPECT_EQ(service->txt, (TxtPairs{{"ip", "127.0.0.1"}, {"name", "x"}}));
  // The hand-built record goes out byte for byte.
  EXPECT_EQ(txtOnTheWire("Kestrin on lo"), (std::vector<std::string>{"ip=127.0.0.1", "name=x"}));

  // An interface that does not exist: nothing goes out, and that is no failure either.
  RecordingListener nowhereListener;
  auto nowhere = ServiceAdvertiser::create(nowhereListener);
  auto unknown = registration("Kestrin nowhere", 4107);
  unknown.interfaceName = "nosuch0";
  nowhere->publish(unknown);
  EXPECT_FALSE(find("Kestrin nowhere", 3s));
  EXPECT_TRUE(nowhereListener.published().empty());
  EXPECT_TRUE(nowhereListener.errors().empty());

  // A malformed record is a refused registration.
  auto truncated = registration("Kestrin truncated", 4108,
                                TxtRecord{"\x09"
                                          "ip=1"});
  nowhere->publish(truncated);
  EXPECT_TRUE(eventually([&] { return !nowhereListener.errors().empty(); }, 10s));
}

TEST(LoopbackProfile, TheLoopbackMacLeadsToItsAddressAndName) {
  // Inside the namespace lo is the only interface, so the lookup has one answer.
  testing::ThrowawayMachine machine;
  auto found = transport::networkInterfaceWithMACAddress("00:00:00:00:00:00");
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, (plist::Dictionary{{"name", "Loopback - lo"},
                                       {"macAddress", "00:00:00:00:00:00"},
                                       {"ip4Address", "127.0.0.1"},
                                       {"bsdName", "lo"}}));
}

} // namespace
} // namespace kestrin::platform
