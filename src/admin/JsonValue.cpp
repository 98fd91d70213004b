#include "admin/JsonValue.h"

#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "plist/IsoDate.h"

namespace kestrin::admin {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// One-key objects that stand for a kind JSON lacks.
constexpr std::string_view kDataKey = "$data";
constexpr std::string_view kDateKey = "$date";
constexpr std::string_view kDelegateKey = "$delegate";
constexpr std::string_view kDictionaryKey = "$dictionary";

using DelegateMaker = std::function<plist::ObjectRef()>;

class JsonReader {
public:
  JsonReader(const plist::ReadLimits& limits, DelegateMaker delegate)
      : limits_(limits), delegate_(std::move(delegate)) {}

  Expected<plist::Value> value(const Json& json, int depth);

private:
  Expected<plist::Value> date(const Json& json);
  Expected<plist::Value> dictionary(const Json& json, int depth);

  plist::ReadLimits limits_;
  DelegateMaker delegate_;
  std::size_t nodes_ = 0;
};

Expected<plist::Value> JsonReader::date(const Json& json) {
  if (json.is_number()) {
    return plist::Value(plist::Date{json.get<double>()});
  }
  const auto& text = json.get_ref<const std::string&>();
  auto date = plist::parseIsoDate(text, plist::DateSyntax::Lenient);
  if (!date) {
    return Failure{fmt::format("\"{}\" is not an ISO 8601 date of the years 1 to 9999", text)};
  }
  return plist::Value(*date);
}

Expected<plist::Value> JsonReader::dictionary(const Json& json, int depth) {
  plist::Dictionary dictionary;
  for (const auto& [key, item] : json.items()) {
    auto value = this->value(item, depth + 1);
    if (!value) {
      return value;
    }
    dictionary.set(key, std::move(*value));
  }
  return plist::Value(std::move(dictionary));
}

Expected<plist::Value> JsonReader::value(const Json& json, int depth) {
  if (depth > limits_.depthLimit()) {
    return Failure{fmt::format("the value is nested deeper than {} levels", limits_.depthLimit())};
  }
  if (++nodes_ > limits_.maxNodes) {
    return Failure{fmt::format("the value holds more than {} values", limits_.maxNodes)};
  }
  switch (json.type()) {
  case Json::value_t::null:
    return plist::Value();
  case Json::value_t::boolean:
    return plist::Value(json.get<bool>());
  case Json::value_t::number_integer:
    return plist::Value(json.get<std::int64_t>());
  case Json::value_t::number_unsigned: {
    auto u = json.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT64_MAX)) {
      return Failure{fmt::format("{} does not fit a 64-bit integer", u)};
    }
    return plist::Value(static_cast<std::int64_t>(u));
  }
  case Json::value_t::number_float:
    return plist::Value(json.get<double>());
  case Json::value_t::string:
    return plist::Value(json.get<std::string>());
  case Json::value_t::array: {
    plist::Array array;
    array.reserve(json.size());
    for (const Json& item : json) {
      auto value = this->value(item, depth + 1);
      if (!value) {
        return value;
      }
      array.push_back(std::move(*value));
    }
    return plist::Value(std::move(array));
  }
  case Json::value_t::object: {
    if (json.size() == 1) {
      const auto only = json.begin();
      const std::string& key = only.key();
      const Json& item = only.value();
      if (key == kDataKey && item.is_string()) {
        auto data = base64Decode(item.get_ref<const std::string&>());
        if (!data) {
          return data.failure();
        }
        return plist::Value(std::move(*data));
      }
      if (key == kDateKey && (item.is_string() || item.is_number())) {
        return date(item);
      }
      if (key == kDictionaryKey && item.is_object()) {
        return dictionary(item, depth);
      }
      if (key == kDelegateKey && item.is_object() && item.empty()) {
        if (!delegate_) {
          return Failure{"{\"$delegate\":{}} is only understood by ambrant call"};
        }
        return plist::Value(delegate_());
      }
    }
    return dictionary(json, depth);
  }
  default:
    return Failure{"binary JSON values are not supported"};
  }
}

