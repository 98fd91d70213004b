#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/Value.h"

namespace kestrin::operations {

// The positional arguments of one remote call, read by kind. A missing argument or one of the
// wrong kind throws ArgumentError naming the selector, the argument's position and both kinds,
// which reaches the remote caller as a clear error.
class Arguments {
public:
  Arguments(std::string selector, std::vector<plist::Value> values)
      : selector_(std::move(selector)), values_(std::move(values)) {}

  const std::string& selector() const { return selector_; }
  std::size_t size() const { return values_.size(); }
  // The raw value (null when the caller passed nil).
  const plist::Value& at(std::size_t index) const;

  const std::string& string(std::size_t index) const;
  // A string, or nullopt for null.
  std::optional<std::string> optionalString(std::size_t index) const;
  // An integer; a real is truncated and a boolean reads as 0 or 1, as number objects convert.
  std::int64_t integer(std::size_t index) const;
  double real(std::size_t index) const;
  bool boolean(std::size_t index) const;
  const plist::Data& data(std::size_t index) const;
  const plist::Array& array(std::size_t index) const;
  const plist::Dictionary& dictionary(std::size_t index) const;
  // A dictionary, or nullopt for null.
  std::optional<plist::Dictionary> optionalDictionary(std::size_t index) const;
  const plist::ErrorRecord& error(std::size_t index) const;
  plist::ObjectRef object(std::size_t index) const;

private:
  [[noreturn]] void wrongKind(std::size_t index, std::string_view expected) const;

  std::string selector_;
  std::vector<plist::Value> values_;
};

} // namespace kestrin::operations
