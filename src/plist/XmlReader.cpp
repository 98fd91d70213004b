// Reading XML property lists: the project's own reader, for every document, whoever wrote it.
//
// One pass, no recursion, straight into a Value through TreeBuilder, which charges every value
// against the caller's limits. It reads what the platform's and the system library's writers
// produce and what people write by hand (comments anywhere, CDATA, character references,
// attributes, white space around numbers, hexadecimal integers, dates with fractions), and
// refuses with a clear message what no property list holds: NUL characters, text that is not
// UTF-8, unknown elements or entities, a DOCTYPE with its own declarations, loose text.
#include "plist/PropertyList.h"

#include <cerrno>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fmt/format.h>
#include <locale.h>

#include "plist/IsoDate.h"
#include "plist/Text.h"
#include "plist/TreeBuilder.h"

namespace kestrin::plist {

namespace {

bool isXmlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isXmlSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

// For error texts, which end up in the log: a value as written, cut short, control characters
// shown as '?' so that no line can be forged.
std::string quoted(std::string_view text) {
  constexpr std::size_t kShown = 40;
  std::string shown(text.substr(0, kShown));
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20) {
      c = '?';
    }
  }
  return fmt::format("\"{}{}\"", shown, text.size() > kShown ? "..." : "");
}

// Decimal or "0x" hexadecimal with an optional sign. Values from 2^63 to 2^64-1 keep their 64
// bits (the system library writes negative numbers that way in binary property lists); below
// -2^63 or above 2^64-1 is refused.
std::optional<std::int64_t> readInteger(std::string_view text) {
  text = trimmed(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  if (negative) {
    constexpr std::uint64_t kMostNegative = std::uint64_t{1} << 63;
    if (magnitude > kMostNegative) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(~magnitude + 1);
  }
  return static_cast<std::int64_t>(magnitude);
}

// A decimal number, "nan", or an infinity written "inf", "infinity" or "+infinity" (any case).
// Numbers past the range of a double read as the infinity or zero they round to.
std::optional<double> readReal(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-') || text.starts_with('+')) {
      return std::nullopt;
    }
  }
  double d = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), d);
  if (text.empty() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  if (error == std::errc::result_out_of_range) {
    // from_chars leaves the value alone when it overflows or underflows; strtod says which.
    static const locale_t c = newlocale(LC_ALL_MASK, "C", nullptr);
    std::string copy(text);
    d = strtod_l(copy.c_str(), nullptr, c);
  } else if (error != std::errc()) {
    return std::nullopt;
  }
  return d;
}

// Base64 with white space anywhere; the final group may lack its padding.
std::optional<Data> readBase64(std::string_view text) {
  Data out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;
  int filled = 0;
  int padding = 0;
  for (char c : text) {
    int v;
    if (c >= 'A' && c <= 'Z') {
      v = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      v = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      v = c - '0' + 52;
    } else if (c == '+') {
      v = 62;
    } else if (c == '/') {
      v = 63;
    } else if (isXmlSpace(c)) {
      continue;
    } else if (c == '=' && filled >= 2) {
      ++padding;
      v = 0;
    } else {
      return std::nullopt;
    }
    if (padding > 0 && c != '=') {
      return std::nullopt; // data after padding
    }
    group = (group << 6) | static_cast<std::uint32_t>(v);
    if (++filled == 4) {
      out.push_back(static_cast<std::uint8_t>(group >> 16));
      if (padding < 2) {
        out.push_back(static_cast<std::uint8_t>(group >> 8));
      }
      if (padding < 1) {
        out.push_back(static_cast<std::uint8_t>(group));
      }
      group = 0;
      filled = 0;
      if (padding > 0) {
        padding = 3; // nothing may follow a padded group, not even more padding
      }
    }
  }
  if (padding == 3 && filled == 0) {
    return out;
  }
  if (padding > 0 || filled == 1) {
    return std::nullopt;
  }
  if (filled >= 2) {
    group <<= 6 * (4 - filled);
    out.push_back(static_cast<std::uint8_t>(group >> 16));
    if (filled == 3) {
      out.push_back(static_cast<std::uint8_t>(group >> 8));
    }
  }
  return out;
}

class XmlReader {
public:
  XmlReader(std::string_view text, const ReadLimits& limits) : text_(text), builder_(limits) {}

