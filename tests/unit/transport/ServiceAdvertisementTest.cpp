#include "transport/ServiceAdvertisement.h"

#include <mutex>

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"
#include "transport/HostIdentity.h"

namespace kestrin::transport {
namespace {

using platform::ServiceAdvertiser;
using plist::Value;
using testing::ThrowawayMachine;

// The daemon seam: keeps what was published and lets a test speak as the responder.
class FakeAdvertiser : public ServiceAdvertiser {
public:
  struct Record {
    std::vector<Registration> published;
    int stops = 0;
    ServiceAdvertiser::Listener* listener = nullptr;
  };
  FakeAdvertiser(Record& record, Listener& listener) : record_(record) {
    record_.listener = &listener;
  }
  void publish(const Registration& registration) override {
    record_.published.push_back(registration);
  }
  void stop() override { ++record_.stops; }

private:
  Record& record_;
};

class RecordingDelegate : public ServiceAdvertisement::Delegate {
public:
  void netServiceDidNotPublish(const plist::Dictionary& error) override { errors.push_back(error); }
  std::vector<plist::Dictionary> errors;
};

class ServiceAdvertisementTest : public ::testing::Test {
protected:
  ThrowawayMachine machine;
  RecordingDelegate delegate;
  FakeAdvertiser::Record record;
  int advertisersMade = 0;
  ServiceAdvertisement advertisement{delegate, [this](ServiceAdvertiser::Listener& listener) {
                                       ++advertisersMade;
                                       return std::make_unique<FakeAdvertiser>(record, listener);
                                     }};
};

TEST(AdvertisedPort, OnlyPortsAbove1024AreAdvertisedAsTheyAre) {
  for (int port : {0, 80, 1024, 65536, -1}) {
    EXPECT_EQ(ServiceAdvertisement::advertisedPort(port), 35011) << port;
  }
  EXPECT_EQ(ServiceAdvertisement::advertisedPort(1025), 1025);
  EXPECT_EQ(ServiceAdvertisement::advertisedPort(65535), 65535);
}

TEST(TxtRecord, EntriesAreLengthPrefixedInDictionaryOrderAndOnlyKnownKeysAppear) {
  plist::Dictionary txt =
      ServiceAdvertisement::txtDictionary("Workstation", std::nullopt, "Kestrin - edit-3.local.");
  EXPECT_EQ(txt.keys(), (std::vector<std::string>{"model", "name"}));
  EXPECT_EQ(ServiceAdvertisement::txtDictionary("m", "10.0.0.7", "n").keys(),
            (std::vector<std::string>{"model", "ip", "name"}));

  EXPECT_EQ(ServiceAdvertisement::txtRecord(txt),
            std::string("\x11model=Workstation") + "\x1cname=Kestrin - edit-3.local.");
  // Numbers and booleans go in by their string values; anything else is left out.
  EXPECT_EQ(ServiceAdvertisement::txtRecord({{"n", 7},
                                             {"list", plist::Array{"x"}},
                                             {"on", true},
                                             {"nothing", Value()},
                                             {"when", plist::Date{}}}),
            "\x03n=7\x04on=1");
  EXPECT_EQ(ServiceAdvertisement::txtRecord({}), std::string(1, '\0'));
  EXPECT_EQ(ServiceAdvertisement::txtRecord({{"list", plist::Array{}}}), std::string(1, '\0'));
  // The hand-built record is what the responder reads back as entries.
  auto entries = platform::txtEntries(ServiceAdvertisement::txtRecord(txt));
  ASSERT_TRUE(entries);
  EXPECT_EQ(*entries,
            (std::vector<std::string>{"model=Workstation", "name=Kestrin - edit-3.local."}));
}

TEST_F(ServiceAdvertisementTest, AnyInterfacePublishesPairsAndReportsFailures) {
  advertisement.publishService(
      {80, std::nullopt, std::nullopt, "Kestrin - a.local.", "Box", std::string(64, 'f')});
  ASSERT_EQ(record.published.size(), 1u);
  const auto& published = record.published[0];
  EXPECT_EQ(published.type, "_kestrin._tcp.");
  EXPECT_EQ(published.port, 35011);
  EXPECT_EQ(published.name, ""); // the responder uses the host's name
  EXPECT_EQ(published.interfaceName, "");
  EXPECT_EQ(std::get<platform::TxtPairs>(published.txt),
            (platform::TxtPairs{
                {"model", "Box"}, {"name", "Kestrin - a.local."}, {"fp", std::string(64, 'f')}}));
  std::string log = machine.logText();
  EXPECT_NE(log.find("Broadcasting on any interface."), std::string::npos);
  EXPECT_NE(log.find("Publishing..."), std::string::npos);

  record.listener->didNotPublish({{"NSNetServicesErrorCode", -8}});
  ASSERT_EQ(delegate.errors.size(), 1u);
  EXPECT_EQ(*delegate.errors[0].find("NSNetServicesErrorCode"), Value(-8));
}

TEST_F(ServiceAdvertisementTest, InterfaceBoundPublishesTheHandBuiltRecordAndStaysSilentOnFailure) {
  advertisement.publishService(
      {4000, "10.0.0.7", "eth1", "Kestrin - a.local.", std::nullopt, std::nullopt});
  ASSERT_EQ(record.published.size(), 1u);
  const auto& published = record.published[0];
  EXPECT_EQ(published.port, 4000);
  EXPECT_EQ(published.interfaceName, "eth1");
  EXPECT_EQ(std::get<platform::TxtRecord>(published.txt).bytes,
            std::string("\x0bip=10.0.0.7") + "\x17name=Kestrin - a.local.");
  std::string log = machine.logText();
  EXPECT_NE(log.find("Broadcasting on interface eth1."), std::string::npos);
  EXPECT_EQ(log.find("Publishing..."), std::string::npos);

  record.listener->didNotPublish({{"NSNetServicesErrorCode", -8}});
  EXPECT_TRUE(delegate.errors.empty());

  // Back to any interface: failures count again, and the same advertiser is reused.
  advertisement.publishService({4000, "10.0.0.7", "", "n", std::nullopt, std::nullopt});
  EXPECT_EQ(record.published.back().interfaceName, "");
  record.listener->didNotPublish({{"NSNetServicesErrorCode", -6}});
  EXPECT_EQ(delegate.errors.size(), 1u);
  EXPECT_EQ(advertisersMade, 1);
}

TEST_F(ServiceAdvertisementTest, AnAbsentResponderIsLoggedOncePerAbsenceAndIsNoFailure) {
  advertisement.publishService({});
  record.listener->daemonUnavailable("the DNS-SD responder is not running");
  record.listener->daemonUnavailable("the DNS-SD responder is not running");
  EXPECT_TRUE(delegate.errors.empty());
  std::string log = machine.logText();
  std::string line = "DNS-SD is unavailable (the DNS-SD responder is not running)";
  auto first = log.find(line);
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find(line, first + 1), std::string::npos);
  // Once the service went out, a responder that goes away again is logged again.
  record.listener->didPublish("host");
  record.listener->daemonUnavailable("the DNS-SD responder is not running");
  log = machine.logText();
  EXPECT_NE(log.find(line, first + 1), std::string::npos);

