#include "operations/Arguments.h"

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

// "a string", "an array", "null", "data": how an error text names a value's kind.
std::string withArticle(std::string_view kind) {
  if (kind == "null" || kind == "data") {
    return std::string(kind);
  }
  bool vowel =
      !kind.empty() && std::string_view("aeiou").find(kind.front()) != std::string_view::npos;
  return fmt::format("{} {}", vowel ? "an" : "a", kind);
}

} // namespace

const plist::Value& Arguments::at(std::size_t index) const {
  if (index >= values_.size()) {
    throw ArgumentError(fmt::format("{} takes {} argument(s); argument {} is missing", selector_,
                                    values_.size(), index + 1));
  }
  return values_[index];
}

void Arguments::wrongKind(std::size_t index, std::string_view expected) const {
  throw ArgumentError(fmt::format("argument {} of {} must be {}, not {}", index + 1, selector_,
                                  expected, withArticle(plist::kindName(at(index).kind()))));
}

const std::string& Arguments::string(std::size_t index) const {
  if (const std::string* s = at(index).asString()) {
    return *s;
  }
  wrongKind(index, "a string");
}

std::optional<std::string> Arguments::optionalString(std::size_t index) const {
  if (at(index).isNull()) {
    return std::nullopt;
  }
  return string(index);
}

std::int64_t Arguments::integer(std::size_t index) const {
  const plist::Value& value = at(index);
  if (auto i = value.asInteger()) {
    return *i;
  }
  if (auto d = value.asReal()) {
    return static_cast<std::int64_t>(*d);
  }
  if (auto b = value.asBool()) {
    return *b ? 1 : 0;
  }
  wrongKind(index, "a number");
}

double Arguments::real(std::size_t index) const {
  const plist::Value& value = at(index);
  if (value.kind() == plist::Kind::Integer || value.kind() == plist::Kind::Real ||
      value.kind() == plist::Kind::Boolean) {
    return *value.numberValue();
  }
  wrongKind(index, "a number");
}

bool Arguments::boolean(std::size_t index) const {
  const plist::Value& value = at(index);
  if (value.kind() == plist::Kind::Integer || value.kind() == plist::Kind::Real ||
      value.kind() == plist::Kind::Boolean) {
    return *value.boolValue();
  }
  wrongKind(index, "a boolean");
}

const plist::Data& Arguments::data(std::size_t index) const {
  if (const plist::Data* d = at(index).asData()) {
    return *d;
  }
  wrongKind(index, "data");
}

const plist::Array& Arguments::array(std::size_t index) const {
  if (const plist::Array* a = at(index).asArray()) {
    return *a;
  }
  wrongKind(index, "an array");
}

const plist::Dictionary& Arguments::dictionary(std::size_t index) const {
  if (const plist::Dictionary* d = at(index).asDictionary()) {
    return *d;
  }
  wrongKind(index, "a dictionary");
}

std::optional<plist::Dictionary> Arguments::optionalDictionary(std::size_t index) const {
  if (at(index).isNull()) {
    return std::nullopt;
  }
  return dictionary(index);
}

const plist::ErrorRecord& Arguments::error(std::size_t index) const {
  if (const plist::ErrorRecord* e = at(index).asError()) {
    return *e;
  }
  wrongKind(index, "an error");
}

plist::ObjectRef Arguments::object(std::size_t index) const {
  if (plist::ObjectRef o = at(index).asObject()) {
    return o;
  }
  wrongKind(index, "an object");
}

} // namespace kestrin::operations
