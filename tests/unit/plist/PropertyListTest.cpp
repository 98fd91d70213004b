#include "plist/PropertyList.h"

#include <cmath>
#include <fstream>
#include <iomanip>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "plist/IsoDate.h"

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

// Binary keeps a date's double as it stands; XML writes the shortest fraction that reads back
// as the same double, for dates before 2001 (negative seconds) too.
TEST_P(RoundTrip, DatesOfEveryCenturySurviveWithTheirFractions) {
  for (double seconds :
       {0.0, -1.0, 0.5, -0.1, -1.25, 86400.125, -700000000.5, 1e-300, -1e-300, 0.9999999999999999,
        -978307200.0, 2147483647.0, -2147483648.0, -3000000000.25, 700000000.123456789,
        kEarliestDate, std::nextafter(kEndOfDates, 0.0)}) {
    Value back = roundTrip(Date{seconds});
    ASSERT_TRUE(back.asDate().has_value()) << seconds;
    EXPECT_EQ(back.asDate()->seconds, seconds) << std::setprecision(17) << seconds;
  }
}

TEST_P(RoundTrip, IntegersAtEveryEncodingEdgeSurvive) {
  for (std::int64_t n :
       {std::int64_t{0}, std::int64_t{255}, std::int64_t{256}, std::int64_t{65535},
        std::int64_t{65536}, std::int64_t{4294967295}, std::int64_t{4294967296}, std::int64_t{-1},
        std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    EXPECT_EQ(roundTrip(n), Value(n)) << n;
  }
}

// Keys and strings in UTF-16 (binary) or UTF-8 (XML), astral characters and control characters
// included.
TEST_P(RoundTrip, TextOutsideAsciiSurvives) {
  const std::string astral = "\xf0\x9f\x98\x80 caf\xc3\xa9 \xe2\x82\xac";
  Value value = Dictionary{{astral, astral}, {"tab\tcr\r\x01", " spaced "}, {"", "empty key"}};
  EXPECT_EQ(roundTrip(value), value);
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

TEST(PropertyList, DateTextIsTheShortestThatReadsBackExactly) {
  EXPECT_EQ(isoDateText(Date{0}), "2001-01-01T00:00:00Z");
  EXPECT_EQ(isoDateText(Date{0.5}), "2001-01-01T00:00:00.5Z");
  EXPECT_EQ(isoDateText(Date{-0.1}), "2000-12-31T23:59:59.9Z");
  EXPECT_EQ(isoDateText(Date{kEarliestDate}), "0001-01-01T00:00:00Z");
  EXPECT_EQ(isoDateText(Date{kEndOfDates}), std::nullopt);
  EXPECT_EQ(isoDateText(Date{std::numeric_limits<double>::quiet_NaN()}), std::nullopt);
  // A fraction too fine for the double rounds to the nearest, here the next minute.
  EXPECT_EQ(parseIsoDate("2001-01-01T00:00:59.99999999999999999Z", DateSyntax::PropertyList),
            Date{60});
  EXPECT_EQ(parseIsoDate("2001-01-01T01:00:00.5+01:00", DateSyntax::Lenient), Date{0.5});
  EXPECT_EQ(parseIsoDate("2001-01-02", DateSyntax::Lenient), Date{86400});
  for (const char* bad :
       {"2001-01-01T00:00:00+01:00", "2001-01-01", "2001-02-29T00:00:00Z", "0000-12-31T23:59:59Z",
        "2001-01-01T24:00:00Z", "2001-01-01T00:00:00.Z", "12001-01-01T00:00:00Z"}) {
    EXPECT_EQ(parseIsoDate(bad, DateSyntax::PropertyList), std::nullopt) << bad;
  }
  EXPECT_EQ(parseIsoDate("9999-12-31T23:30:00-01:00", DateSyntax::Lenient), std::nullopt);
}

TEST(PropertyList, ValuesWithoutAPropertyListFormAreRefusedByBothWriters) {
  const std::string invalidUtf8 = "caf\xe9";
  const Value refused[] = {Value(),
                           Array{Value(), 1},
                           ErrorRecord{"ambrantDomain", 1000, {}},
                           std::string("a\0b", 3),
                           Dictionary{{std::string("a\0b", 3), 1}},
                           invalidUtf8,
                           Dictionary{{invalidUtf8, 1}},
                           Date{kEndOfDates},
                           Date{std::numeric_limits<double>::infinity()}};
  for (const Value& value : refused) {
    EXPECT_FALSE(toXml(value).ok()) << describe(value);
    EXPECT_FALSE(toBinary(value).ok()) << describe(value);
  }
  EXPECT_EQ(toBinary(invalidUtf8).message(),
            "a string that is not valid UTF-8 cannot be stored in a property list");
}

std::vector<std::uint8_t> corpusFile(const std::string& name) {
  std::ifstream in(std::string(KESTRIN_FUZZ_CORPUS) + "/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What the fuzzer found, kept as corpus files that the fuzz smoke run replays too. Each is
// refused with a message that says why, before anything of it is built.
TEST(PropertyList, HostileFilesFromTheFuzzCorpusAreRefusedWithAClearError) {
  const std::pair<const char*, const char*> findings[] = {
      // 53 bytes: a key of one UTF-16 NUL, on which the system library asserts.
      {"plist_binary/finding-nul-key.bplist", "a string holds a NUL character"},
      // 162 bytes that expand to 2^31 values, and 4 KiB that expand to 32 MiB of text.
      {"plist_binary/finding-shared-expansion.bplist", "expands to more than 1048576 values"},
      {"plist_binary/finding-shared-string.bplist", "expands to more than 16777216 bytes"},
      {"plist_binary/finding-cycle.bplist", "object 0 contains itself"},
      {"plist_binary/finding-deep.bplist", "nested deeper than 512 levels"},
      {"plist_binary/finding-invalid-ascii.bplist", "an ASCII string holds a byte above 127"},
      {"plist_binary/finding-lone-surrogate.bplist", "half of a UTF-16 surrogate pair"},
      {"plist_xml/finding-deep.xml", "nested deeper than 512 levels"},
      {"plist_xml/finding-invalid-utf8.xml", "not valid UTF-8"},
      // A NUL written raw or as a reference: the same refusal either way.
      {"plist_xml/finding-raw-nul.xml", "NUL character"},
      {"plist_xml/finding-nul-reference.xml", "NUL character"},
  };
  for (const auto& [file, message] : findings) {
    auto value = parse(std::span<const std::uint8_t>(corpusFile(file)));
    ASSERT_FALSE(value.ok()) << file;
    EXPECT_NE(value.message().find(message), std::string::npos) << file << ": " << value.message();
  }
}

TEST(PropertyList, ABinaryDateBefore1932ReadsAndWritesBackExactly) {
  auto value = parseBinary(corpusFile("plist_binary/finding-pre-1932-date.bplist"));
  ASSERT_TRUE(value.ok()) << value.message();
  EXPECT_EQ(*value, Value(Date{-3000000000.25}));
  EXPECT_EQ(*parseBinary(*toBinary(*value)), *value);
  auto xml = toXml(*value);
  EXPECT_NE(xml->find("<date>1905-12-08T18:39:59.75Z</date>"), std::string::npos) << *xml;
  EXPECT_EQ(*parseXml(*xml), *value);
}

TEST(PropertyList, ReadLimitsAreTheCallersBudget) {
  Value tree = Array{Array{1, 2}, "text"};
  auto xml = *toXml(tree);
  auto bin = *toBinary(tree);
  auto refused = [&](const ReadLimits& limits, const char* message) {
    for (auto value : {parseXml(xml, limits), parseBinary(bin, limits)}) {
      ASSERT_FALSE(value.ok()) << message;
      EXPECT_NE(value.message().find(message), std::string::npos) << value.message();
    }
  };
  refused({.maxNodes = 4}, "4 values");
  refused({.maxDepth = 1}, "nested deeper than 1 levels");
  refused({.maxBytes = bin.size() - 1}, "is larger than the");
  EXPECT_TRUE(parseXml(xml, {.maxDepth = 2, .maxNodes = 5}).ok());
  EXPECT_TRUE(parseBinary(bin, {.maxDepth = 2, .maxNodes = 5}).ok());

  TempDir dir;
  ASSERT_TRUE(writeFile(dir / "big.plist", Array(1000, Value("entry"))).ok());
  auto big = readFile(dir / "big.plist", {.maxBytes = 4096});
  ASSERT_FALSE(big.ok());
  EXPECT_NE(big.message().find("larger than the 4096 bytes"), std::string::npos) << big.message();
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
  EXPECT_EQ(read("<date> 2001-01-01T00:00:10.5Z </date>"), Value(Date{10.5}));
  EXPECT_EQ(read("<integer>18446744073709551615</integer>"), Value(-1)); // the same 64 bits
  EXPECT_EQ(read("<real>+inf</real>"), Value(std::numeric_limits<double>::infinity()));
  EXPECT_EQ(read("<data>AP8</data>"), Value(Data{0x00, 0xff}));
  EXPECT_EQ(read("<dict><key/><string/></dict>"), Value(Dictionary{{"", ""}}));
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
  for (const char* bad :
       {"<plist><dict><key>a</key></plist>", "<plist><dict><key>a</key></dict></plist>",
        "<plist><array><key>a</key></array></plist>", "<plist/>",
        "<plist><integer>18446744073709551616</integer></plist>",
        "<plist><integer>-9223372036854775809</integer></plist>",
        "<plist><date>10000-01-01T00:00:00Z</date></plist>",
        "<plist><string>&bogus;</string></plist>", "<plist><true/><true/></plist>",
        "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><true/></plist>",
        "<plist><string>x</string></plist>trailing"}) {
    EXPECT_FALSE(parse(std::string_view(bad)).ok()) << bad;
  }
  for (std::size_t cut = 0; cut < good->size(); cut += 7) {
    EXPECT_FALSE(parseXml(good->substr(0, cut)).ok()) << cut;
  }
  for (std::size_t cut = 0; cut < goodBin->size(); ++cut) {
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
