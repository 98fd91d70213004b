// Writing binary property lists ("bplist00"), the project's own writer: the system library's
// kept dates in 32 bits and wrote strings it could not read back. What this one writes,
// parseBinary reads back to the same value, and so do the platform's and the system library's
// readers: strings are ASCII or UTF-16 (refused unless valid UTF-8 without NUL), dates are the
// format's 64-bit floating-point seconds, negative integers take eight bytes. Equal strings and
// keys are written once and referred to.
#include "plist/PropertyList.h"

#include <algorithm>
#include <bit>
#include <unordered_map>

#include "plist/IsoDate.h"
#include "plist/ReadLimits.h"
#include "plist/Text.h"

namespace kestrin::plist {

namespace {

// Objects in the tree, dictionary keys included: an upper bound of the objects written, which
// fixes the width of every reference before the first one is written.
std::uint64_t countObjects(const Value& value, int depth) {
  if (depth > ReadLimits::kDepthCeiling) {
    return 1; // write() refuses it
  }
  std::uint64_t count = 1;
  if (const Array* array = value.asArray()) {
    for (const Value& item : *array) {
      count += countObjects(item, depth + 1);
    }
  } else if (const Dictionary* dict = value.asDictionary()) {
    for (const auto& [key, item] : *dict) {
      count += 1 + countObjects(item, depth + 1);
    }
  }
  return count;
}

unsigned bytesFor(std::uint64_t n) {
  return n <= 0xFF ? 1 : n <= 0xFFFF ? 2 : n <= 0xFFFFFFFF ? 4 : 8;
}

class BinaryWriter {
public:
  explicit BinaryWriter(std::uint64_t objects) : refSize_(bytesFor(objects)) {
    out_.assign({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
  }

  Expected<std::uint64_t> write(const Value& value, int depth);
  Data finish(std::uint64_t top) &&;

private:
  void number(std::uint64_t n, unsigned size) {
    for (unsigned shift = size * 8; shift > 0; shift -= 8) {
      out_.push_back(static_cast<std::uint8_t>(n >> (shift - 8)));
    }
  }
  std::uint64_t begin() {
    offsets_.push_back(out_.size());
    return offsets_.size() - 1;
  }
  void integer(std::uint64_t n, bool negative) {
    const unsigned size = negative ? 8 : bytesFor(n);
    out_.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(size)));
    number(n, size);
  }
  // A marker with its count: in the marker below 15, else as an integer object after it.
  void marker(std::uint8_t type, std::uint64_t count) {
    if (count < 15) {
      out_.push_back(static_cast<std::uint8_t>(type | count));
      return;
    }
    out_.push_back(static_cast<std::uint8_t>(type | 0x0F));
    integer(count, false);
  }
  Expected<std::uint64_t> string(std::string_view text, std::string_view what);
  std::uint64_t container(std::uint8_t type, std::size_t base, std::uint64_t count);

  unsigned refSize_;
  Data out_;
  std::vector<std::uint64_t> offsets_;
  // Object numbers of the children of the containers being written, innermost last.
  std::vector<std::uint64_t> pending_;
  std::unordered_map<std::string_view, std::uint64_t> strings_;
};

Expected<std::uint64_t> BinaryWriter::string(std::string_view text, std::string_view what) {
  if (auto known = strings_.find(text); known != strings_.end()) {
    return known->second;
  }
  if (auto storable = text::checkStorable(text, what); !storable) {
    return storable.failure();
  }
  const std::uint64_t index = begin();
  strings_.emplace(text, index);
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    marker(0x50, text.size());
    out_.insert(out_.end(), text.begin(), text.end());
    return index;
  }
  std::vector<char16_t> units;
  units.reserve(text.size());
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    char32_t code;
    if (*p < 0x80) {
      code = *p++;
    } else if (*p < 0xE0) {
      code = ((p[0] & 0x1F) << 6) | (p[1] & 0x3F);
      p += 2;
    } else if (*p < 0xF0) {
      code = ((p[0] & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F);
      p += 3;
    } else {
      code = ((p[0] & 0x07) << 18) | ((p[1] & 0x3F) << 12) | ((p[2] & 0x3F) << 6) | (p[3] & 0x3F);
      p += 4;
    }
    if (code >= 0x10000) {
      code -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(code));
    }
  }
  marker(0x60, units.size());
  for (char16_t unit : units) {
    number(unit, 2);
  }
  return index;
}

