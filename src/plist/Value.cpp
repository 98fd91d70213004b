#include "plist/Value.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

namespace kestrin::plist {

std::string_view kindName(Kind kind) {
  switch (kind) {
  case Kind::Null:
    return "null";
  case Kind::Boolean:
    return "boolean";
  case Kind::Integer:
    return "integer";
  case Kind::Real:
    return "real";
  case Kind::String:
    return "string";
  case Kind::Data:
    return "data";
  case Kind::Date:
    return "date";
  case Kind::Array:
    return "array";
  case Kind::Dictionary:
    return "dictionary";
  case Kind::Error:
    return "error";
  case Kind::Object:
    return "remote object";
  }
  return "unknown";
}

Date Date::now() {
  using namespace std::chrono;
  auto since = duration<double>(system_clock::now().time_since_epoch()).count();
  return fromUnix(since);
}

std::string Date::description() const {
  double unix = toUnix();
  if (!std::isfinite(unix)) {
    return "invalid date";
  }
  std::time_t whole = static_cast<std::time_t>(std::floor(unix));
  std::tm local{};
  localtime_r(&whole, &local);
  char text[64];
  std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local);
  return std::string(text, n);
}

RemoteObject::~RemoteObject() = default;

Value RemoteObject::invokeFrom(const Caller&, const std::string& selector,
                               std::vector<Value> arguments) {
  return invoke(selector, std::move(arguments));
}

// ---- Dictionary

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const auto& entry : entries) {
    set(entry.first, entry.second);
  }
}

std::size_t Dictionary::indexOf(std::string_view key) const {
  if (entries_.size() > kIndexThreshold) {
    auto it = index_.find(std::string(key));
    return it == index_.end() ? entries_.size() : it->second;
  }
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].first == key) {
      return i;
    }
  }
  return entries_.size();
}

