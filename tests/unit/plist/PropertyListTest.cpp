#include "plist/PropertyList.h"

#include <cmath>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"

namespace kestrin::plist {
namespace {

using kestrin::testing::TempDir;

Value everyKind() {
  Data bytes{0x00, 0xff, 0x10, 0x00, 0x7f};
  return Dictionary{
      {"bool", true},
      {"false", false},
      {"int", std::int64_t{-42}},
      {"big", std::numeric_limits<std::int64_t>::max()},
      {"small", std::numeric_limits<std::int64_t>::min()},
      {"real", 3.141592653589793},
      {"string", "caf\xc3\xa9 & <tags>"},
      {"empty", ""},
      {"data", bytes},
      {"date", Date{12345.0}},
      {"array", Array{1, "two", Array{}, Dictionary{}}},
      {"nested", Dictionary{{"inner", Dictionary{{"deep", Array{Date{-86400.0}}}}}}},
  };
}

class RoundTrip : public ::testing::TestWithParam<Format> {
protected:
  Value roundTrip(const Value& value) {
    if (GetParam() == Format::Xml) {
      auto xml = toXml(value);
      EXPECT_TRUE(xml.ok()) << (xml ? "" : xml.message());
      auto back = parseXml(*xml);
      EXPECT_TRUE(back.ok()) << (back ? "" : back.message());
      return back.ok() ? *back : Value();
    }
    auto bin = toBinary(value);
    EXPECT_TRUE(bin.ok()) << (bin ? "" : bin.message());
    auto back = parseBinary(*bin);
    EXPECT_TRUE(back.ok()) << (back ? "" : back.message());
    return back.ok() ? *back : Value();
  }
};

TEST_P(RoundTrip, EveryKindSurvives) {
  EXPECT_EQ(roundTrip(everyKind()), everyKind());
}

TEST_P(RoundTrip, DictionaryKeepsInsertionOrder) {
  Dictionary dict;
  for (int i = 40; i > 0; --i) {
    dict.set("key" + std::to_string(i), i);
  }
  Value back = roundTrip(dict);
  ASSERT_NE(back.asDictionary(), nullptr);
  EXPECT_EQ(back.asDictionary()->keys(), dict.keys());
}

TEST_P(RoundTrip, WholeSecondDatesAcrossTheCenturySurvive) {
  for (double seconds : {0.0, -1.0, -978307200.0, 2147483647.0, -2147483648.0, 700000000.0}) {
    EXPECT_EQ(roundTrip(Date{seconds}), Value(Date{seconds})) << seconds;
  }
}

TEST_P(RoundTrip, TopLevelScalarsAndEmptyContainers) {
  for (const Value& v :
       {Value("x"), Value(7), Value(Array{}), Value(Dictionary{}), Value(Data{})}) {
    EXPECT_EQ(roundTrip(v), v);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip, ::testing::Values(Format::Xml, Format::Binary),
                         [](const auto& info) {
                           return info.param == Format::Xml ? "Xml" : "Binary";
                         });

TEST(PropertyList, BinaryKeepsDateFractionsIncludingNegativeOnes) {
  for (double seconds : {0.5, -1.25, -1234.75, 86400.125, -700000000.5}) {
    auto bin = toBinary(Date{seconds});
    ASSERT_TRUE(bin.ok());
    auto back = parseBinary(*bin);
    ASSERT_TRUE(back.ok());
    ASSERT_TRUE(back->asDate().has_value());
    EXPECT_NEAR(back->asDate()->seconds, seconds, 1e-6) << seconds;
  }
}

TEST(PropertyList, ValuesWithoutAPropertyListFormAreRefused) {
  EXPECT_FALSE(toXml(Value()).ok());
  EXPECT_FALSE(toBinary(Array{Value(), 1}).ok());
  EXPECT_FALSE(toXml(ErrorRecord{"ambrantDomain", 1000, {}}).ok());
  EXPECT_FALSE(toXml(std::string("a\0b", 3)).ok());
}

TEST(PropertyList, XmlEscapesMarkupAndReadsEntitiesBack) {
  const std::string tricky = "a & b < c > d \"q\" 'a' ]]> caf\xc3\xa9 \xf0\x9f\x98\x80\r\n";
  auto xml = toXml(Dictionary{{"<key & more>", tricky}});
  ASSERT_TRUE(xml.ok());
  EXPECT_NE(xml->find("<key>&lt;key &amp; more&gt;</key>"), std::string::npos) << *xml;
  EXPECT_EQ(*parseXml(*xml), Value(Dictionary{{"<key & more>", tricky}}));

  auto refs = parseXml(std::string_view(
      "<plist><string>&#65;&#x42;&#233;&#x1F600;&quot;&apos;&amp;</string></plist>"));
  ASSERT_TRUE(refs.ok());
  EXPECT_EQ(*refs, Value("AB\xc3\xa9\xf0\x9f\x98\x80\"'&"));
  EXPECT_FALSE(toXml(Dictionary{{std::string("a\0b", 3), 1}}).ok());
}

TEST(PropertyList, XmlKeepsExtremeNumbersAndEveryDataLength) {
  const double reals[] = {0.1,
                          -0.0,
                          5e-324,
                          std::numeric_limits<double>::max(),
                          std::numeric_limits<double>::infinity(),
                          -std::numeric_limits<double>::infinity(),
                          123456789.123};
  for (double d : reals) {
    auto back = parseXml(*toXml(d));
    ASSERT_TRUE(back.ok());
    ASSERT_TRUE(back->asReal().has_value()) << d;
    EXPECT_EQ(*back->asReal(), d);
    EXPECT_EQ(std::signbit(*back->asReal()), std::signbit(d)) << d;
  }
  auto nan = parseXml(*toXml(std::numeric_limits<double>::quiet_NaN()));
  ASSERT_TRUE(nan.ok() && nan->asReal());
  EXPECT_TRUE(std::isnan(*nan->asReal()));
  for (std::int64_t i : {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1},
                         std::numeric_limits<std::int64_t>::max()}) {
    EXPECT_EQ(*parseXml(*toXml(i)), Value(i));
  }
  // Base64 padding of every kind and lines wrapped past 68 characters.
  for (std::size_t length = 0; length < 120; ++length) {
    Data bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
      bytes[i] = static_cast<std::uint8_t>(i * 37 + length);
    }
    EXPECT_EQ(*parseXml(*toXml(Array{bytes})), Value(Array{bytes})) << length;
  }
}

TEST(PropertyList, UnusualXmlIsStillReadAsBefore) {
  auto read = [](std::string_view body) {
    std::string doc =
        "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + std::string(body) + "</plist>";
    auto value = parseXml(doc);
    EXPECT_TRUE(value.ok()) << body;
    return value.ok() ? *value : Value();
  };
  EXPECT_EQ(read("<integer> 5 </integer>"), Value(5));
  EXPECT_EQ(read("<integer>0x10</integer>"), Value(16));
  EXPECT_EQ(read("<string>a<![CDATA[<b>&amp;]]>c</string>"), Value("a<b>&amp;c"));
  EXPECT_EQ(read("<string>a<!-- note -->b</string>"), Value("ab"));
  EXPECT_EQ(read("<date>2001-01-01T00:00:10.5Z</date>"), Value(Date{10}));
  EXPECT_EQ(read("<true></true>"), Value(true));
  EXPECT_EQ(read("<string attr=\"1\">x</string>"), Value("x"));
  // A repeated key keeps its first position and takes the last value.
  Value dict = read("<dict><key>a</key><integer>1</integer><!-- c --><key>b</key><true/>"
                    "<key>a</key><integer>2</integer></dict>");
  ASSERT_NE(dict.asDictionary(), nullptr);
  EXPECT_EQ(dict.asDictionary()->keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(*dict.get("a"), Value(2));
}

TEST(PropertyList, MalformedAndTruncatedInputIsAFailure) {
  auto good = toXml(everyKind());
  ASSERT_TRUE(good.ok());
  auto goodBin = toBinary(everyKind());
  ASSERT_TRUE(goodBin.ok());

  EXPECT_FALSE(parse(std::string_view("")).ok());
  EXPECT_FALSE(parse(std::string_view("not a plist at all")).ok());
  EXPECT_FALSE(parse(std::string_view("<plist><dict><key>a</key></plist>")).ok());
  for (std::size_t cut : {good->size() / 3, good->size() / 2, good->size() - 10}) {
    EXPECT_FALSE(parseXml(good->substr(0, cut)).ok()) << cut;
  }
  for (std::size_t cut : {std::size_t{9}, goodBin->size() / 2, goodBin->size() - 1}) {
    EXPECT_FALSE(parseBinary(std::span(goodBin->data(), cut)).ok()) << cut;
  }
  Data garbage(goodBin->begin(), goodBin->begin() + 8);
  garbage.resize(400, 0xee);
  EXPECT_FALSE(parse(std::span<const std::uint8_t>(garbage)).ok());
}

TEST(PropertyList, FilesAreReadInEitherFormatAndWrittenWhole) {
  TempDir dir;
  auto xmlPath = dir / "a.plist";
  auto binPath = dir / "b.plist";
  ASSERT_TRUE(writeFile(xmlPath, everyKind()).ok());
  ASSERT_TRUE(writeFile(binPath, everyKind(), Format::Binary).ok());
  EXPECT_EQ(*readFile(xmlPath), everyKind());
  EXPECT_EQ(*readFile(binPath), everyKind());

  EXPECT_FALSE(readFile(dir / "missing.plist").ok());
  kestrin::testing::writeText(dir / "corrupt.plist", "<?xml version=\"1.0\"?><plist><dict>");
  auto corrupt = readFile(dir / "corrupt.plist");
  ASSERT_FALSE(corrupt.ok());
  EXPECT_NE(corrupt.message().find("corrupt.plist"), std::string::npos);

  // A refused value leaves the existing file as it was and no temporary behind.
  ASSERT_FALSE(writeFile(xmlPath, Value()).ok());
  EXPECT_EQ(*readFile(xmlPath), everyKind());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 3);
}

TEST(PropertyList, ConcurrentReadersNeverSeeAPartialFile) {
  TempDir dir;
  auto path = dir / "shared.plist";
  Array big;
  for (int i = 0; i < 2000; ++i) {
    big.push_back("entry " + std::to_string(i));
  }
  ASSERT_TRUE(writeFile(path, big).ok());
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread reader([&] {
    while (!stop) {
      if (!readFile(path).ok()) {
        ++failures;
      }
    }
  });
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(writeFile(path, i % 2 ? Value(big) : Value(Array{i})).ok());
  }
  stop = true;
  reader.join();
  EXPECT_EQ(failures, 0);
}