// Writes the container whose children are pending_ from `base` on, and forgets them.
std::uint64_t BinaryWriter::container(std::uint8_t type, std::size_t base, std::uint64_t count) {
  const std::uint64_t index = begin();
  marker(type, count);
  for (std::size_t i = base; i < pending_.size(); ++i) {
    number(pending_[i], refSize_);
  }
  pending_.resize(base);
  return index;
}

Expected<std::uint64_t> BinaryWriter::write(const Value& value, int depth) {
  if (depth > ReadLimits::kDepthCeiling) {
    return Failure{"value nested too deeply for a property list"};
  }
  switch (value.kind()) {
  case Kind::Boolean: {
    const std::uint64_t index = begin();
    out_.push_back(*value.asBool() ? 0x09 : 0x08);
    return index;
  }
  case Kind::Integer: {
    const std::int64_t n = *value.asInteger();
    const std::uint64_t index = begin();
    integer(static_cast<std::uint64_t>(n), n < 0);
    return index;
  }
  case Kind::Real: {
    const std::uint64_t index = begin();
    out_.push_back(0x23);
    number(std::bit_cast<std::uint64_t>(*value.asReal()), 8);
    return index;
  }
  case Kind::Date: {
    const Date date = *value.asDate();
    if (!isCarriedDate(date)) {
      return Failure{"a date outside the years 1 to 9999 cannot be stored in a property list"};
    }
    const std::uint64_t index = begin();
    out_.push_back(0x33);
    number(std::bit_cast<std::uint64_t>(date.seconds), 8);
    return index;
  }
  case Kind::Data: {
    const Data& data = *value.asData();
    const std::uint64_t index = begin();
    marker(0x40, data.size());
    out_.insert(out_.end(), data.begin(), data.end());
    return index;
  }
  case Kind::String:
    return string(*value.asString(), "string");
  case Kind::Array: {
    const Array& array = *value.asArray();
    const std::size_t base = pending_.size();
    for (const Value& item : array) {
      auto child = write(item, depth + 1);
      if (!child) {
        return child;
      }
      pending_.push_back(*child);
    }
    return container(0xA0, base, array.size());
  }
  case Kind::Dictionary: {
    const Dictionary& dict = *value.asDictionary();
    const std::size_t base = pending_.size();
    for (const auto& [key, item] : dict) {
      auto child = string(key, "key");
      if (!child) {
        return child;
      }
      pending_.push_back(*child);
    }
    for (const auto& [key, item] : dict) {
      auto child = write(item, depth + 1);
      if (!child) {
        return child;
      }
      pending_.push_back(*child);
    }
    return container(0xD0, base, dict.size());
  }
  case Kind::Null:
  case Kind::Error:
  case Kind::Object:
    break;
  }
  return Failure{std::string("a ") + std::string(kindName(value.kind())) +
                 " value cannot be stored in a property list"};
}

Data BinaryWriter::finish(std::uint64_t top) && {
  const std::uint64_t tableOffset = out_.size();
  const unsigned offsetSize = bytesFor(offsets_.empty() ? 0 : offsets_.back());
  for (std::uint64_t offset : offsets_) {
    number(offset, offsetSize);
  }
  out_.insert(out_.end(), 6, 0); // unused, sort version
  out_.push_back(static_cast<std::uint8_t>(offsetSize));
  out_.push_back(static_cast<std::uint8_t>(refSize_));
  number(offsets_.size(), 8);
  number(top, 8);
  number(tableOffset, 8);
  return std::move(out_);
}

} // namespace

Expected<Data> toBinary(const Value& value) {
  BinaryWriter writer(countObjects(value, 0));
  auto top = writer.write(value, 0);
  if (!top) {
    return top.failure();
  }
  return std::move(writer).finish(*top);
}

} // namespace kestrin::plist
