#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace kestrin::plist {

class Value;

enum class Kind {
  Null,
  Boolean,
  Integer,
  Real,
  String,
  Data,
  Date,
  Array,
  Dictionary,
  Error,
  Object
};

// Name of a kind for error texts ("expected a string, got an array").
std::string_view kindName(Kind kind);

using Data = std::vector<std::uint8_t>;

// Seconds relative to 2001-01-01 00:00:00 UTC, as property lists count them. Kept as a double
// so that fractions and dates far outside libplist's 32-bit range survive the value type.
struct Date {
  double seconds = 0;

  static constexpr double kUnixOffset = 978307200.0; // 2001-01-01 in Unix seconds

  static Date now();
  static Date fromUnix(double unixSeconds) { return Date{unixSeconds - kUnixOffset}; }
  double toUnix() const { return seconds + kUnixOffset; }

  // "2026-11-22 10:03:07 +0000" in local time with its zone offset: the date's standard
  // description, as log lines print it.
  std::string description() const;

  friend bool operator==(const Date&, const Date&) = default;
  friend auto operator<=>(const Date&, const Date&) = default;
};

using Array = std::vector<Value>;

// A dictionary that keeps its keys in insertion order (profiles and settings are shown in the
// order they were built) and finds a key in constant time once it holds more than a few entries.
class Dictionary {
public:
  using Entry = std::pair<std::string, Value>;

  Dictionary() = default;
  Dictionary(std::initializer_list<Entry> entries);

  // These touch entries_ and are defined below Value: clang instantiates them where they stand,
  // and Value must be complete by then.
  bool empty() const;
  std::size_t size() const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // The value under the key, or nullptr when the key is absent.
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);

  // Replaces the value of an existing key in place (its position stays) or appends the pair.
  // Answers where the value now is, valid until the dictionary next changes.
  Value& set(std::string key, Value value);
  void reserve(std::size_t entries);
  // Answers whether the key was present.
  bool erase(std::string_view key);

  std::vector<std::string> keys() const;
  using const_iterator = std::vector<Entry>::const_iterator;
  const_iterator begin() const;
  const_iterator end() const;

  // Equal when both hold the same keys with equal values, whatever the order.
  friend bool operator==(const Dictionary& a, const Dictionary& b);

private:
  std::size_t indexOf(std::string_view key) const;
  void rebuildIndex();

  static constexpr std::size_t kIndexThreshold = 16;
  std::vector<Entry> entries_;
  std::unordered_map<std::string, std::size_t> index_; // filled only above the threshold
};

// An error record as the error channel carries it: a domain, a code and user information.
struct ErrorRecord {
  std::string domain;
  std::int64_t code = 0;
  Dictionary userInfo;

  friend bool operator==(const ErrorRecord&, const ErrorRecord&) = default;
};

class Value;

// An object that can be called by selector: a proxy for an object on the other side of a
// connection, or a local object that is handed to a peer (the peer then sees a proxy). The
// value type only carries it and compares by identity; the transport derives from it.
//
// Selectors keep their colons ("setErrorCallback:"); arguments are positional. invoke() and
// respondsTo() may be called from any thread and block until the answer arrives. Failures
// throw kestrin::NamedException: kInvalidSendPortException when the peer's connection is gone,
// kPortTimeoutException when the answer exceeds the connection's reply time limit, and the
// callee's own exception name and reason when the callee raised one (an unknown selector or a
// wrong argument arrives as "NSInvalidArgumentException").
//
// An object served to peers learns who called through invokeFrom(): the transport passes the
// caller's address and connection, so that what one caller starts can stay that caller's.
class RemoteObject {
public:
  struct Caller {
    std::string address;          // the peer's address; "local" for a Unix-domain peer
    std::uint64_t connection = 0; // the peer's connection; 0 for a call from inside the process
    // Set while the peer's connection lasts and cleared when it ends, so that long work can
    // stop once its caller has gone. None for a call from inside the process.
    std::shared_ptr<std::atomic<bool>> connected = {};

    bool hasGone() const { return connected && !connected->load(); }
  };

  virtual ~RemoteObject();
  virtual std::string description() const = 0;
  virtual Value invoke(const std::string& selector, std::vector<Value> arguments) = 0;
  virtual bool respondsTo(const std::string& selector) = 0;
  virtual Value invokeFrom(const Caller& caller, const std::string& selector,
                           std::vector<Value> arguments);
};
using ObjectRef = std::shared_ptr<RemoteObject>;

struct Null {
  friend bool operator==(Null, Null) { return true; }
};

// One property-list value: what remote calls carry, tools print and settings files hold.
// Typed accessors answer "absent" (nullptr or nullopt) for the wrong kind instead of throwing.
class Value {
public:
  Value() = default;
  Value(Null) {}
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Data d) : v_(std::move(d)) {}
  Value(Date d) : v_(d) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dictionary d) : v_(std::move(d)) {}
  Value(ErrorRecord e) : v_(std::make_shared<const ErrorRecord>(std::move(e))) {}
  Value(ObjectRef o) : v_(std::move(o)) {}

  Kind kind() const { return static_cast<Kind>(v_.index()); }
  bool isNull() const { return kind() == Kind::Null; }

  // Strict accessors: the value only when it is of exactly that kind.
  std::optional<bool> asBool() const;
  std::optional<std::int64_t> asInteger() const;
  std::optional<double> asReal() const;
  std::optional<Date> asDate() const;
  const std::string* asString() const;
  const Data* asData() const;
  const Array* asArray() const;
  Array* asArray();
  const Dictionary* asDictionary() const;
  Dictionary* asDictionary();
  const ErrorRecord* asError() const;
  ObjectRef asObject() const;

  // Lenient numeric readings, for settings that may have been written by hand or by older
  // tools: a boolean, an integer, a real (truncated) or a string with leading digits. Absent
  // for every other kind and for a string without digits.
  std::optional<std::int64_t> integerValue() const;
  // A number as a double: integer, real or boolean.
  std::optional<double> numberValue() const;
  // A boolean, a number (non-zero is true) or the strings "1"/"true"/"yes" (any case).
  std::optional<bool> boolValue() const;

  // Dictionary member by key, or nullptr when this is not a dictionary or the key is absent.
  const Value* get(std::string_view key) const;

  friend bool operator==(const Value& a, const Value& b);

private:
  std::variant<Null, bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary,
               std::shared_ptr<const ErrorRecord>, ObjectRef>
      v_;
};

inline bool Dictionary::empty() const {
  return entries_.empty();
}
inline std::size_t Dictionary::size() const {
  return entries_.size();
}
inline void Dictionary::reserve(std::size_t entries) {
  entries_.reserve(entries);
}
inline Dictionary::const_iterator Dictionary::begin() const {
  return entries_.begin();
}
inline Dictionary::const_iterator Dictionary::end() const {
  return entries_.end();
}

// A short, human-readable rendering for logs and error texts (not a serialisation).
std::string describe(const Value& value);

} // namespace kestrin::plist