  Expected<Value> read();

private:
  struct Tag {
    std::string_view name;
    bool empty; // "<name/>"
  };

  Failure fail(std::string_view what) const {
    return Failure{fmt::format("malformed XML property list: {} (at byte {})", what, pos_)};
  }
  bool at(std::string_view literal) const { return text_.substr(pos_).starts_with(literal); }
  bool consume(std::string_view literal) {
    if (!at(literal)) {
      return false;
    }
    pos_ += literal.size();
    return true;
  }
  void skipSpace() {
    while (pos_ < text_.size() && isXmlSpace(text_[pos_])) {
      ++pos_;
    }
  }
  Expected<void> skipPast(std::string_view terminator, std::string_view what);
  Expected<void> skipMisc();
  Expected<void> skipDoctype();
  Expected<Tag> openTag();
  Expected<void> closeTag(std::string_view name);
  Expected<void> appendEntity(std::string& out);
  Expected<std::string_view> content(std::string_view name, std::string& scratch);
  Expected<void> element(const Tag& tag);
  Expected<void> scalar(const Tag& tag);

  std::string_view text_;
  std::size_t pos_ = 0;
  TreeBuilder builder_;
};

Expected<void> XmlReader::skipPast(std::string_view terminator, std::string_view what) {
  auto end = text_.find(terminator, pos_);
  if (end == std::string_view::npos) {
    return fail(fmt::format("unterminated {}", what));
  }
  pos_ = end + terminator.size();
  return {};
}

// White space, comments and processing instructions (the XML declaration among them).
Expected<void> XmlReader::skipMisc() {
  for (;;) {
    skipSpace();
    if (consume("<!--")) {
      if (auto skipped = skipPast("-->", "comment"); !skipped) {
        return skipped;
      }
    } else if (consume("<?")) {
      if (auto skipped = skipPast("?>", "processing instruction"); !skipped) {
        return skipped;
      }
    } else {
      return {};
    }
  }
}

// The document type names the DTD; declarations of its own ("[...]") could define entities,
// which no property list needs, so they are refused rather than ignored.
Expected<void> XmlReader::skipDoctype() {
  char quote = 0;
  for (; pos_ < text_.size(); ++pos_) {
    const char c = text_[pos_];
    if (quote != 0) {
      quote = c == quote ? 0 : quote;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '[') {
      return fail("a DOCTYPE with declarations of its own");
    } else if (c == '>') {
      ++pos_;
      return {};
    }
  }
  return fail("unterminated DOCTYPE");
}

// At '<' of a start tag. Attributes are read over and ignored.
Expected<XmlReader::Tag> XmlReader::openTag() {
  ++pos_;
  const std::size_t start = pos_;
  while (pos_ < text_.size() && !isXmlSpace(text_[pos_]) && text_[pos_] != '/' &&
         text_[pos_] != '>') {
    ++pos_;
  }
  Tag tag{text_.substr(start, pos_ - start), false};
  if (tag.name.empty()) {
    return fail("a tag without a name");
  }
  for (;;) {
    skipSpace();
    if (consume("/>")) {
      tag.empty = true;
      return tag;
    }
    if (consume(">")) {
      return tag;
    }
    const std::size_t nameStart = pos_;
    while (pos_ < text_.size() && !isXmlSpace(text_[pos_]) && text_[pos_] != '=' &&
           text_[pos_] != '>' && text_[pos_] != '/') {
      ++pos_;
    }
    const bool named = pos_ > nameStart;
    skipSpace();
    if (!named || !consume("=")) {
      return fail(fmt::format("a malformed attribute in <{}>", tag.name));
    }
    skipSpace();
    const char quote = pos_ < text_.size() ? text_[pos_] : 0;
    if (quote != '"' && quote != '\'') {
      return fail(fmt::format("an unquoted attribute in <{}>", tag.name));
    }
    auto end = text_.find(quote, pos_ + 1);
    if (end == std::string_view::npos ||
        text_.substr(pos_, end - pos_).find('<') != std::string_view::npos) {
      return fail(fmt::format("an unterminated attribute in <{}>", tag.name));
    }
    pos_ = end + 1;
  }
}

