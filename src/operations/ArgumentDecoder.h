#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "plist/Value.h"

namespace kestrin::operations {

// Where an argument stands in a call, for error texts.
struct ArgumentPosition {
  std::string_view selector;
  std::size_t index = 0; // from 0
};

// Throws ArgumentError: "argument 2 of feldaneBackup:type: must be a string, not an array".
[[noreturn]] void throwWrongKind(const ArgumentPosition& where, std::string_view expected,
                                 const plist::Value& value);

// How a handler's parameter type is read from a remote argument. Every specialisation answers
// the decoded value or throws ArgumentError; `kind` names what it accepts, for error texts and
// for the list of selectors an agent answers.
template <typename T> struct ArgumentDecoder;

template <> struct ArgumentDecoder<plist::Value> {
  static constexpr std::string_view kind = "any value";
  static plist::Value decode(const plist::Value& v, const ArgumentPosition&) { return v; }
};

template <> struct ArgumentDecoder<std::string> {
  static constexpr std::string_view kind = "a string";
  static std::string decode(const plist::Value& v, const ArgumentPosition& where) {
    if (const std::string* s = v.asString()) {
      return *s;
    }
    throwWrongKind(where, kind, v);
  }
};

// A number: a real is truncated and a boolean reads as 0 or 1, as number objects convert.
template <> struct ArgumentDecoder<std::int64_t> {
  static constexpr std::string_view kind = "a number";
  static std::int64_t decode(const plist::Value& v, const ArgumentPosition& where);
};

template <> struct ArgumentDecoder<double> {
  static constexpr std::string_view kind = "a number";
  static double decode(const plist::Value& v, const ArgumentPosition& where);
};

// A boolean, or a number (non-zero is true).
template <> struct ArgumentDecoder<bool> {
  static constexpr std::string_view kind = "a boolean";
  static bool decode(const plist::Value& v, const ArgumentPosition& where);
};

template <> struct ArgumentDecoder<plist::Data> {
  static constexpr std::string_view kind = "data";
  static plist::Data decode(const plist::Value& v, const ArgumentPosition& where) {
    if (const plist::Data* d = v.asData()) {
      return *d;
    }
    throwWrongKind(where, kind, v);
  }
};

template <> struct ArgumentDecoder<plist::Date> {
  static constexpr std::string_view kind = "a date";
  static plist::Date decode(const plist::Value& v, const ArgumentPosition& where) {
    if (auto d = v.asDate()) {
      return *d;
    }
    throwWrongKind(where, kind, v);
  }
};

template <> struct ArgumentDecoder<plist::Array> {
  static constexpr std::string_view kind = "an array";
  static plist::Array decode(const plist::Value& v, const ArgumentPosition& where) {
    if (const plist::Array* a = v.asArray()) {
      return *a;
    }
    throwWrongKind(where, kind, v);
  }
};

template <> struct ArgumentDecoder<plist::Dictionary> {
  static constexpr std::string_view kind = "a dictionary";
  static plist::Dictionary decode(const plist::Value& v, const ArgumentPosition& where) {
    if (const plist::Dictionary* d = v.asDictionary()) {
      return *d;
    }
    throwWrongKind(where, kind, v);
  }
};

template <> struct ArgumentDecoder<plist::ErrorRecord> {
  static constexpr std::string_view kind = "an error";
  static plist::ErrorRecord decode(const plist::Value& v, const ArgumentPosition& where) {
    if (const plist::ErrorRecord* e = v.asError()) {
      return *e;
    }
    throwWrongKind(where, kind, v);
  }
};

// A remote object; null is refused (take std::optional<plist::ObjectRef> where nil is allowed).
template <> struct ArgumentDecoder<plist::ObjectRef> {
  static constexpr std::string_view kind = "an object";
  static plist::ObjectRef decode(const plist::Value& v, const ArgumentPosition& where) {
    if (plist::ObjectRef o = v.asObject()) {
      return o;
    }
    throwWrongKind(where, kind, v);
  }
};

// Nil allowed: null reads as nullopt, anything else as T.
template <typename T> struct ArgumentDecoder<std::optional<T>> {
  static constexpr std::string_view kind = ArgumentDecoder<T>::kind;
  static std::optional<T> decode(const plist::Value& v, const ArgumentPosition& where) {
    if (v.isNull()) {
      return std::nullopt;
    }
    return ArgumentDecoder<T>::decode(v, where);
  }
};

template <typename T> using ParameterType = std::remove_cvref_t<T>;

template <typename T> struct IsOptionalArgument : std::false_type {};
template <typename T> struct IsOptionalArgument<std::optional<T>> : std::true_type {};

// The kind of a parameter as the list of selectors shows it: "a string", "a string or null".
template <typename T> std::string argumentKind() {
  using P = ParameterType<T>;
  std::string kind(ArgumentDecoder<P>::kind);
  if constexpr (IsOptionalArgument<P>::value) {
    kind += " or null";
  }
  return kind;
}

} // namespace kestrin::operations
