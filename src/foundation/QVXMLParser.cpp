#include "foundation/QVXMLParser.h"

#include <algorithm>

#include <pugixml.hpp>

#include "foundation/BundleInfoFile.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

// Parsing flags: the defaults (character data, the five entities and character references,
// attribute white space, line ends) plus DOCTYPE nodes, so that a document carrying one can
// be seen and refused rather than silently skipped.
constexpr unsigned kParseFlags = pugi::parse_default | pugi::parse_doctype;

// The UTF-16 units of UTF-8 text. A byte that does not start a well-formed sequence stands
// for itself (its Latin-1 character), so every input has units and nothing is lost.
std::vector<char16_t> utf16Units(std::string_view text) {
  std::vector<char16_t> units;
  units.reserve(text.size());
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (std::size_t i = 0; i < text.size();) {
    unsigned char lead = byte(i);
    std::size_t length = lead < 0x80           ? 1
                         : (lead >> 5) == 0x06 ? 2
                         : (lead >> 4) == 0x0E ? 3
                         : (lead >> 3) == 0x1E ? 4
                                               : 0;
    char32_t point = length == 1   ? lead
                     : length == 2 ? lead & 0x1Fu
                     : length == 3 ? lead & 0x0Fu
                                   : lead & 0x07u;
    bool valid = length != 0 && i + length <= text.size();
    for (std::size_t k = 1; valid && k < length; ++k) {
      valid = (byte(i + k) & 0xC0) == 0x80;
      point = point << 6 | (byte(i + k) & 0x3Fu);
    }
    // Overlong forms, surrogates and points beyond Unicode are not well-formed either.
    static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    valid = valid && point >= kLeast[length] && point <= 0x10FFFF &&
            !(point >= 0xD800 && point <= 0xDFFF);
    if (!valid) {
      units.push_back(lead);
      ++i;
      continue;
    }
    if (point >= 0x10000) {
      point -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (point >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (point & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(point));
    }
    i += length;
  }
  return units;
}

// A unit below 160 as UTF-8.
void appendUnit(std::string& out, char16_t unit) {
  if (unit < 0x80) {
    out.push_back(static_cast<char>(unit));
  } else {
    out.push_back(static_cast<char>(0xC0 | unit >> 6));
    out.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
  }
}

std::string asUtf8(char16_t unit) {
  std::string text;
  if (unit < 0x800) {
    appendUnit(text, unit);
  } else {
    text.push_back(static_cast<char>(0xE0 | unit >> 12));
    text.push_back(static_cast<char>(0x80 | (unit >> 6 & 0x3F)));
    text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
  }
  return text;
}

bool startsEntity(const std::vector<char16_t>& units, std::size_t at) {
  static constexpr char16_t kAmp[] = {u'&', u'a', u'm', u'p', u';'};
  if (units.size() - at < 5) {
    return false;
  }
  return std::equal(std::begin(kAmp), std::end(kAmp), units.begin() + static_cast<long>(at));
}

std::optional<std::vector<pugi::xpath_node>>
select(std::string_view query, const pugi::xml_node& node, std::string* error) {
  try {
    pugi::xpath_query compiled(std::string(query).c_str());
    pugi::xpath_node_set found = compiled.evaluate_node_set(node);
    return std::vector<pugi::xpath_node>(found.begin(), found.end());
  } catch (const std::exception& e) { // xpath_exception, or bad_alloc on a huge result
    if (error != nullptr) {
      *error = e.what();
    }
    return std::nullopt;
  }
}

} // namespace

std::string QVXMLParser::escapeQueryString(std::string_view query) {
  return escapeQueryString(
      query, [](char16_t unit) { QVLog::appendLog("Stripped character {}", asUtf8(unit)); });
}

std::string QVXMLParser::escapeQueryString(std::string_view query,
                                           const std::function<void(char16_t)>& stripped) {
  std::vector<char16_t> units = utf16Units(query);
  std::string escaped;
  escaped.reserve(query.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    char16_t unit = units[i];
    if (unit >= 160) {
      escaped += "&#" + std::to_string(unit) + ";";
    } else if (unit == u'&') {
      escaped += startsEntity(units, i) ? "&" : "&amp;";
    } else if (unit == 13) {
      escaped += "&#13;";
    } else if (unit > 19) {
      appendUnit(escaped, unit);
    } else if (stripped) {
      stripped(unit);
    }
  }
  return escaped;
}

std::optional<std::string> QVXMLParser::stringValueForQuery(std::string_view query,
                                                            const pugi::xml_node& node) {
  auto found = select(escapeQueryString(query), node, nullptr);
  if (!found || found->empty()) {
    return std::nullopt;
  }
  return stringValue(found->front());
}

std::optional<std::vector<std::string>>
QVXMLParser::stringValuesForQuery(std::string_view query, const pugi::xml_node& node) {
  auto found = select(escapeQueryString(query), node, nullptr);
  if (!found || found->empty()) {
    return std::nullopt;
  }
  std::vector<std::string> values;
  for (const pugi::xpath_node& each : *found) {
    values.push_back(stringValue(each));
  }
  return values;
}

std::vector<pugi::xpath_node> QVXMLParser::nodesForQuery(std::string_view query,
                                                         const pugi::xml_node& node) {
  std::string error;
  auto found = select(query, node, &error);
  if (!found) {
    QVLog::appendLog("XML parsing error: {}", error);
    return {};
  }
  return std::move(*found);
}

std::optional<pugi::xpath_node> QVXMLParser::nodeForQuery(std::string_view query,
                                                          const pugi::xml_node& node) {
  auto found = nodesForQuery(query, node);
  if (found.empty()) {
    return std::nullopt;
  }
  return found.front();
}

std::string QVXMLParser::stringValue(const pugi::xpath_node& found) {
  if (found.attribute()) {
    return found.attribute().value();
  }
  pugi::xml_node top = found.node();
  if (top.type() != pugi::node_element && top.type() != pugi::node_document) {
    return top.value();
  }
  // Every text below, in document order, without recursion: documents may nest deeply.
  std::string text;
  for (pugi::xml_node at = top.first_child(); at && at != top;) {
    if (at.type() == pugi::node_pcdata || at.type() == pugi::node_cdata) {
      text += at.value();
    }
    if (at.first_child()) {
      at = at.first_child();
      continue;
    }
    while (at != top && !at.next_sibling()) {
      at = at.parent();
    }
    if (at != top) {
      at = at.next_sibling();
    }
  }
  return text;
}

Expected<std::shared_ptr<pugi::xml_document>>
QVXMLParser::documentFromData(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > kDocumentLimit) {
    return Failure{"XML document larger than " + std::to_string(kDocumentLimit) + " bytes"};
  }
  auto document = std::make_shared<pugi::xml_document>();
  pugi::xml_parse_result parsed = document->load_buffer(bytes.data(), bytes.size(), kParseFlags);
  if (!parsed) {
    return Failure{std::string("XML document malformed: ") + parsed.description() + " at offset " +
                   std::to_string(parsed.offset)};
  }
  for (pugi::xml_node child : document->children()) {
    if (child.type() == pugi::node_doctype) {
      return Failure{"XML document with a DOCTYPE refused"};
    }
  }
  if (!document->document_element()) {
    return Failure{"XML document without an element"};
  }
  return document;
}

Expected<std::shared_ptr<pugi::xml_document>> QVXMLParser::documentAtPath(const std::string& path) {
  auto bytes = readSmallFile(path, kDocumentLimit);
  if (!bytes) {
    return bytes.failure();
  }
  return documentFromData(*bytes);
}

} // namespace kestrin
