#include "foundation/QVXMLParser.h"

#include <fstream>

#include <pugixml.hpp>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/QVLog.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using testing::writeText;

constexpr const char* kConfiguration =
    "<?xml version=\"1.0\"?>\n"
    "<Configuration><VariableForExMan>"
    "<Data key='ProductVersion'>6.0.<b>3</b></Data><Data key='Other'>x</Data>"
    "</VariableForExMan></Configuration>";
constexpr const char* kVersionQuery =
    "./Configuration/VariableForExMan/Data[@key='ProductVersion']";

std::shared_ptr<pugi::xml_document> parsed(std::string_view text) {
  auto document = QVXMLParser::documentFromData(
      std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  EXPECT_TRUE(document.ok()) << (document ? "" : document.message());
  return document ? *document : std::make_shared<pugi::xml_document>();
}

TEST(QVXMLParser, EscapingFollowsItsRulesUnitByUnit) {
  std::u16string stripped;
  auto escape = [&](std::string_view text) {
    return QVXMLParser::escapeQueryString(text, [&](char16_t unit) { stripped += unit; });
  };
  EXPECT_EQ(escape("A&amp;B"), "A&amp;B");
  EXPECT_EQ(escape("A&B"), "A&amp;B");
  EXPECT_EQ(escape("A&amp"), "A&amp;amp"); // fewer than five units left: not an entity
  EXPECT_EQ(escape("caf\xC3\xA9"), "caf&#233;");
  EXPECT_EQ(escape("\xC2\x9F|\xC2\xA0"), "\xC2\x9F|&#160;"); // 159 is copied, 160 escaped
  EXPECT_EQ(escape("\xF0\x9F\x8E\xAC"), "&#55356;&#57260;"); // one unit at a time
  EXPECT_EQ(escape("a\rb"), "a&#13;b");
  EXPECT_EQ(escape("a\tb\nc\x13\x14"), std::string("abc\x14"));
  EXPECT_EQ(stripped, std::u16string(u"\t\n\x13"));
  // Not UTF-8: each byte stands for its Latin-1 character.
  EXPECT_EQ(escape("\xFF\x80z"), "&#255;\xC2\x80z");
  EXPECT_EQ(escape(std::string_view("a\0b", 3)), "ab");
}

TEST(QVXMLParser, TheLoggingFormWritesEachStrippedCharacter) {
  testing::ThrowawayMachine machine;
  EXPECT_EQ(QVXMLParser::escapeQueryString("x\ty"), "xy");
  QVLog::finishWriting();
  // The tab is written escaped, as every control character in a log argument is.
  EXPECT_NE(machine.logText().find(" - Stripped character \\t\n"), std::string::npos);
}

TEST(QVXMLParser, QueriesAnswerStringValuesOfWhatTheyFind) {
  auto document = parsed(kConfiguration);
  EXPECT_EQ(QVXMLParser::stringValueForQuery(kVersionQuery, *document), "6.0.3");
  EXPECT_EQ(QVXMLParser::stringValueForQuery("//Data/@key", *document), "ProductVersion");
  EXPECT_EQ(QVXMLParser::stringValuesForQuery("//Data", *document),
            (std::vector<std::string>{"6.0.3", "x"}));
  EXPECT_EQ(QVXMLParser::stringValueForQuery("./Nothing", *document), std::nullopt);
  EXPECT_EQ(QVXMLParser::stringValuesForQuery("./Nothing", *document), std::nullopt);
  auto node = QVXMLParser::nodeForQuery("//Data[2]", *document);
  ASSERT_TRUE(node);
  EXPECT_EQ(QVXMLParser::stringValue(*node), "x");
}

TEST(QVXMLParser, HostileQueriesFindNothingAndOnlyTheNodeQueryLogs) {
  testing::ThrowawayMachine machine;
  auto document = parsed(kConfiguration);
  const std::string deep = std::string(5000, '(') + "1" + std::string(5000, ')');
  for (const std::string& query :
       {std::string("]]]"), std::string("'"), std::string("//Data[@key='x"), deep,
        std::string("count(//*"), std::string("a&b"), std::string("\x01\x02\x03"),
        std::string("//Data[@key='") + std::string(100000, 'x') + "']"}) {
    EXPECT_EQ(QVXMLParser::stringValueForQuery(query, *document), std::nullopt) << query;
    EXPECT_TRUE(QVXMLParser::nodesForQuery(query, *document).empty()) << query;
  }
  // Values with brackets, ampersands and quotes inside a query's literal: they match nothing
  // and break nothing (a caller that puts values into queries quotes them itself).
  for (const char* value : {"]|//*|[", "a&amp;b", "\"'\"", "&#0;", "\xC3\xA9"}) {
    std::string query = std::string("//Data[@key='") + value + "']";
    EXPECT_EQ(QVXMLParser::stringValueForQuery(query, *document), std::nullopt) << value;
  }
  QVLog::finishWriting();
  std::string log = machine.logText();
  EXPECT_NE(log.find("XML parsing error: Exceeded maximum allowed query depth"), std::string::npos);
  std::size_t errors = 0;
  for (auto at = log.find("XML parsing error: "); at != std::string::npos;
       at = log.find("XML parsing error: ", at + 1)) {
    ++errors;
  }
  EXPECT_EQ(errors, 7u); // the seven malformed queries, each once: only from nodesForQuery
}

TEST(QVXMLParser, DocumentsAreBoundedAndNeverExpandEntitiesOrDtds) {
  testing::TempDir dir;
  // An internal entity, an external one and an external DTD: all refused with the DOCTYPE.
  writeText(dir / "entities.xml",
            "<?xml version='1.0'?><!DOCTYPE c SYSTEM 'http://127.0.0.1:9/x.dtd' ["
            "<!ENTITY e 'EXPANDED'><!ENTITY x SYSTEM 'file:///etc/passwd'>]>"
            "<c>&e;&x;</c>");
  auto refused = QVXMLParser::documentAtPath((dir / "entities.xml").string());
  ASSERT_FALSE(refused.ok());
  EXPECT_NE(refused.message().find("DOCTYPE"), std::string::npos);
  // Without a DOCTYPE an undeclared reference stays text.
  auto plain = parsed("<c>&e;&#65;&amp;</c>");
  EXPECT_EQ(QVXMLParser::stringValueForQuery("/c", *plain), "&e;A&");

  writeText(dir / "not.xml", "PK\x03\x04 this is a zip, not XML");
  EXPECT_FALSE(QVXMLParser::documentAtPath((dir / "not.xml").string()).ok());
  EXPECT_FALSE(QVXMLParser::documentAtPath((dir / "missing.xml").string()).ok());
  // 50 MB, refused by its size before a byte is read.
  { std::ofstream big(dir / "big.xml"); }
  fs::resize_file(dir / "big.xml", 50u << 20);
  auto big = QVXMLParser::documentAtPath((dir / "big.xml").string());
  ASSERT_FALSE(big.ok());
  EXPECT_NE(big.message().find("larger than"), std::string::npos);
  // A pipe in its place is refused, not waited on.
  ASSERT_EQ(::mkfifo((dir / "pipe.xml").c_str(), 0600), 0);
  EXPECT_FALSE(QVXMLParser::documentAtPath((dir / "pipe.xml").string()).ok());
  // Deep nesting parses and queries without recursion.
  std::string nested;
  for (int i = 0; i < 20000; ++i) {
    nested += "<a>";
  }
  nested += "v";
  for (int i = 0; i < 20000; ++i) {
    nested += "</a>";
  }
  auto deep = parsed(nested);
  EXPECT_EQ(QVXMLParser::stringValueForQuery("/a", *deep), "v");
}

} // namespace
} // namespace kestrin