// At "</".
Expected<void> XmlReader::closeTag(std::string_view name) {
  pos_ += 2;
  if (!consume(name)) {
    return fail(fmt::format("</{}> expected", name));
  }
  skipSpace();
  if (!consume(">")) {
    return fail(fmt::format("</{}> expected", name));
  }
  return {};
}

// At '&': the five named entities and character references.
Expected<void> XmlReader::appendEntity(std::string& out) {
  auto end = text_.find(';', pos_);
  if (end == std::string_view::npos || end - pos_ > 12) {
    return fail("an unterminated entity");
  }
  std::string_view name = text_.substr(pos_ + 1, end - pos_ - 1);
  if (name == "amp") {
    out += '&';
  } else if (name == "lt") {
    out += '<';
  } else if (name == "gt") {
    out += '>';
  } else if (name == "quot") {
    out += '"';
  } else if (name == "apos") {
    out += '\'';
  } else if (name.starts_with('#') && name.size() > 1) {
    std::string_view digits = name.substr(1);
    int base = 10;
    if (digits.starts_with('x')) {
      base = 16;
      digits.remove_prefix(1);
    }
    std::uint32_t code = 0;
    auto [ptr, error] = std::from_chars(digits.data(), digits.data() + digits.size(), code, base);
    if (digits.empty() || error != std::errc() || ptr != digits.data() + digits.size() ||
        code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return fail(fmt::format("an invalid character reference &{};", name));
    }
    if (code == 0) {
      return fail("a NUL character");
    }
    text::appendUtf8(out, code);
  } else {
    return fail(fmt::format("an unknown entity &{};", name));
  }
  pos_ = end + 1;
  return {};
}

// The text of an element up to its end tag, which is consumed: entities decoded, CDATA taken
// as it stands, comments and processing instructions left out. A view into the document when
// the text holds none of them, else into `scratch`.
Expected<std::string_view> XmlReader::content(std::string_view name, std::string& scratch) {
  const char* base = text_.data();
  const auto* lt = static_cast<const char*>(std::memchr(base + pos_, '<', text_.size() - pos_));
  if (lt != nullptr &&
      std::memchr(base + pos_, '&', static_cast<std::size_t>(lt - base) - pos_) == nullptr) {
    const std::size_t start = pos_;
    pos_ = static_cast<std::size_t>(lt - base);
    if (at("</")) {
      if (auto closed = closeTag(name); !closed) {
        return closed.failure();
      }
      return text_.substr(start, static_cast<std::size_t>(lt - base) - start);
    }
    pos_ = start;
  }
  scratch.clear();
  for (;;) {
    const std::size_t stop = text_.find_first_of("<&", pos_);
    if (stop == std::string_view::npos) {
      return fail(fmt::format("<{}> is not closed", name));
    }
    scratch.append(text_.substr(pos_, stop - pos_));
    pos_ = stop;
    if (text_[stop] == '&') {
      if (auto entity = appendEntity(scratch); !entity) {
        return entity.failure();
      }
    } else if (at("</")) {
      if (auto closed = closeTag(name); !closed) {
        return closed.failure();
      }
      return std::string_view(scratch);
    } else if (consume("<![CDATA[")) {
      auto end = text_.find("]]>", pos_);
      if (end == std::string_view::npos) {
        return fail("unterminated CDATA");
      }
      scratch.append(text_.substr(pos_, end - pos_));
      pos_ = end + 3;
    } else if (consume("<!--")) {
      if (auto skipped = skipPast("-->", "comment"); !skipped) {
        return skipped.failure();
      }
    } else if (consume("<?")) {
      if (auto skipped = skipPast("?>", "processing instruction"); !skipped) {
        return skipped.failure();
      }
    } else {
      return fail(fmt::format("an element inside <{}>", name));
    }
  }
}