const Value* Dictionary::find(std::string_view key) const {
  std::size_t i = indexOf(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

Value* Dictionary::find(std::string_view key) {
  std::size_t i = indexOf(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

Value& Dictionary::set(std::string key, Value value) {
  if (Value* existing = find(key)) {
    *existing = std::move(value);
    return *existing;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (entries_.size() == kIndexThreshold + 1) {
    rebuildIndex();
  } else if (entries_.size() > kIndexThreshold + 1) {
    index_.emplace(entries_.back().first, entries_.size() - 1);
  }
  return entries_.back().second;
}

bool Dictionary::erase(std::string_view key) {
  std::size_t i = indexOf(key);
  if (i == entries_.size()) {
    return false;
  }
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
  rebuildIndex();
  return true;
}

void Dictionary::rebuildIndex() {
  index_.clear();
  if (entries_.size() <= kIndexThreshold) {
    return;
  }
  index_.reserve(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    index_.emplace(entries_[i].first, i);
  }
}

std::vector<std::string> Dictionary::keys() const {
  std::vector<std::string> result;
  result.reserve(entries_.size());
  for (const auto& entry : entries_) {
    result.push_back(entry.first);
  }
  return result;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (const auto& [key, value] : a) {
    const Value* other = b.find(key);
    if (other == nullptr || !(*other == value)) {
      return false;
    }
  }
  return true;
}

// ---- Value

std::optional<bool> Value::asBool() const {
  if (auto* b = std::get_if<bool>(&v_)) {
    return *b;
  }
  return std::nullopt;
}

std::optional<std::int64_t> Value::asInteger() const {
  if (auto* i = std::get_if<std::int64_t>(&v_)) {
    return *i;
  }
  return std::nullopt;
}

std::optional<double> Value::asReal() const {
  if (auto* d = std::get_if<double>(&v_)) {
    return *d;
  }
  return std::nullopt;
}

std::optional<Date> Value::asDate() const {
  if (auto* d = std::get_if<Date>(&v_)) {
    return *d;
  }
  return std::nullopt;
}

const std::string* Value::asString() const {
  return std::get_if<std::string>(&v_);
}
const Data* Value::asData() const {
  return std::get_if<Data>(&v_);
}
const Array* Value::asArray() const {
  return std::get_if<Array>(&v_);
}
Array* Value::asArray() {
  return std::get_if<Array>(&v_);
}
const Dictionary* Value::asDictionary() const {
  return std::get_if<Dictionary>(&v_);
}
Dictionary* Value::asDictionary() {
  return std::get_if<Dictionary>(&v_);
}

const ErrorRecord* Value::asError() const {
  if (auto* e = std::get_if<std::shared_ptr<const ErrorRecord>>(&v_)) {
    return e->get();
  }
  return nullptr;
}

ObjectRef Value::asObject() const {
  if (auto* o = std::get_if<ObjectRef>(&v_)) {
    return *o;
  }
  return nullptr;
}

std::optional<std::int64_t> Value::integerValue() const {
  switch (kind()) {
  case Kind::Boolean:
    return *asBool() ? 1 : 0;
  case Kind::Integer:
    return *asInteger();
  case Kind::Real: {
    double d = *asReal();
    if (!std::isfinite(d) || d >= 9.2e18 || d <= -9.2e18) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(d);
  }
  case Kind::String: {
    std::string_view s = *asString();
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\n')) {
      s.remove_prefix(1);
    }
    if (!s.empty() && s.front() == '+') {
      s.remove_prefix(1);
    }
    std::int64_t parsed = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), parsed);
    if (ec != std::errc() || end == s.data()) {
      return std::nullopt;
    }
    return parsed;
  }
  default:
    return std::nullopt;
  }
}

std::optional<double> Value::numberValue() const {
  switch (kind()) {
  case Kind::Boolean:
    return *asBool() ? 1.0 : 0.0;
  case Kind::Integer:
    return static_cast<double>(*asInteger());
  case Kind::Real:
    return *asReal();
  default:
    return std::nullopt;
  }
}

std::optional<bool> Value::boolValue() const {
  if (kind() == Kind::String) {
    std::string lower;
    for (char c : *asString()) {
      lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    if (lower == "1" || lower == "true" || lower == "yes") {
      return true;
    }
    if (lower == "0" || lower == "false" || lower == "no") {
      return false;
    }
    return std::nullopt;
  }
  if (auto n = numberValue()) {
    return *n != 0.0;
  }
  return std::nullopt;
}

const Value* Value::get(std::string_view key) const {
  const Dictionary* dict = asDictionary();
  return dict == nullptr ? nullptr : dict->find(key);
}

bool operator==(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) {
    return false;
  }
  if (a.kind() == Kind::Error) {
    return *a.asError() == *b.asError();
  }
  return a.v_ == b.v_;
}

// ---- describe

namespace {

void describeInto(const Value& value, std::string& out, int depth) {
  if (depth > 32) {
    out += "...";
    return;
  }
  switch (value.kind()) {
  case Kind::Null:
    out += "(null)";
    break;
  case Kind::Boolean:
    out += *value.asBool() ? "true" : "false";
    break;
  case Kind::Integer:
    out += std::to_string(*value.asInteger());
    break;
  case Kind::Real:
    out += fmt::format("{}", *value.asReal());
    break;
  case Kind::String:
    out += *value.asString();
    break;
  case Kind::Data:
    out += fmt::format("<{} bytes>", value.asData()->size());
    break;
  case Kind::Date:
    out += value.asDate()->description();
    break;
  case Kind::Array: {
    out += "(";
    bool first = true;
    for (const Value& item : *value.asArray()) {
      out += first ? "" : ", ";
      first = false;
      describeInto(item, out, depth + 1);
    }
    out += ")";
    break;
  }
  case Kind::Dictionary: {
    out += "{";
    bool first = true;
    for (const auto& [key, item] : *value.asDictionary()) {
      out += first ? "" : "; ";
      first = false;
      out += key;
      out += " = ";
      describeInto(item, out, depth + 1);
    }
    out += "}";
    break;
  }
  case Kind::Error: {
    const ErrorRecord* e = value.asError();
    out += fmt::format("Error Domain={} Code={} UserInfo=", e->domain, e->code);
    describeInto(Value(e->userInfo), out, depth + 1);
    break;
  }
  case Kind::Object:
    out += value.asObject() ? value.asObject()->description() : "(null object)";
    break;
  }
}

} // namespace

std::string describe(const Value& value) {
  std::string out;
  describeInto(value, out, 0);
  return out;
}

} // namespace kestrin::plist
