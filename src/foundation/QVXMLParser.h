#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/Expected.h"

namespace pugi {
class xml_document;
class xml_node;
class xpath_node;
} // namespace pugi

namespace kestrin {

// XPath queries on XML documents, and the reading of those documents. Class-level and
// stateless; any thread may call it.
//
// Documents come from files that anyone who can write an application folder controls, so they
// are read within kDocumentLimit bytes and parsed without any document type: a DOCTYPE is
// refused outright, no entity other than XML's five and character references is ever expanded
// and no external DTD is loaded (the parser has no such feature; the refusal makes that plain).
class QVXMLParser {
public:
  QVXMLParser() = delete;

  // The largest XML file read: the configuration files read here are a few kilobytes.
  static constexpr std::size_t kDocumentLimit = std::size_t{1} << 20;

  // The query text made safe, one UTF-16 unit at a time: units of 160 and above as "&#N;",
  // "&" as "&amp;" unless it already starts one, a carriage return as "&#13;", other control
  // units (0 to 19, tab and line feed included) dropped with "Stripped character <c>" in the
  // log. Text that is not UTF-8 is read a byte at a time as Latin-1.
  static std::string escapeQueryString(std::string_view query);
  // The same without the log: each dropped unit goes to `stripped`. Pure, total and bounded by
  // the input's length (at most 8 output bytes per input byte): the entry point for fuzzing.
  static std::string escapeQueryString(std::string_view query,
                                       const std::function<void(char16_t)>& stripped);

  // The string value of the first node the escaped query finds, or nullopt; query errors are
  // ignored.
  static std::optional<std::string> stringValueForQuery(std::string_view query,
                                                        const pugi::xml_node& node);
  // The string values of every node the escaped query finds; nullopt when it finds none.
  static std::optional<std::vector<std::string>> stringValuesForQuery(std::string_view query,
                                                                      const pugi::xml_node& node);
  // The nodes the query (as given) finds. A query that does not compile or evaluate is logged
  // as "XML parsing error: <why>" and finds nothing.
  static std::vector<pugi::xpath_node> nodesForQuery(std::string_view query,
                                                     const pugi::xml_node& node);
  static std::optional<pugi::xpath_node> nodeForQuery(std::string_view query,
                                                      const pugi::xml_node& node);

  // The string value of a node as XPath defines it: an element's text and that of everything
  // inside it, an attribute's value.
  static std::string stringValue(const pugi::xpath_node& node);

  // A document from bytes or from a file; a Failure for text over the limit, malformed XML or
  // a DOCTYPE.
  static Expected<std::shared_ptr<pugi::xml_document>>
  documentFromData(std::span<const std::uint8_t> bytes);
  static Expected<std::shared_ptr<pugi::xml_document>> documentAtPath(const std::string& path);
};

} // namespace kestrin
