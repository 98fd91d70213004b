#include "plist/TreeBuilder.h"

#include <fmt/format.h>

namespace kestrin::plist {

TreeBuilder::TreeBuilder(const ReadLimits& limits) : limits_(limits) {}

Expected<void> TreeBuilder::charge(std::size_t bytes) {
  if (done()) {
    return Failure{"property list holds more than one top-level value"};
  }
  if (static_cast<std::ptrdiff_t>(stack_.size()) > limits_.depthLimit()) {
    return Failure{fmt::format("property list nested deeper than {} levels", limits_.depthLimit())};
  }
  if (++nodes_ > limits_.maxNodes) {
    return Failure{fmt::format("property list holds more than {} values", limits_.maxNodes)};
  }
  bytes_ += bytes;
  if (bytes_ > limits_.maxBytes) {
    return Failure{
        fmt::format("property list holds more than {} bytes of text and data", limits_.maxBytes)};
  }
  return {};
}

Expected<void> TreeBuilder::checkKeyed() const {
  if (inDictionary() && !awaitingValue()) {
    return Failure{"property list dictionary holds a value without a key"};
  }
  return {};
}

Value& TreeBuilder::place(Value&& value) {
  if (stack_.empty()) {
    root_ = std::move(value);
    rooted_ = true;
    return root_;
  }
  Frame& top = stack_.back();
  if (top.dictionary != nullptr) {
    // A repeated key keeps its first position and takes the last value.
    Value& placed = top.dictionary->set(std::move(*top.key), std::move(value));
    top.key.reset();
    return placed;
  }
  return top.array->emplace_back(std::move(value));
}

Expected<void> TreeBuilder::beginArray(std::size_t expected) {
  if (auto checked = checkKeyed(); !checked) {
    return checked;
  }
  if (auto charged = charge(0); !charged) {
    return charged;
  }
  Array* array = place(Value(Array{})).asArray();
  array->reserve(expected);
  stack_.push_back(Frame{array, nullptr, std::nullopt});
  return {};
}

Expected<void> TreeBuilder::beginDictionary(std::size_t expected) {
  if (auto checked = checkKeyed(); !checked) {
    return checked;
  }
  if (auto charged = charge(0); !charged) {
    return charged;
  }
  Dictionary* dictionary = place(Value(Dictionary{})).asDictionary();
  dictionary->reserve(expected);
  stack_.push_back(Frame{nullptr, dictionary, std::nullopt});
  return {};
}

Expected<void> TreeBuilder::key(std::string key) {
  if (!inDictionary() || awaitingValue()) {
    return Failure{"property list key outside a dictionary or without a value"};
  }
  if (auto charged = charge(key.size()); !charged) {
    return charged;
  }
  stack_.back().key = std::move(key);
  return {};
}

Expected<void> TreeBuilder::add(Value&& scalar) {
  if (auto checked = checkKeyed(); !checked) {
    return checked;
  }
  std::size_t bytes = 0;
  if (const std::string* text = scalar.asString()) {
    bytes = text->size();
  } else if (const Data* data = scalar.asData()) {
    bytes = data->size();
  }
  if (auto charged = charge(bytes); !charged) {
    return charged;
  }
  place(std::move(scalar));
  return {};
}

Expected<void> TreeBuilder::end() {
  if (stack_.empty()) {
    return Failure{"property list closes a container that was never opened"};
  }
  if (awaitingValue()) {
    return Failure{"property list key without a value"};
  }
  stack_.pop_back();
  return {};
}

} // namespace kestrin::plist
