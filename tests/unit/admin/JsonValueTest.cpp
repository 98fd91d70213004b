#include "admin/JsonValue.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace kestrin::admin {
namespace {

using plist::Date;
using plist::ErrorRecord;
using plist::Value;

TEST(JsonValue, CarriesEveryKindTheCommandLineNeeds) {
  auto value = valueFromJson(R"({"name":"Kestrin","n":-3,"r":2.5,"ok":true,"none":null,
      "blob":{"$data":"AP8="},"when":{"$date":"2001-01-01T00:01:00Z"},"list":[1,[2]]})");
  ASSERT_TRUE(value.ok()) << value.message();
  EXPECT_EQ(*value->get("blob"), Value(plist::Data{0x00, 0xff}));
  EXPECT_EQ(*value->get("when"), Value(plist::Date{60}));
  EXPECT_EQ(value->asDictionary()->keys().front(), "name");
  EXPECT_EQ(jsonFromValue(*value),
            R"({"name":"Kestrin","n":-3,"r":2.5,"ok":true,"none":null,"blob":{"$data":"AP8="},)"
            R"("when":{"$date":"2001-01-01T00:01:00Z"},"list":[1,[2]]})");
  EXPECT_EQ(jsonFromValue(Value(ErrorRecord{"ambrantDomain", 1006, {}})),
            R"({"$error":{"domain":"ambrantDomain","code":1006,"userInfo":{}}})");
  EXPECT_EQ(*valueFromJson(R"({"$date":"2001-01-01T01:00:00+01:00"})"), Value(plist::Date{0}));

  for (const char* bad :
       {"{", "[1,]", R"({"$data":"A*=="})", R"({"$date":"yesterday"})", "18446744073709551615"}) {
    EXPECT_FALSE(valueFromJson(bad).ok()) << bad;
  }
  EXPECT_FALSE(valueFromJson(std::string(1000, '[') + std::string(1000, ']')).ok());
}

// A date read from JSON prints back as a text that reads back as exactly that date: fractions of
// any length, fractions that round into the next second, fractions too small for the date's
// precision, dates before 2001; years past 9999 are refused at reading.
TEST(JsonValue, DatesPrintBackExactly) {
  auto readDate = [](const std::string& text) {
    auto value = valueFromJson(R"({"$date":")" + text + R"("})");
    EXPECT_TRUE(value.ok()) << text;
    return value.ok() ? *value : Value();
  };
  for (const char* text :
       {"2001-01-01T00:00:00.1234567891234Z", "1905-12-08T18:39:59.75Z",
        "2026-11-22T10:03:59.99999999999999999+01:00", "2000-12-31T23:59:59.9999999999999999999Z",
        "2001-01-01T00:00:00.000000000000000000000000001Z", "2000-12-31T23:59:59.9Z"}) {
    Value date = readDate(text);
    EXPECT_EQ(*valueFromJson(jsonFromValue(date)), date) << text << " " << jsonFromValue(date);
  }
  EXPECT_EQ(jsonFromValue(readDate("2001-01-01T00:00:59.99999999999999999Z")),
            R"({"$date":"2001-01-01T00:01:00Z"})");
  EXPECT_EQ(jsonFromValue(readDate("2000-12-31T23:59:59.9Z")),
            R"({"$date":"2000-12-31T23:59:59.9Z"})");
  EXPECT_EQ(jsonFromValue(Value(Date{1e-300})),
            R"({"$date":"2001-01-01T00:00:00.)" + std::string(299, '0') + R"(1Z"})");

  auto late = valueFromJson(R"({"$date":"9999-12-31T23:30:00-01:00"})");
  ASSERT_FALSE(late.ok());
  EXPECT_EQ(late.message(),
            "\"9999-12-31T23:30:00-01:00\" is not an ISO 8601 date of the years 1 to 9999");
  // A date from elsewhere that no ISO text names prints as its seconds, which read back.
  Value farOff(Date{1e13});
  EXPECT_EQ(jsonFromValue(farOff), R"({"$date":10000000000000.0})");
  EXPECT_EQ(*valueFromJson(jsonFromValue(farOff)), farOff);
}

TEST(JsonValue, DictionariesThatLookLikeOtherKindsStayDictionaries) {
  for (const Value& value :
       {Value(plist::Dictionary{{"$date", "2001-01-01T00:00:00Z"}}),
        Value(plist::Dictionary{{"$data", "AP8="}}),
        Value(plist::Dictionary{{"$dictionary", plist::Dictionary{{"$data", 5}}}})}) {
    EXPECT_EQ(*valueFromJson(jsonFromValue(value)), value) << jsonFromValue(value);
  }
  EXPECT_EQ(*valueFromJson(R"({"$dictionary":{"$data":"AP8="}})"),
            Value(plist::Dictionary{{"$data", "AP8="}}));
  EXPECT_FALSE(valueFromJson(R"({"$data":"AAAAA"})").ok()) << "six bits left over";
}

} // namespace
} // namespace kestrin::admin