Json toJson(const plist::Value& value) {
  switch (value.kind()) {
  case plist::Kind::Null:
    return nullptr;
  case plist::Kind::Boolean:
    return *value.asBool();
  case plist::Kind::Integer:
    return *value.asInteger();
  case plist::Kind::Real: {
    double d = *value.asReal();
    return std::isfinite(d) ? Json(d) : Json(fmt::format("{}", d));
  }
  case plist::Kind::String:
    return *value.asString();
  case plist::Kind::Data:
    return Json{{kDataKey, base64Encode(*value.asData())}};
  case plist::Kind::Date: {
    // Outside the years an ISO text names, the seconds themselves; not a number: null.
    const plist::Date date = *value.asDate();
    auto text = plist::isoDateText(date);
    return Json{{kDateKey, text ? Json(*text) : Json(date.seconds)}};
  }
  case plist::Kind::Array: {
    Json array = Json::array();
    for (const plist::Value& item : *value.asArray()) {
      array.push_back(toJson(item));
    }
    return array;
  }
  case plist::Kind::Dictionary: {
    const plist::Dictionary& dictionary = *value.asDictionary();
    Json object = Json::object();
    for (const auto& [key, item] : dictionary) {
      object[key] = toJson(item);
    }
    if (dictionary.size() == 1) {
      const std::string& key = dictionary.begin()->first;
      if (key == kDataKey || key == kDateKey || key == kDictionaryKey || key == kDelegateKey) {
        return Json{{kDictionaryKey, std::move(object)}};
      }
    }
    return object;
  }
  case plist::Kind::Error: {
    const plist::ErrorRecord& error = *value.asError();
    return Json{{"$error",
                 {{"domain", error.domain},
                  {"code", error.code},
                  {"userInfo", toJson(plist::Value(error.userInfo))}}}};
  }
  case plist::Kind::Object:
    return Json{{"$object", value.asObject()->description()}};
  }
  return nullptr;
}

} // namespace

Expected<plist::Value> valueFromJson(std::string_view text, const plist::ReadLimits& limits) {
  return valueFromJson(text, nullptr, limits);
}

Expected<plist::Value> valueFromJson(std::string_view text, const DelegateMaker& delegate,
                                     const plist::ReadLimits& limits) {
  if (text.size() > limits.maxBytes) {
    return Failure{fmt::format("a JSON text of {} bytes is larger than the {} a read may take",
                               text.size(), limits.maxBytes)};
  }
  // nlohmann's parser keeps its own stack, so deep nesting costs memory, not recursion; the
  // conversion below then refuses it.
  Json json = Json::parse(text.begin(), text.end(), nullptr, false);
  if (json.is_discarded()) {
    return Failure{fmt::format("'{}' is not a JSON value", text)};
  }
  return JsonReader(limits, delegate).value(json, 0);
}

std::string jsonFromValue(const plist::Value& value) {
  return toJson(value).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string base64Encode(const plist::Data& data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < data.size(); i += 3) {
    std::uint32_t chunk = static_cast<std::uint32_t>(data[i]) << 16;
    if (i + 1 < data.size()) {
      chunk |= static_cast<std::uint32_t>(data[i + 1]) << 8;
    }
    if (i + 2 < data.size()) {
      chunk |= data[i + 2];
    }
    out += kAlphabet[(chunk >> 18) & 63];
    out += kAlphabet[(chunk >> 12) & 63];
    out += i + 1 < data.size() ? kAlphabet[(chunk >> 6) & 63] : '=';
    out += i + 2 < data.size() ? kAlphabet[chunk & 63] : '=';
  }
  return out;
}

Expected<plist::Data> base64Decode(std::string_view text) {
  plist::Data out;
  std::uint32_t chunk = 0;
  int bits = 0;
  std::size_t padding = 0;
  for (char c : text) {
    if (c == '\n' || c == '\r' || c == ' ') {
      continue;
    }
    if (c == '=') {
      ++padding;
      continue;
    }
    std::size_t index = kAlphabet.find(c);
    if (index == std::string_view::npos || padding > 0) {
      return Failure{"the data is not valid base64"};
    }
    chunk = (chunk << 6) | static_cast<std::uint32_t>(index);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>((chunk >> bits) & 0xff));
    }
  }
  // Six bits left over are half a byte: the text was cut short.
  if (padding > 2 || bits >= 6) {
    return Failure{"the data is not valid base64"};
  }
  return out;
}

} // namespace kestrin::admin
