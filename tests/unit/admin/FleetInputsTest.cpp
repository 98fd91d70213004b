#include <gtest/gtest.h>

#include "admin/AnswerFilter.h"
#include "admin/FleetTargets.h"

namespace kestrin::admin {
namespace {

using plist::Value;

TEST(FleetInputs, AHostsFileListsEachAgentOnceAndNamesTheLineAtFault) {
  auto agents = parseHosts("# render room\n\n  10.0.0.5:4000  # edit 1\r\n[fe80::1]:4001\n"
                           "10.0.0.5:4000\n");
  ASSERT_TRUE(agents);
  ASSERT_EQ(agents->size(), 2u);
  EXPECT_EQ(addressText((*agents)[0]), "10.0.0.5:4000");
  EXPECT_EQ(addressText((*agents)[1]), "[fe80::1]:4001");

  auto typo = parseHosts("10.0.0.5:4000\n10.0.0.6\n");
  ASSERT_FALSE(typo);
  EXPECT_NE(typo.message().find("line 2"), std::string::npos) << typo.message();
  EXPECT_FALSE(readHostsFile("/nonexistent/hosts"));
}

TEST(FleetInputs, WhereWalksDictionariesAndAnyArrayElementComparingPlainText) {
  Value answer(plist::Dictionary{
      {"Tibbet", Value(plist::Dictionary{{"running", Value(true)}, {"version", Value("4.1")}})},
      {"nodes", Value(plist::Array{Value(plist::Dictionary{{"cpus", Value(std::int64_t{8})}}),
                                   Value(plist::Dictionary{{"cpus", Value(std::int64_t{16})}})})}});
  auto expect = [&](const std::string& test, bool matches) {
    auto filter = AnswerFilter::parse(test);
    ASSERT_TRUE(filter) << test;
    EXPECT_EQ(filter->matches(answer), matches) << test;
  };
  expect("Tibbet.running=true", true);
  expect("Tibbet.running=false", false);
  expect("Tibbet.version=4.1", true);
  expect("Tibbet.version!=4.1", false);
  expect("nodes.cpus=16", true);
  expect("nodes.cpus=4", false);
  expect("Hembry.running=true", false); // a path that leads nowhere
  expect("Hembry.running!=true", true);
  expect("Tibbet=x", false); // a dictionary is compared as its JSON form

  for (const char* bad : {"Tibbet.running", "=true", "Tibbet..running=true", "!=x"}) {
    EXPECT_FALSE(AnswerFilter::parse(bad)) << bad;
  }
}

} // namespace
} // namespace kestrin::admin
