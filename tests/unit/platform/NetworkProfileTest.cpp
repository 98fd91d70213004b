#include "platform/NetworkProfile.h"

#include <cctype>

#include <gtest/gtest.h>

#include "platform/ServiceAdvertiser.h"

namespace kestrin::platform {
namespace {

TEST(NetworkProfile, DescribesTheLoopbackInterfaceInTheProfilerShape) {
  plist::Value profile = networkDataType();
  const plist::Array* sections = profile.asArray();
  ASSERT_TRUE(sections && !sections->empty());
  const plist::Value& section = sections->front();
  EXPECT_EQ(*section.get("_dataType"), plist::Value("SPNetworkDataType"));
  const plist::Array* items = section.get("_items")->asArray();
  ASSERT_TRUE(items);
  const plist::Value* loopback = nullptr;
  for (const plist::Value& item : *items) {
    ASSERT_TRUE(item.get("_name") && item.get("_name")->asString());
    if (*item.get("interface") == plist::Value("lo")) {
      loopback = &item;
    }
    if (const plist::Value* ethernet = item.get("Ethernet")) {
      // Six lower-case hexadecimal pairs with colons, as the kernel prints them.
      const std::string& mac = *ethernet->get("MAC Address")->asString();
      ASSERT_EQ(mac.size(), 17u) << mac;
      for (std::size_t i = 0; i < mac.size(); ++i) {
        EXPECT_TRUE(i % 3 == 2 ? mac[i] == ':' : std::isxdigit(mac[i]) && !std::isupper(mac[i]))
            << mac;
      }
    }
  }
  ASSERT_TRUE(loopback);
  EXPECT_EQ(*loopback->get("_name"), plist::Value("Loopback"));
  ASSERT_TRUE(loopback->get("ip_address"));
  EXPECT_EQ(loopback->get("ip_address")->asArray()->front(), plist::Value("127.0.0.1"));
}

TEST(TxtEntries, ReadsLengthPrefixedEntriesAndRefusesTruncatedOnes) {
  auto entries = txtEntries(std::string("\x03"
                                        "a=1"
                                        "\x00"
                                        "\x05"
                                        "bb=22",
                                        11));
  ASSERT_TRUE(entries) << entries.message();
  EXPECT_EQ(*entries, (std::vector<std::string>{"a=1", "bb=22"}));
  // The single NUL byte is the empty record.
  entries = txtEntries(std::string(1, '\0'));
  ASSERT_TRUE(entries);
  EXPECT_TRUE(entries->empty());
  EXPECT_FALSE(txtEntries("\x04"
                          "a=1"));
  EXPECT_FALSE(txtEntries("\x03"
                          "a=1"
                          "\xff"));
}

} // namespace
} // namespace kestrin::platform