  advertisement.stop();
  EXPECT_EQ(record.stops, 1);
}

class InterfaceLookupTest : public ::testing::Test {
protected:
  static Value item(const char* name, const char* interface, const char* mac,
                    plist::Array addresses) {
    plist::Dictionary item{{"_name", name},
                           {"Ethernet", plist::Dictionary{{"MAC Address", mac}}},
                           {"ip_address", std::move(addresses)}};
    if (interface != nullptr) {
      item.set("interface", interface);
    }
    return item;
  }
  static NetworkProfileSource profile(plist::Array items) {
    return [items] {
      return std::optional<Value>(
          plist::Array{plist::Dictionary{{"_dataType", "SPNetworkDataType"}, {"_items", items}}});
    };
  }
  static NetworkProfileSource fixed(std::optional<Value> value) {
    return [value] { return value; };
  }

  ThrowawayMachine machine;
};

TEST_F(InterfaceLookupTest, TheFirstItemWithTheExactMacAndAnIPv4AddressWins) {
  const char* mac = "00:11:22:33:44:55";
  auto found = networkInterfaceWithMACAddress(
      mac, profile({item("Ethernet", "en0", mac, {"fe80::1"}), // no IPv4: skipped
                    item("Ethernet 2", "en1", mac, {"fe80::2", "10.0.0.7", "10.0.0.8"}),
                    item("Ethernet 3", "en2", mac, {"10.0.0.9"})}));
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, (plist::Dictionary{{"name", "Ethernet 2 - en1"},
                                       {"macAddress", mac},
                                       {"ip4Address", "10.0.0.7"},
                                       {"bsdName", "en1"}}));

