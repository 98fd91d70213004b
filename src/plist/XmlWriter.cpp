// Writing XML property lists, directly from a Value. The output has the platform's layout (tab
// indentation, base64 in lines of 68 under the element's indentation) and reads back through
// parseXml to the same value: strings and keys are refused unless valid UTF-8 without NUL,
// dates outside the years 1 to 9999 are refused, and a date keeps its fraction of a second.
#include "plist/PropertyList.h"

#include <charconv>
#include <cmath>

#include "plist/IsoDate.h"
#include "plist/ReadLimits.h"
#include "plist/Text.h"

namespace kestrin::plist {

namespace {

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
  void real(double d);
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
  if (depth > ReadLimits::kDepthCeiling) {
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
    indent(depth);
    out_ += "<integer>";
    out_.append(buffer, result.ptr);
    out_ += "</integer>\n";
    return {};
  }
  case Kind::Real:
    indent(depth);
    out_ += "<real>";
    real(*value.asReal());
    out_ += "</real>\n";
    return {};
  case Kind::String: {
    const std::string& string = *value.asString();
    if (auto storable = text::checkStorable(string, "string"); !storable) {
      return storable;
    }
    indent(depth);
    out_ += "<string>";
    escaped(string);
    out_ += "</string>\n";
    return {};
  }
  case Kind::Data:
    data(*value.asData(), depth);
    return {};
  case Kind::Date: {
    auto text = isoDateText(*value.asDate());
    if (!text) {
      return Failure{"a date outside the years 1 to 9999 cannot be stored in a property list"};
    }
    indent(depth);
    out_ += "<date>";
    out_ += *text;
    out_ += "</date>\n";
    return {};
  }
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
      if (auto storable = text::checkStorable(key, "key"); !storable) {
        return storable;
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

} // namespace

Expected<std::string> toXml(const Value& value) {
  XmlWriter writer;
  writer.begin();
  if (auto written = writer.write(value, 0); !written) {
    return written.failure();
  }
  writer.end();
  return std::move(writer).take();
}

} // namespace kestrin::plist
