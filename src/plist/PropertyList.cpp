#include "plist/PropertyList.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <memory>

#include <plist/plist.h>

#include "platform/AtomicFile.h"

namespace kestrin::plist {

namespace {

// Nesting deeper than this is refused rather than risking the stack on hostile input.
constexpr int kMaxDepth = 512;

struct NodeDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// ---- libplist -> Value

Expected<Value> fromNode(plist_t node, int depth);

Expected<Value> fromNode(plist_t node, int depth) {
  if (depth > kMaxDepth) {
    return Failure{"property list nested too deeply"};
  }
  switch (plist_get_node_type(node)) {
  case PLIST_BOOLEAN: {
    std::uint8_t b = 0;
    plist_get_bool_val(node, &b);
    return Value(b != 0);
  }
  case PLIST_UINT: {
    std::uint64_t u = 0;
    plist_get_uint_val(node, &u);
    return Value(static_cast<std::int64_t>(u));
  }
  case PLIST_UID: {
    std::uint64_t u = 0;
    plist_get_uid_val(node, &u);
    return Value(static_cast<std::int64_t>(u));
  }
  case PLIST_REAL: {
    double d = 0;
    plist_get_real_val(node, &d);
    return Value(d);
  }
  case PLIST_STRING: {
    // Borrowed, not copied: the node outlives this call.
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return Value(text ? std::string(text, length) : std::string());
  }
  case PLIST_KEY: {
    char* raw = nullptr;
    plist_get_key_val(node, &raw);
    std::unique_ptr<char, FreeDeleter> owned(raw);
    return Value(std::string(raw ? raw : ""));
  }
  case PLIST_DATA: {
    std::uint64_t length = 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
    return Value(bytes ? Data(bytes, bytes + length) : Data());
  }
  case PLIST_DATE: {
    std::int32_t sec = 0;
    std::int32_t usec = 0;
    plist_get_date_val(node, &sec, &usec);
    // libplist splits a negative binary date by truncation and keeps the fraction's magnitude
    // in usec, so the fraction counts away from zero. Dates in (-1, 0) lose their sign there.
    double fraction = static_cast<double>(usec) / 1e6;
    return Value(Date{sec < 0 ? sec - fraction : sec + fraction});
  }
  case PLIST_ARRAY: {
    Array array;
    array.reserve(plist_array_get_size(node));
    // An iterator, not plist_array_get_item: arrays read from XML have no index in libplist,
    // so fetching item i walks the list from the start and a long array costs O(n^2).
    plist_array_iter it = nullptr;
    plist_array_new_iter(node, &it);
    std::unique_ptr<void, FreeDeleter> ownedIter(it);
    for (;;) {
      plist_t child = nullptr;
      plist_array_next_item(node, it, &child);
      if (child == nullptr) {
        break;
      }
      auto item = fromNode(child, depth + 1);
      if (!item) {
        return item;
      }
      array.push_back(std::move(item).value());
    }
    return Value(std::move(array));
  }
  case PLIST_DICT: {
    Dictionary dict;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(node, &it);
    std::unique_ptr<void, FreeDeleter> ownedIter(it);
    for (;;) {
      char* key = nullptr;
      plist_t child = nullptr;
      plist_dict_next_item(node, it, &key, &child);
      if (child == nullptr) {
        std::free(key);
        break;
      }
      std::unique_ptr<char, FreeDeleter> ownedKey(key);
      auto item = fromNode(child, depth + 1);
      if (!item) {
        return item;
      }
      dict.set(key ? key : "", std::move(item).value());
    }
    return Value(std::move(dict));
  }
  case PLIST_NONE:
    break;
  }
  return Failure{"property list holds a node of unknown type"};
}

// ---- Value -> libplist

// libplist keeps dates as whole seconds plus microseconds and reads them back as
// sec + usec/1e6; splitting with floor keeps microseconds non-negative for negative dates.
plist_t newDate(double seconds) {
  double whole = std::floor(seconds);
  auto usec = static_cast<std::int32_t>(std::lround((seconds - whole) * 1e6));
  if (usec >= 1000000) {
    whole += 1;
    usec -= 1000000;
  }
  constexpr double lo = std::numeric_limits<std::int32_t>::min();
  constexpr double hi = std::numeric_limits<std::int32_t>::max();
  whole = std::clamp(whole, lo, hi);
  return plist_new_date(static_cast<std::int32_t>(whole), usec);
}

Expected<Node> toNode(const Value& value, int depth) {
  if (depth > kMaxDepth) {
    return Failure{"value nested too deeply for a property list"};
  }
  switch (value.kind()) {
  case Kind::Boolean:
    return Node(plist_new_bool(*value.asBool() ? 1 : 0));
  case Kind::Integer:
    return Node(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
  case Kind::Real:
    return Node(plist_new_real(*value.asReal()));
  case Kind::String:
    if (value.asString()->find('\0') != std::string::npos) {
      return Failure{"a string with a NUL character cannot be stored in a property list"};
    }
    return Node(plist_new_string(value.asString()->c_str()));
  case Kind::Data: {
    const Data& data = *value.asData();
    return Node(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
  }
  case Kind::Date:
    return Node(newDate(value.asDate()->seconds));
  case Kind::Array: {
    Node array(plist_new_array());
    for (const Value& item : *value.asArray()) {
      auto child = toNode(item, depth + 1);
      if (!child) {
        return child;
      }
      plist_array_append_item(array.get(), child->release());
    }
    return array;
  }
  case Kind::Dictionary: {
    Node dict(plist_new_dict());
    for (const auto& [key, item] : *value.asDictionary()) {
      if (key.find('\0') != std::string::npos) {
        return Failure{"a key with a NUL character cannot be stored in a property list"};
      }
      auto child = toNode(item, depth + 1);
      if (!child) {
        return child;
      }
      plist_dict_set_item(dict.get(), key.c_str(), child->release());
    }
    return dict;
  }
  case Kind::Null:
  case Kind::Error:
  case Kind::Object:
    break;
  }
  return Failure{std::string("a ") + std::string(kindName(value.kind())) +
                 " value cannot be stored in a property list"};
}

// ---- Value -> XML text
//
// Written directly rather than through a libplist tree: building and freeing a node per value
// cost twice as much as libplist's own writer. The output has libplist's layout (tab
// indentation, base64 in lines of 68 under the element's indentation) and reads back through
// parseXml to an equal value.

class XmlWriter {
public:
  Expected<void> write(const Value& value, int depth);
  std::string take() && { return std::move(out_); }

  void begin() {
    out_.reserve(4096);
    out_ += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n";
  }
  void end() { out_ += "</plist>\n"; }

private:
  void indent(int depth) { out_.append(static_cast<std::size_t>(depth), '\t'); }
  void escaped(std::string_view text);
  void element(int depth, std::string_view tag, std::string_view text);
  void real(double d);
  void date(double seconds);
  void data(const Data& bytes, int depth);

  std::string out_;
};

void XmlWriter::escaped(std::string_view text) {
  for (;;) {
    auto special = text.find_first_of("&<>");
    if (special == std::string_view::npos) {
      out_ += text;
      return;
    }
    out_ += text.substr(0, special);
    out_ += text[special] == '&' ? "&amp;" : text[special] == '<' ? "&lt;" : "&gt;";
    text.remove_prefix(special + 1);
  }
}

void XmlWriter::element(int depth, std::string_view tag, std::string_view text) {
  indent(depth);
  out_ += '<';
  out_ += tag;
  out_ += '>';
  out_ += text;
  out_ += "</";
  out_ += tag;
  out_ += ">\n";
}

void XmlWriter::real(double d) {
  if (std::isnan(d)) {
    out_ += "nan";
  } else if (std::isinf(d)) {
    out_ += d > 0 ? "+infinity" : "-infinity";
  } else {
    // The shortest text that reads back as the same double.
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
    out_.append(buffer, result.ptr);
  }
}

void XmlWriter::date(double seconds) {
  // The same whole seconds as newDate: XML keeps no fraction, and libplist reads dates back
  // through a 32-bit count, so dates outside its range are written at its edge.
  constexpr double lo = std::numeric_limits<std::int32_t>::min();
  constexpr double hi = std::numeric_limits<std::int32_t>::max();
  double whole = std::isnan(seconds) ? 0 : std::clamp(std::floor(seconds), lo, hi);
  auto unix = static_cast<std::time_t>(whole + Date::kUnixOffset);
  std::tm utc{};
  gmtime_r(&unix, &utc);
  char text[32];
  std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  out_.append(text, n);
}

void XmlWriter::data(const Data& bytes, int depth) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  constexpr std::size_t kLine = 68;
  indent(depth);
  out_ += "<data>\n";
  std::size_t column = 0;
  auto put = [&](char c) {
    if (column == 0) {
      indent(depth);
    }
    out_ += c;
    if (++column == kLine) {
      out_ += '\n';
      column = 0;
    }
  };
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    put(kAlphabet[(v >> 18) & 63]);
    put(kAlphabet[(v >> 12) & 63]);
    put(kAlphabet[(v >> 6) & 63]);
    put(kAlphabet[v & 63]);
  }
  if (std::size_t rest = bytes.size() - i) {
    std::uint32_t v = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
    put(kAlphabet[(v >> 18) & 63]);
    put(kAlphabet[(v >> 12) & 63]);
    put(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    put('=');
  }
  if (column != 0) {
    out_ += '\n';
  }
  indent(depth);
  out_ += "</data>\n";
}

Expected<void> XmlWriter::write(const Value& value, int depth) {
  if (depth > kMaxDepth) {
    return Failure{"value nested too deeply for a property list"};
  }
  switch (value.kind()) {
  case Kind::Boolean:
    indent(depth);
    out_ += *value.asBool() ? "<true/>\n" : "<false/>\n";
    return {};
  case Kind::Integer: {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, *value.asInteger());
    element(depth, "integer", std::string_view(buffer, result.ptr - buffer));
    return {};
  }
  case Kind::Real:
    indent(depth);
    out_ += "<real>";
    real(*value.asReal());
    out_ += "</real>\n";
    return {};
  case Kind::String: {
    const std::string& text = *value.asString();
    if (text.find('\0') != std::string::npos) {
      return Failure{"a string with a NUL character cannot be stored in a property list"};
    }
    indent(depth);
    out_ += "<string>";
    escaped(text);
    out_ += "</string>\n";
    return {};
  }
  case Kind::Data:
    data(*value.asData(), depth);
    return {};
  case Kind::Date:
    indent(depth);
    out_ += "<date>";
    date(value.asDate()->seconds);
    out_ += "</date>\n";
    return {};
  case Kind::Array: {
    const Array& array = *value.asArray();
    indent(depth);
    if (array.empty()) {
      out_ += "<array/>\n";
      return {};
    }
    out_ += "<array>\n";
    for (const Value& item : array) {
      if (auto written = write(item, depth + 1); !written) {
        return written;
      }
    }
    indent(depth);
    out_ += "</array>\n";
    return {};
  }
  case Kind::Dictionary: {
    const Dictionary& dict = *value.asDictionary();
    indent(depth);
    if (dict.empty()) {
      out_ += "<dict/>\n";
      return {};
    }
    out_ += "<dict>\n";
    for (const auto& [key, item] : dict) {
      if (key.find('\0') != std::string::npos) {
        return Failure{"a key with a NUL character cannot be stored in a property list"};
      }
      indent(depth + 1);
      out_ += "<key>";
      escaped(key);
      out_ += "</key>\n";
      if (auto written = write(item, depth + 1); !written) {
        return written;
      }
    }
    indent(depth);
    out_ += "</dict>\n";
    return {};
  }
  case Kind::Null:
  case Kind::Error:
  case Kind::Object:
    break;
  }
  return Failure{std::string("a ") + std::string(kindName(value.kind())) +
                 " value cannot be stored in a property list"};
}

constexpr std::string_view kBinaryMagic = "bplist00";

bool looksBinary(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= kBinaryMagic.size() &&
         std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) == 0;
}

// libplist accepts trailing garbage and missing end tags in places; insist that the document
// at least closes its plist element.
bool xmlLooksComplete(std::string_view text) {
  auto end = text.find_last_not_of(" \t\r\n");
  if (end == std::string_view::npos) {
    return false;
  }
  text = text.substr(0, end + 1);
  return text.ends_with("</plist>") || text.ends_with("<plist/>");
}

// ---- XML text -> Value, the common case
//
// The documents the agent reads (tools' output, settings files) are plain property lists as
// the platform writes them. Those are read here in one pass straight into a Value, without
// libplist's intermediate tree, which doubled the cost of a parse. Anything outside that plain
// form (CDATA, comments inside text, unknown entities, attributes, loose text, dates with
// fractions, numbers that libplist reads leniently, a DOCTYPE with an internal subset, ...)
// makes the reader give up, and libplist reads the document instead; its verdict stands. The
// rule for this reader is therefore: accept only what libplist reads to the same value.
class PlainXmlReader {
public:
  explicit PlainXmlReader(std::string_view text) : text_(text) {}