TEST(Value, TypedAccessorsAnswerAbsentForTheWrongKind) {
  Value s("12abc");
  EXPECT_EQ(s.asInteger(), std::nullopt);
  EXPECT_EQ(s.asArray(), nullptr);
  EXPECT_EQ(s.asDictionary(), nullptr);
  EXPECT_EQ(s.get("key"), nullptr);
  EXPECT_EQ(s.integerValue(), 12);
  EXPECT_EQ(Value("none").integerValue(), std::nullopt);
  EXPECT_EQ(Value(2.9).integerValue(), 2);
  EXPECT_EQ(Value(true).integerValue(), 1);
  EXPECT_EQ(Value(Array{}).integerValue(), std::nullopt);
  EXPECT_EQ(Value("1").boolValue(), true);
  EXPECT_EQ(Value("0").boolValue(), false);
  EXPECT_EQ(Value(0).boolValue(), false);
  EXPECT_EQ(Value(Data{}).boolValue(), std::nullopt);
}

TEST(Value, LargeDictionariesFindEveryKeyAfterErasure) {
  Dictionary dict;
  for (int i = 0; i < 100; ++i) {
    dict.set(std::to_string(i), i);
  }
  dict.set("50", "replaced");
  EXPECT_EQ(dict.size(), 100u);
  EXPECT_EQ(*dict.find("50")->asString(), "replaced");
  EXPECT_TRUE(dict.erase("10"));
  EXPECT_FALSE(dict.erase("10"));
  EXPECT_EQ(dict.find("10"), nullptr);
  for (int i = 11; i < 100; ++i) {
    ASSERT_NE(dict.find(std::to_string(i)), nullptr) << i;
  }
  EXPECT_EQ(dict.keys().front(), "0");
}

} // namespace
} // namespace kestrin::plist