  // Without an interface name: the display name alone and no bsdName.
  found = networkInterfaceWithMACAddress(mac, profile({item("Wi-Fi", nullptr, mac, {"10.1.1.1"})}));
  ASSERT_TRUE(found);
  EXPECT_EQ(*found->find("name"), Value("Wi-Fi"));
  EXPECT_FALSE(found->contains("bsdName"));

  // The comparison is exact, case included; and no MAC asked for is no lookup at all.
  EXPECT_FALSE(networkInterfaceWithMACAddress(
      "00:11:22:33:44:AA", profile({item("Ethernet", "en0", "00:11:22:33:44:aa", {"10.0.0.7"})})));
  EXPECT_FALSE(networkInterfaceWithMACAddress(std::nullopt, [] {
    ADD_FAILURE() << "the profile is not needed without a MAC address";
    return std::optional<Value>();
  }));
}

TEST_F(InterfaceLookupTest, ItemsWithoutANameOrAddressListAreSkipped) {
  const char* mac = "00:11:22:33:44:55";
  plist::Dictionary unnamed{{"interface", "en0"},
                            {"Ethernet", plist::Dictionary{{"MAC Address", mac}}},
                            {"ip_address", plist::Array{"10.0.0.1"}}};
  plist::Dictionary scalarAddress{{"_name", "Ethernet"},
                                  {"Ethernet", plist::Dictionary{{"MAC Address", mac}}},
                                  {"ip_address", "10.0.0.2"}};
  auto found = networkInterfaceWithMACAddress(
      mac,
      profile({"not an item", unnamed, scalarAddress, item("Last", "en9", mac, {"10.0.0.3"})}));
  ASSERT_TRUE(found);
  EXPECT_EQ(*found->find("ip4Address"), Value("10.0.0.3"));
}

TEST_F(InterfaceLookupTest, UnusableProfilesAreLoggedWithTheirReason) {
  struct Case {
    std::optional<Value> profile;
    const char* logged;
  };
  const std::vector<Case> cases = {
      {std::nullopt, "Unable to get system profile data"},
      {Value("text"), "Error 1 - Invalid system profile data"},
      {Value(plist::Array{}), "Error 3 - Invalid system profile data"},
      {Value(plist::Array{"not a dictionary"}), "Error 3 - Invalid system profile data"},
      {Value(plist::Array{
           plist::Dictionary{{"_dataType", "SPUSBDataType"}, {"_items", plist::Array{}}}}),
       "Invalid system profile data format"},
      {Value(plist::Array{plist::Dictionary{{"_dataType", "SPNetworkDataType"}, {"_items", "x"}}}),
       "Invalid system profile data format"},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(networkInterfaceWithMACAddress("00:11:22:33:44:55", fixed(c.profile)));
    EXPECT_NE(machine.logText().find(c.logged), std::string::npos) << c.logged;
  }
}

TEST(HostName, TheCapitalisedLocalNameWinsOverTheLowerCaseOne) {
  EXPECT_EQ(hostNameFrom({"edit-3.local", "Edit-3.local", "Other.local"}, "edit-3"),
            "Edit-3.local.");
  // All lower case: the last ".local" name.
  EXPECT_EQ(hostNameFrom({"a.local.", "edit", "b.local"}, "edit"), "b.local.");
  // No ".local" name: the primary name, with one trailing dot.
  EXPECT_EQ(hostNameFrom({"edit.example.com"}, "edit"), "edit.");
  EXPECT_EQ(hostNameFrom({}, "edit.example.com."), "edit.example.com.");
  EXPECT_EQ(currentHostName().back(), '.');
}

TEST(GenerateUUID, GivesDistinctUpperCaseHexadecimalInTheStandardForm) {
  std::string first = generateUUID();
  ASSERT_EQ(first.size(), 36u);
  for (std::size_t i = 0; i < first.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      EXPECT_EQ(first[i], '-');
    } else {
      EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(first[i])) ||
                  (first[i] >= 'A' && first[i] <= 'F'))
          << first;
    }
  }
  EXPECT_NE(generateUUID(), first);
}

} // namespace
} // namespace kestrin::transport
