#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "plist/ReadLimits.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::plist {

// Builds one Value from a reader's events without recursion (internal to kestrin_plist). Every
// value and key, and the bytes of every string, key and data, are charged against the read's
// limits as they arrive, so no input builds past them. Containers are built where they end up,
// never moved: a reader's speed is mostly the allocations and moves it avoids.
class TreeBuilder {
public:
  explicit TreeBuilder(const ReadLimits& limits);

  // `expected`: how many entries the container will hold, when the format says so.
  Expected<void> beginArray(std::size_t expected = 0);
  Expected<void> beginDictionary(std::size_t expected = 0);
  // In a dictionary, before each of its values.
  Expected<void> key(std::string key);
  Expected<void> add(Value&& scalar);
  // Closes the innermost container.
  Expected<void> end();

  bool inArray() const { return !stack_.empty() && stack_.back().array != nullptr; }
  bool inDictionary() const { return !stack_.empty() && stack_.back().dictionary != nullptr; }
  // In a dictionary whose last key still waits for its value.
  bool awaitingValue() const { return inDictionary() && stack_.back().key.has_value(); }
  // The top-level value is complete.
  bool done() const { return rooted_ && stack_.empty(); }
  Value take() && { return std::move(root_); }

private:
  // An open container, where its parent holds it: the parent does not change while it is open.
  struct Frame {
    Array* array;
    Dictionary* dictionary;
    std::optional<std::string> key;
  };

  Expected<void> charge(std::size_t bytes);
  Expected<void> checkKeyed() const;
  Value& place(Value&& value);

  ReadLimits limits_;
  std::size_t nodes_ = 0;
  std::size_t bytes_ = 0;
  std::vector<Frame> stack_;
  Value root_;
  bool rooted_ = false;
};

} // namespace kestrin::plist