  std::optional<Value> document();

private:
  std::optional<Value> value(int depth);
  std::optional<Value> dictionary(int depth);
  std::optional<Value> array(int depth);
  // Character data up to "</tag>", entities decoded; the close tag is consumed.
  std::optional<std::string> text(std::string_view tag);
  // Content without markup or entities up to "</tag>"; the close tag is consumed.
  std::optional<std::string_view> raw(std::string_view tag);
  bool closeTag(std::string_view tag);
  bool appendEntity(std::string& out);
  void skipSpace();
  // White space and comments between elements.
  bool skipMisc();
  bool consume(std::string_view literal) {
    if (text_.substr(pos_).starts_with(literal)) {
      pos_ += literal.size();
      return true;
    }
    return false;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

bool isXmlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

void PlainXmlReader::skipSpace() {
  while (pos_ < text_.size() && isXmlSpace(text_[pos_])) {
    ++pos_;
  }
}

bool PlainXmlReader::skipMisc() {
  for (;;) {
    skipSpace();
    if (!consume("<!--")) {
      return true;
    }
    auto end = text_.find("-->", pos_);
    if (end == std::string_view::npos) {
      return false;
    }
    pos_ = end + 3;
  }
}

std::optional<Value> PlainXmlReader::document() {
  if (consume("<?xml")) {
    auto end = text_.find("?>", pos_);
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    pos_ = end + 2;
  }
  if (!skipMisc()) {
    return std::nullopt;
  }
  if (consume("<!DOCTYPE")) {
    auto end = text_.find('>', pos_);
    if (end == std::string_view::npos ||
        text_.substr(pos_, end - pos_).find('[') != std::string_view::npos) {
      return std::nullopt;
    }
    pos_ = end + 1;
  }
  if (!skipMisc() || !consume("<plist")) {
    return std::nullopt;
  }
  auto end = text_.find('>', pos_);
  if (end == std::string_view::npos || text_[end - 1] == '/' ||
      (end > pos_ && !isXmlSpace(text_[pos_]))) {
    return std::nullopt;
  }
  pos_ = end + 1;
  if (!skipMisc()) {
    return std::nullopt;
  }
  auto root = value(0);
  if (!root || !skipMisc() || !consume("</plist>")) {
    return std::nullopt;
  }
  skipSpace();
  if (pos_ != text_.size()) {
    return std::nullopt;
  }
  return root;
}

bool PlainXmlReader::closeTag(std::string_view tag) {
  if (consume("</") && consume(tag) && consume(">")) {
    return true;
  }
  return false;
}

bool PlainXmlReader::appendEntity(std::string& out) {
  // At '&'. Only the five named entities and character references.
  auto end = text_.find(';', pos_);
  if (end == std::string_view::npos || end - pos_ > 12) {
    return false;
  }
  std::string_view name = text_.substr(pos_ + 1, end - pos_ - 1);
  pos_ = end + 1;
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
    int base = 10;
    name.remove_prefix(1);
    if (name.starts_with('x')) {
      base = 16;
      name.remove_prefix(1);
    }
    std::uint32_t code = 0;
    auto [ptr, error] = std::from_chars(name.data(), name.data() + name.size(), code, base);
    if (error != std::errc() || ptr != name.data() + name.size() || name.empty() || code == 0 ||
        code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  } else {
    return false;
  }
  return true;
}

std::optional<std::string> PlainXmlReader::text(std::string_view tag) {
  std::string out;
  for (;;) {
    auto stop = text_.find_first_of("<&", pos_);
    if (stop == std::string_view::npos) {
      return std::nullopt;
    }
    out.append(text_.substr(pos_, stop - pos_));
    pos_ = stop;
    if (text_[stop] == '<') {
      break;
    }
    if (!appendEntity(out)) {
      return std::nullopt;
    }
  }
  if (!closeTag(tag)) {
    return std::nullopt;
  }
  return out;
}

std::optional<std::string_view> PlainXmlReader::raw(std::string_view tag) {
  auto stop = text_.find_first_of("<&", pos_);
  if (stop == std::string_view::npos || text_[stop] == '&') {
    return std::nullopt;
  }
  std::string_view content = text_.substr(pos_, stop - pos_);
  pos_ = stop;
  if (!closeTag(tag)) {
    return std::nullopt;
  }
  return content;
}

std::optional<std::int64_t> plainInteger(std::string_view digits) {
  std::int64_t n = 0;
  auto [ptr, error] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
  if (error != std::errc() || ptr != digits.data() + digits.size()) {
    return std::nullopt;
  }
  return n;
}

std::optional<double> plainReal(std::string_view text) {
  if (text == "+infinity") {
    return std::numeric_limits<double>::infinity();
  }
  double d = 0;
  auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), d);
  if (text.empty() || error != std::errc() || ptr != text.data() + text.size()) {
    return std::nullopt;
  }
  return d;
}

// "2001-01-01T00:00:00Z" exactly, within libplist's 32-bit range of seconds.
std::optional<Date> plainDate(std::string_view text) {
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  auto field = [&](std::size_t at, std::size_t length) -> int {
    int n = 0;
    for (std::size_t i = at; i < at + length; ++i) {
      if (text[i] < '0' || text[i] > '9') {
        return -1;
      }
      n = n * 10 + (text[i] - '0');
    }
    return n;
  };
  int year = field(0, 4), month = field(5, 2), day = field(8, 2);
  int hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
  static constexpr int kDaysIn[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 0 || month < 1 || month > 12 || day < 1 || day > kDaysIn[month - 1] || hour < 0 ||
      hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
    return std::nullopt;
  }
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (month == 2 && day == 29 && !leap) {
    return std::nullopt;
  }
  // Days from 1970-01-01 to the civil date (H. Hinnant's algorithm).
  int y = year - (month <= 2);
  int era = y / 400;
  int yoe = y - era * 400;
  int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  std::int64_t days = static_cast<std::int64_t>(era) * 146097 + doe - 719468;
  std::int64_t unix = days * 86400 + hour * 3600 + minute * 60 + second;
  std::int64_t seconds = unix - static_cast<std::int64_t>(Date::kUnixOffset);
  if (seconds < std::numeric_limits<std::int32_t>::min() ||
      seconds > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return Date{static_cast<double>(seconds)};
}

// Base64 with white space anywhere and padding only at the end; a partial group gives up.
std::optional<Data> plainBase64(std::string_view text) {
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
    } else if (c == '=') {
      v = 0;
      ++padding;
    } else if (isXmlSpace(c)) {
      continue;
    } else {
      return std::nullopt;
    }
    if (padding > 0 && c != '=') {
      return std::nullopt; // data after padding
    }
    group = (group << 6) | static_cast<std::uint32_t>(v);
    if (++filled == 4) {
      if (padding > 2) {
        return std::nullopt;
      }
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
        padding = 3; // nothing may follow a padded group
      }
    }
  }
  if (filled != 0) {
    return std::nullopt;
  }
  return out;
}