Expected<void> XmlReader::scalar(const Tag& tag) {
  std::string scratch;
  std::string_view text;
  if (!tag.empty) {
    auto read = content(tag.name, scratch);
    if (!read) {
      return read.failure();
    }
    text = *read;
  }
  const std::string_view name = tag.name;
  if (name == "key") {
    if (!builder_.inDictionary() || builder_.awaitingValue()) {
      return fail("a <key> where a value belongs");
    }
    return builder_.key(std::string(text));
  }
  if (name == "string") {
    return builder_.add(Value(std::string(text)));
  }
  if (name == "true" || name == "false") {
    if (!trimmed(text).empty()) {
      return fail(fmt::format("text inside <{}>", name));
    }
    return builder_.add(Value(name == "true"));
  }
  if (name == "integer") {
    auto n = readInteger(text);
    if (!n) {
      return fail(fmt::format("<integer> holds {}, not a 64-bit integer", quoted(text)));
    }
    return builder_.add(Value(*n));
  }
  if (name == "real") {
    auto d = readReal(text);
    if (!d) {
      return fail(fmt::format("<real> holds {}, not a number", quoted(text)));
    }
    return builder_.add(Value(*d));
  }
  if (name == "date") {
    auto date = parseIsoDate(trimmed(text), DateSyntax::PropertyList);
    if (!date) {
      return fail(fmt::format("<date> holds {}, not a date of the years 1 to 9999", quoted(text)));
    }
    return builder_.add(Value(*date));
  }
  if (name == "data") {
    auto bytes = readBase64(text);
    if (!bytes) {
      return fail("<data> holds text that is not base64");
    }
    return builder_.add(Value(std::move(*bytes)));
  }
  return fail(fmt::format("an unknown element <{}>", name));
}

Expected<void> XmlReader::element(const Tag& tag) {
  const bool dictionary = tag.name == "dict";
  if (dictionary || tag.name == "array") {
    auto begun = dictionary ? builder_.beginDictionary() : builder_.beginArray();
    if (!begun) {
      return begun;
    }
    return tag.empty ? builder_.end() : Expected<void>();
  }
  if (tag.name == "plist") {
    return fail("a <plist> inside a property list");
  }
  return scalar(tag);
}

Expected<Value> XmlReader::read() {
  if (auto misc = skipMisc(); !misc) {
    return misc.failure();
  }
  if (consume("<!DOCTYPE")) {
    if (auto doctype = skipDoctype(); !doctype) {
      return doctype.failure();
    }
    if (auto misc = skipMisc(); !misc) {
      return misc.failure();
    }
  }
  if (!at("<plist")) {
    return fail("no <plist> element");
  }
  auto plist = openTag();
  if (!plist) {
    return plist.failure();
  }
  if (plist->name != "plist" || plist->empty) {
    return fail("no <plist> element with a value");
  }
  for (;;) {
    if (auto misc = skipMisc(); !misc) {
      return misc.failure();
    }
    if (pos_ == text_.size()) {
      return fail("the document ends inside <plist>");
    }
    if (at("</")) {
      if (builder_.done()) {
        if (auto closed = closeTag("plist"); !closed) {
          return closed.failure();
        }
        break;
      }
      if (!builder_.inDictionary() && !builder_.inArray()) {
        return fail("<plist> holds no value");
      }
      if (auto closed = closeTag(builder_.inDictionary() ? "dict" : "array"); !closed) {
        return closed.failure();
      }
      if (auto ended = builder_.end(); !ended) {
        return ended.failure();
      }
      continue;
    }
    if (text_[pos_] != '<' || at("<!")) {
      return fail("text outside an element");
    }
    auto tag = openTag();
    if (!tag) {
      return tag.failure();
    }
    if (builder_.done()) {
      return fail("more than one value in <plist>");
    }
    if (auto read = element(*tag); !read) {
      return read.failure();
    }
  }
  if (auto misc = skipMisc(); !misc) {
    return misc.failure();
  }
  if (pos_ != text_.size()) {
    return fail("text after </plist>");
  }
  return std::move(builder_).take();
}

} // namespace

Expected<Value> parseXml(std::string_view text, const ReadLimits& limits) {
  if (text.size() > limits.maxBytes) {
    return Failure{fmt::format("property list of {} bytes is larger than the {} a read may take",
                               text.size(), limits.maxBytes)};
  }
  if (std::memchr(text.data(), '\0', text.size()) != nullptr) {
    return Failure{"malformed XML property list: it holds a NUL character"};
  }
  if (!text::isValidUtf8(text)) {
    return Failure{"malformed XML property list: it is not valid UTF-8"};
  }
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  return XmlReader(text, limits).read();
}

} // namespace kestrin::plist
