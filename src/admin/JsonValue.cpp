#include "admin/JsonValue.h"

#include <cmath>
#include <ctime>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace kestrin::admin {

namespace {

using Json = nlohmann::ordered_json;
constexpr int kMaxDepth = 256;

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// "2026-11-22T10:03:07Z", "2026-11-22T10:03:07.25+01:00" or a date alone.
Expected<plist::Date> parseIsoDate(const std::string& text) {
  std::tm tm{};
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &consumed) !=
      3) {
    return Failure{fmt::format("\"{}\" is not an ISO 8601 date", text)};
  }
  double fraction = 0;
  long offset = 0;
  std::string rest = text.substr(static_cast<std::size_t>(consumed));
  if (!rest.empty()) {
    int n = 0;
    if ((rest[0] != 'T' && rest[0] != ' ') ||
        std::sscanf(rest.c_str() + 1, "%2d:%2d:%2d%n", &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &n) !=
            3) {
      return Failure{fmt::format("\"{}\" is not an ISO 8601 date", text)};
    }
    rest = rest.substr(1 + static_cast<std::size_t>(n));
    if (!rest.empty() && rest[0] == '.') {
      std::size_t end = 1;
      while (end < rest.size() && std::isdigit(static_cast<unsigned char>(rest[end]))) {
        ++end;
      }
      fraction = std::stod("0" + rest.substr(0, end));
      rest = rest.substr(end);
    }
    int hours = 0, minutes = 0;
    if (rest == "Z" || rest.empty()) {
      offset = 0;
    } else if ((rest[0] == '+' || rest[0] == '-') &&
               std::sscanf(rest.c_str() + 1, "%2d:%2d", &hours, &minutes) == 2) {
      offset = (rest[0] == '-' ? -1 : 1) * (hours * 3600L + minutes * 60L);
    } else {
      return Failure{fmt::format("\"{}\" has an unreadable time zone", text)};
    }
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  std::time_t unix = timegm(&tm);
  return plist::Date::fromUnix(static_cast<double>(unix - offset) + fraction);
}

std::string isoDate(const plist::Date& date) {
  double unix = date.toUnix();
  std::time_t whole = static_cast<std::time_t>(std::floor(unix));
  std::tm tm{};
  gmtime_r(&whole, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  double fraction = unix - static_cast<double>(whole);
  if (fraction > 0) {
    return fmt::format("{}{}Z", text, fmt::format("{:.6f}", fraction).substr(1));
  }
  return std::string(text) + "Z";
}

using DelegateMaker = std::function<plist::ObjectRef()>;

Expected<plist::Value> fromJson(const Json& json, int depth, const DelegateMaker& delegate) {
  if (depth > kMaxDepth) {
    return Failure{"the value is nested too deeply"};
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
    for (const Json& item : json) {
      auto value = fromJson(item, depth + 1, delegate);
      if (!value) {
        return value;
      }
      array.push_back(std::move(*value));
    }
    return plist::Value(std::move(array));
  }
  case Json::value_t::object: {
    if (json.size() == 1 && json.contains("$data") && json["$data"].is_string()) {
      auto data = base64Decode(json["$data"].get<std::string>());
      if (!data) {
        return data.failure();
      }
      return plist::Value(std::move(*data));
    }
    if (json.size() == 1 && json.contains("$date") && json["$date"].is_string()) {
      auto date = parseIsoDate(json["$date"].get<std::string>());
      if (!date) {
        return date.failure();
      }
      return plist::Value(*date);
    }
    if (json.size() == 1 && json.contains("$delegate") && json["$delegate"].is_object() &&
        json["$delegate"].empty()) {
      if (!delegate) {
        return Failure{"{\"$delegate\":{}} is only understood by ambrant call"};
      }
      return plist::Value(delegate());
    }
    plist::Dictionary dictionary;
    for (const auto& [key, item] : json.items()) {
      auto value = fromJson(item, depth + 1, delegate);
      if (!value) {
        return value;
      }
      dictionary.set(key, std::move(*value));
    }
    return plist::Value(std::move(dictionary));
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
    return Json{{"$data", base64Encode(*value.asData())}};
  case plist::Kind::Date:
    return Json{{"$date", isoDate(*value.asDate())}};
  case plist::Kind::Array: {
    Json array = Json::array();
    for (const plist::Value& item : *value.asArray()) {
      array.push_back(toJson(item));
    }
    return array;
  }
  case plist::Kind::Dictionary: {
    Json object = Json::object();
    for (const auto& [key, item] : *value.asDictionary()) {
      object[key] = toJson(item);
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

Expected<plist::Value> valueFromJson(std::string_view text) {
  return valueFromJson(text, nullptr);
}

Expected<plist::Value> valueFromJson(std::string_view text, const DelegateMaker& delegate) {
  Json json = Json::parse(text.begin(), text.end(), nullptr, false);
  if (json.is_discarded()) {
    return Failure{fmt::format("'{}' is not a JSON value", text)};
  }
  return fromJson(json, 0, delegate);
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
  if (padding > 2) {
    return Failure{"the data is not valid base64"};
  }
  return out;
}

} // namespace kestrin::admin