std::optional<Value> PlainXmlReader::dictionary(int depth) {
  Dictionary dict;
  for (;;) {
    if (!skipMisc()) {
      return std::nullopt;
    }
    if (closeTag("dict")) {
      return Value(std::move(dict));
    }
    if (!consume("<key>")) {
      return std::nullopt;
    }
    auto key = text("key");
    if (!key || key->empty() || !skipMisc()) {
      return std::nullopt;
    }
    auto item = value(depth + 1);
    if (!item) {
      return std::nullopt;
    }
    // A repeated key replaces the earlier value in place, as libplist does.
    dict.set(std::move(*key), std::move(*item));
  }
}

std::optional<Value> PlainXmlReader::array(int depth) {
  Array items;
  for (;;) {
    if (!skipMisc()) {
      return std::nullopt;
    }
    if (closeTag("array")) {
      return Value(std::move(items));
    }
    auto item = value(depth + 1);
    if (!item) {
      return std::nullopt;
    }
    items.push_back(std::move(*item));
  }
}

std::optional<Value> PlainXmlReader::value(int depth) {
  if (depth > kMaxDepth || !consume("<")) {
    return std::nullopt;
  }
  auto nameEnd = text_.find_first_of("/>", pos_);
  if (nameEnd == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view name = text_.substr(pos_, nameEnd - pos_);
  pos_ = nameEnd;
  const bool empty = consume("/>");
  if (!empty && !consume(">")) {
    return std::nullopt;
  }
  if (empty) {
    if (name == "true") {
      return Value(true);
    }
    if (name == "false") {
      return Value(false);
    }
    if (name == "dict") {
      return Value(Dictionary{});
    }
    if (name == "array") {
      return Value(Array{});
    }
    if (name == "string") {
      return Value(std::string());
    }
    if (name == "data") {
      return Value(Data{});
    }
    return std::nullopt;
  }
  if (name == "dict") {
    return dictionary(depth);
  }
  if (name == "array") {
    return array(depth);
  }
  if (name == "string") {
    auto content = text("string");
    return content ? std::optional<Value>(Value(std::move(*content))) : std::nullopt;
  }
  auto content = raw(name);
  if (!content) {
    return std::nullopt;
  }
  if (name == "integer") {
    auto n = plainInteger(*content);
    return n ? std::optional<Value>(Value(*n)) : std::nullopt;
  }
  if (name == "real") {
    auto d = plainReal(*content);
    return d ? std::optional<Value>(Value(*d)) : std::nullopt;
  }
  if (name == "date") {
    auto date = plainDate(*content);
    return date ? std::optional<Value>(Value(*date)) : std::nullopt;
  }
  if (name == "data") {
    auto bytes = plainBase64(*content);
    return bytes ? std::optional<Value>(Value(std::move(*bytes))) : std::nullopt;
  }
  return std::nullopt;
}

} // namespace

