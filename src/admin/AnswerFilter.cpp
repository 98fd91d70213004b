#include "admin/AnswerFilter.h"

#include <fmt/format.h>

#include "admin/JsonValue.h"

namespace kestrin::admin {

namespace {

std::string plainText(const plist::Value& value) {
  if (const std::string* text = value.asString()) {
    return *text;
  }
  if (value.kind() == plist::Kind::Boolean) {
    return *value.asBool() ? "true" : "false";
  }
  if (value.kind() == plist::Kind::Integer) {
    return std::to_string(*value.asInteger());
  }
  if (value.kind() == plist::Kind::Real) {
    return fmt::format("{}", *value.asReal());
  }
  return jsonFromValue(value);
}

} // namespace

Expected<AnswerFilter> AnswerFilter::parse(const std::string& text) {
  AnswerFilter filter;
  std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    return Failure{fmt::format("'{}' is not KEY.PATH=VALUE", text)};
  }
  std::size_t pathEnd = equals;
  if (text[equals - 1] == '!') {
    filter.negated_ = true;
    --pathEnd;
  }
  filter.expected_ = text.substr(equals + 1);
  std::string path = text.substr(0, pathEnd);
  std::size_t start = 0;
  for (;;) {
    std::size_t dot = path.find('.', start);
    std::string key = path.substr(start, dot == std::string::npos ? dot : dot - start);
    if (key.empty()) {
      return Failure{fmt::format("'{}' has an empty key in its path", text)};
    }
    filter.path_.push_back(key);
    if (dot == std::string::npos) {
      break;
    }
    start = dot + 1;
  }
  return filter;
}

bool AnswerFilter::found(const plist::Value& value, std::size_t depth) const {
  if (const plist::Array* array = value.asArray()) {
    for (const plist::Value& element : *array) {
      if (found(element, depth)) {
        return true;
      }
    }
    return false;
  }
  if (depth == path_.size()) {
    return plainText(value) == expected_;
  }
  const plist::Dictionary* dictionary = value.asDictionary();
  const plist::Value* next = dictionary ? dictionary->find(path_[depth]) : nullptr;
  return next != nullptr && found(*next, depth + 1);
}

bool AnswerFilter::matches(const plist::Value& answer) const {
  return found(answer, 0) != negated_;
}

} // namespace kestrin::admin
