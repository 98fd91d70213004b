#include "operations/OperationTable.h"

#include <gtest/gtest.h>

#include "support/NamedException.h"

// Typed registration: what a remote caller's arguments become before a handler sees them.

namespace kestrin::operations {
namespace {

using plist::Value;

struct Group {
  std::string seen;
  std::string describe(std::string name, std::optional<plist::Array> options, std::int64_t count) {
    seen = name + "/" + (options ? std::to_string(options->size()) : "nil") + "/" +
           std::to_string(count);
    return seen;
  }
  std::optional<std::string> who(const Caller& caller, bool flag) {
    return flag ? std::optional(caller.address) : std::nullopt;
  }
};

std::string errorOf(const OperationTable& table, const std::string& selector,
                    std::vector<Value> arguments) {
  try {
    table.find(selector)->handler(Caller{}, arguments);
  } catch (const ArgumentError& e) {
    return e.what();
  }
  return "no error";
}

TEST(OperationTable, ArgumentsAreReadByTheHandlersParameterTypes) {
  Group group;
  OperationTable table;
  table.add("describe:options:count:", group, &Group::describe, "Unknown");
  table.add("whoIf:", group, &Group::who);

  const auto* describe = table.find("describe:options:count:");
  ASSERT_NE(describe, nullptr);
  EXPECT_EQ(describe->neutral, Value("Unknown"));
  EXPECT_EQ(describe->argumentKinds,
            (std::vector<std::string>{"a string", "an array or null", "a number"}));
  // A real is truncated and a boolean counts as a number, as number objects convert.
  EXPECT_EQ(describe->handler({}, {Value("a"), Value(), Value(2.9)}), Value("a/nil/2"));
  EXPECT_EQ(describe->handler({}, {Value("b"), Value(plist::Array{1, 2}), Value(true)}),
            Value("b/2/1"));
  // Out-of-range reals saturate rather than overflow.
  EXPECT_EQ(describe->handler({}, {Value("c"), Value(), Value(1e300)}),
            Value("c/nil/9223372036854775807"));

  // The caller is no argument; an absent optional result answers null.
  const auto* who = table.find("whoIf:");
  EXPECT_EQ(who->handler(Caller{"10.0.0.7", 3}, {Value(true)}), Value("10.0.0.7"));
  EXPECT_TRUE(who->handler(Caller{"10.0.0.7", 3}, {Value(false)}).isNull());
}

TEST(OperationTable, AWrongKindIsRefusedByNameBeforeTheHandlerRuns) {
  Group group;
  OperationTable table;
  table.add("describe:options:count:", group, &Group::describe);
  EXPECT_EQ(errorOf(table, "describe:options:count:", {Value(1), Value(), Value(1)}),
            "argument 1 of describe:options:count: must be a string, not an integer");
  EXPECT_EQ(
      errorOf(table, "describe:options:count:", {Value("a"), Value(plist::Dictionary{}), Value(1)}),
      "argument 2 of describe:options:count: must be an array, not a dictionary");
  EXPECT_EQ(errorOf(table, "describe:options:count:", {Value("a"), Value(), Value("7")}),
            "argument 3 of describe:options:count: must be a number, not a string");
  EXPECT_TRUE(group.seen.empty());
}

TEST(OperationTable, ASelectorWhoseColonsDisagreeWithItsHandlerIsRefusedAtRegistration) {
  Group group;
  OperationTable table;
  EXPECT_THROW(table.add("describe:options:", group, &Group::describe), std::logic_error);
  EXPECT_THROW(table.add("ping:", [] {}), std::logic_error);
  table.add("ping", [] {});
  EXPECT_THROW(table.add("ping", [] {}), std::logic_error);
  EXPECT_EQ(table.selectors(), std::vector<std::string>{"ping"});
}

} // namespace
} // namespace kestrin::operations