Expected<Value> parseXml(std::string_view text) {
  if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Failure{"property list too large"};
  }
  if (!xmlLooksComplete(text)) {
    return Failure{"not a complete XML property list"};
  }
  if (auto plain = PlainXmlReader(text).document()) {
    return std::move(*plain);
  }
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
  if (root == nullptr) {
    return Failure{"malformed XML property list"};
  }
  Node owned(root);
  return fromNode(root, 0);
}

Expected<Value> parseBinary(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Failure{"property list too large"};
  }
  if (!looksBinary(bytes)) {
    return Failure{"not a binary property list"};
  }
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &root);
  if (root == nullptr) {
    return Failure{"malformed binary property list"};
  }
  Node owned(root);
  return fromNode(root, 0);
}

Expected<Value> parse(std::span<const std::uint8_t> bytes) {
  if (looksBinary(bytes)) {
    return parseBinary(bytes);
  }
  return parseXml(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

Expected<Value> parse(std::string_view text) {
  return parse(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

Expected<std::string> toXml(const Value& value) {
  XmlWriter writer;
  writer.begin();
  if (auto written = writer.write(value, 0); !written) {
    return written.failure();
  }
  writer.end();
  return std::move(writer).take();
}

Expected<Data> toBinary(const Value& value) {
  auto node = toNode(value, 0);
  if (!node) {
    return node.failure();
  }
  char* bin = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node->get(), &bin, &length);
  if (bin == nullptr) {
    return Failure{"could not write binary property list"};
  }
  auto* bytes = reinterpret_cast<const std::uint8_t*>(bin);
  Data result(bytes, bytes + length);
  plist_to_bin_free(bin);
  return result;
}

Expected<Value> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return Failure{"cannot open " + path.string()};
  }
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    return Failure{"cannot read " + path.string()};
  }
  auto value = parse(std::string_view(bytes));
  if (!value) {
    return Failure{path.string() + ": " + value.message()};
  }
  return value;
}

Expected<void> writeFile(const std::filesystem::path& path, const Value& value, Format format) {
  // Settings files are read by the user's other tools too.
  constexpr mode_t kMode = 0644;
  if (format == Format::Xml) {
    auto xml = toXml(value);
    if (!xml) {
      return xml.failure();
    }
    return platform::writeFileAtomically(path, *xml, kMode);
  }
  auto bin = toBinary(value);
  if (!bin) {
    return bin.failure();
  }
  return platform::writeFileAtomically(path, *bin, kMode);
}

} // namespace kestrin::plist
