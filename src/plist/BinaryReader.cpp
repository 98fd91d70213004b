// Reading binary property lists ("bplist00"): the project's own reader, because the bytes come
// from callers who may be hostile and the system library asserts on some of them and expands
// shared objects without limit.
//
// The format is a header, the objects, a table of their offsets and a 32-byte trailer; arrays
// and dictionaries hold object numbers, so one object may be referred to many times. Reading
// takes two passes, neither recursive:
//   1. measure: walk the objects reachable from the top one, validating each, and compute per
//      object the values, bytes and depth it expands to (memoised, so shared objects cost once).
//      A cycle, or an expansion past the caller's limits, is refused here, before anything is
//      built: a few hundred bytes that would expand to millions of values cost microseconds.
//   2. build: walk again, now known to be within limits, and build the Value.
#include "plist/PropertyList.h"

#include <bit>
#include <cstring>

#include <fmt/format.h>

#include "plist/IsoDate.h"
#include "plist/Text.h"
#include "plist/TreeBuilder.h"

namespace kestrin::plist {

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;

enum class Type : std::uint8_t {
  Boolean,
  Integer,
  Real,
  Date,
  Data,
  Ascii,
  Utf16,
  Uid,
  Array,
  Dictionary
};

bool isString(Type type) {
  return type == Type::Ascii || type == Type::Utf16;
}

bool isContainer(Type type) {
  return type == Type::Array || type == Type::Dictionary;
}

// One object's marker, decoded and bounds-checked.
struct Object {
  Type type;
  // Bytes of a number, data or ASCII string; code units of a UTF-16 string; entries of an array
  // or dictionary; the value of a boolean.
  std::uint64_t count;
  // Where the payload starts: a container's first object number.
  std::size_t payload;
};

// One container on the path from the top object while measuring.
struct Step {
  Object object;
  std::uint64_t index;
  std::uint64_t next = 0; // references looked at: a dictionary's keys first, then its values
  std::uint64_t nodes = 1;
  std::uint64_t bytes = 0;
  std::uint32_t height = 0;
};

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

class BinaryReader {
public:
  BinaryReader(std::span<const std::uint8_t> bytes, const ReadLimits& limits)
      : bytes_(bytes), limits_(limits) {}

  Expected<Value> read();

private:
  // An object once decoded, and what it expands to once measured.
  struct Extent {
    Object object{};
    std::uint64_t nodes = 0;
    std::uint64_t bytes = 0;
    std::uint32_t height = 0;
    enum : std::uint8_t { Unvisited, Active, Measured } state = Unvisited;
  };

  Failure fail(std::string_view what) const {
    return Failure{fmt::format("malformed binary property list: {}", what)};
  }
  // A big-endian unsigned number; references and offsets are read this way, so the common
  // widths take no loop.
  std::uint64_t number(std::size_t at, unsigned size) const {
    const std::uint8_t* p = bytes_.data() + at;
    switch (size) {
    case 1:
      return p[0];
    case 2:
      return static_cast<std::uint64_t>(p[0] << 8 | p[1]);
    case 4: {
      std::uint32_t n;
      std::memcpy(&n, p, 4);
      return std::endian::native == std::endian::little ? __builtin_bswap32(n) : n;
    }
    case 8: {
      std::uint64_t n;
      std::memcpy(&n, p, 8);
      return std::endian::native == std::endian::little ? __builtin_bswap64(n) : n;
    }
    default: {
      std::uint64_t n = 0;
      for (unsigned i = 0; i < size; ++i) {
        n = (n << 8) | p[i];
      }
      return n;
    }
    }
  }
  std::uint64_t reference(const Object& container, std::uint64_t i) const {
    return number(container.payload + i * refSize_, refSize_);
  }

  Expected<void> readTrailer();
  Expected<Object> object(std::uint64_t index) const;
  Expected<std::uint64_t> checkScalar(const Object& object) const;
  Expected<void> measure();
  Expected<void> settle(std::vector<Step>& path, const Extent& child) const;
  Expected<Value> build() const;
  Value scalar(const Object& object) const;
  std::string string(const Object& object) const;

  std::span<const std::uint8_t> bytes_;
  ReadLimits limits_;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t tableOffset_ = 0;
  std::vector<Extent> extents_;
};

Expected<void> BinaryReader::readTrailer() {
  if (bytes_.size() < kMagic.size() + 1 + kTrailerSize) {
    return fail("too short");
  }
  const std::size_t t = bytes_.size() - kTrailerSize;
  offsetSize_ = bytes_[t + 6];
  refSize_ = bytes_[t + 7];
  count_ = number(t + 8, 8);
  top_ = number(t + 16, 8);
  tableOffset_ = number(t + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) {
    return fail("offset or reference size out of range");
  }
  if (count_ == 0 || top_ >= count_) {
    return fail("no top object");
  }
  if (tableOffset_ <= kMagic.size() || tableOffset_ >= t ||
      count_ > (t - tableOffset_) / offsetSize_) {
    return fail("offset table out of bounds");
  }
  // Every object expands to at least one value, so more objects than values allowed cannot fit.
  if (count_ > limits_.maxNodes) {
    return Failure{fmt::format("property list holds {} objects, more than the {} values a read "
                               "may build",
                               count_, limits_.maxNodes)};
  }
  return {};
}

Expected<Object> BinaryReader::object(std::uint64_t index) const {
  const std::uint64_t offset = number(tableOffset_ + index * offsetSize_, offsetSize_);
  if (offset < kMagic.size() || offset >= tableOffset_) {
    return fail(fmt::format("object {} lies outside the object area", index));
  }
  const std::uint8_t marker = bytes_[offset];
  const unsigned info = marker & 0x0F;
  std::size_t pos = offset + 1;
  const std::uint64_t end = tableOffset_;
  auto fits = [&](std::uint64_t count, std::uint64_t unit) { return count <= (end - pos) / unit; };
  // A count of 15 or more follows the marker as an integer object.
  auto length = [&]() -> Expected<std::uint64_t> {
    if (info != 0x0F) {
      return std::uint64_t{info};
    }
    if (pos >= end || (bytes_[pos] & 0xF0) != 0x10 || (bytes_[pos] & 0x0F) > 3) {
      return fail(fmt::format("object {} has a malformed length", index));
    }
    const unsigned size = 1u << (bytes_[pos] & 0x0F);
    ++pos;
    if (!fits(size, 1)) {
      return fail(fmt::format("object {} has a malformed length", index));
    }
    const std::uint64_t n = number(pos, size);
    pos += size;
    return n;
  };
  Object object{Type::Boolean, 0, 0};
  std::uint64_t unit = 1;
  switch (marker >> 4) {
  case 0x0:
    if (marker != 0x08 && marker != 0x09) {
      return fail(fmt::format("object {} is of a kind property lists do not hold (0x{:02x})", index,
                              marker));
    }
    return Object{Type::Boolean, marker == 0x09 ? 1u : 0u, pos};
  case 0x1:
    if (info > 4) {
      return fail(fmt::format("object {} is an integer of unknown size", index));
    }
    object = {Type::Integer, std::uint64_t{1} << info, pos};
    break;
  case 0x2:
    if (info != 2 && info != 3) {
      return fail(fmt::format("object {} is a real of unknown size", index));
    }
    object = {Type::Real, std::uint64_t{1} << info, pos};
    break;
  case 0x3:
    if (marker != 0x33) {
      return fail(fmt::format("object {} is a date of unknown size", index));
    }
    object = {Type::Date, 8, pos};
    break;
  case 0x4:
  case 0x5:
  case 0x6:
  case 0xA:
  case 0xD: {
    auto n = length();
    if (!n) {
      return n.failure();
    }
    static constexpr Type kTypes[] = {Type::Data, Type::Ascii, Type::Utf16};
    const unsigned high = marker >> 4;
    object.type = high == 0xA ? Type::Array : high == 0xD ? Type::Dictionary : kTypes[high - 0x4];
    object.count = *n;
    object.payload = pos;
    unit = high == 0x6 ? 2 : high == 0xA ? refSize_ : high == 0xD ? 2u * refSize_ : 1;
    if (!fits(object.count, unit)) {
      return fail(fmt::format("object {} runs past the object area", index));
    }
    return object;
  }
  case 0x8:
    if (info > 7) {
      return fail(fmt::format("object {} is a UID wider than 64 bits", index));
    }
    object = {Type::Uid, info + 1u, pos};
    break;
  default:
    return fail(
        fmt::format("object {} is of a kind property lists do not hold (0x{:02x})", index, marker));
  }
  if (!fits(object.count, 1)) {
    return fail(fmt::format("object {} runs past the object area", index));
  }
  return object;
}

// Validates a scalar and answers the bytes of text or data it builds.
Expected<std::uint64_t> BinaryReader::checkScalar(const Object& object) const {
  const std::uint8_t* p = bytes_.data() + object.payload;
  switch (object.type) {
  case Type::Integer:
    if (object.count == 16) {
      // Sixteen bytes hold 64-bit values the other sizes cannot: 2^63 to 2^64-1 (kept as their
      // 64 bits, as the XML reader does) and, from some writers, negative numbers.
      const std::uint64_t high = number(object.payload, 8);
      const std::uint64_t low = number(object.payload + 8, 8);
      if (high != 0 && !(high == UINT64_MAX && (low >> 63) != 0)) {
        return fail("an integer does not fit 64 bits");
      }
    }
    return 0;
  case Type::Date: {
    const double seconds = std::bit_cast<double>(number(object.payload, 8));
    if (!isCarriedDate(Date{seconds})) {
      return fail("a date outside the years 1 to 9999");
    }
    return 0;
  }
  case Type::Data:
    return object.count;
  case Type::Ascii:
    for (std::uint64_t i = 0; i < object.count; ++i) {
      if (p[i] == 0 || p[i] > 0x7F) {
        return fail(p[i] == 0 ? "a string holds a NUL character"
                              : "an ASCII string holds a byte above 127");
      }
    }
    return object.count;
  case Type::Utf16: {
    std::uint64_t utf8 = 0;
    for (std::uint64_t i = 0; i < object.count; ++i) {
      const unsigned unit = (p[2 * i] << 8) | p[2 * i + 1];
      if (unit == 0) {
        return fail("a string holds a NUL character");
      }
      if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < object.count) {
        const unsigned next = (p[2 * i + 2] << 8) | p[2 * i + 3];
        if (next >= 0xDC00 && next <= 0xDFFF) {
          utf8 += 4;
          ++i;
          continue;
        }
      }
      if (unit >= 0xD800 && unit <= 0xDFFF) {
        return fail("a string holds half of a UTF-16 surrogate pair");
      }
      utf8 += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
    }
    return utf8;
  }
  case Type::Boolean:
  case Type::Real:
  case Type::Uid:
    return 0;
  case Type::Array:
  case Type::Dictionary:
    break;
  }
  return fail("a container where a scalar belongs");
}

// Adds a measured object to the container it was found in (or checks the top object alone).
Expected<void> BinaryReader::settle(std::vector<Step>& path, const Extent& child) const {
  std::uint64_t nodes = child.nodes;
  std::uint64_t bytes = child.bytes;
  if (!path.empty()) {
    Step& parent = path.back();
    parent.nodes = nodes = saturatingAdd(parent.nodes, child.nodes);
    parent.bytes = bytes = saturatingAdd(parent.bytes, child.bytes);
    parent.height = std::max(parent.height, child.height + 1);
  }
  if (nodes > limits_.maxNodes) {
    return Failure{fmt::format("property list expands to more than {} values", limits_.maxNodes)};
  }
  if (bytes > limits_.maxBytes) {
    return Failure{fmt::format("property list expands to more than {} bytes of text and data",
                               limits_.maxBytes)};
  }
  return {};
}

Expected<void> BinaryReader::measure() {
  extents_.assign(count_, Extent{});
  std::vector<Step> path;
  const auto depthLimit = static_cast<std::size_t>(std::max(limits_.depthLimit(), 0));
  auto enter = [&](std::uint64_t index, bool asKey) -> Expected<void> {
    if (index >= count_) {
      return fail(fmt::format("a reference to object {} of {}", index, count_));
    }
    Extent& extent = extents_[index];
    if (extent.state == Extent::Active) {
      return fail(fmt::format("object {} contains itself", index));
    }
    if (extent.state == Extent::Unvisited) {
      auto object = this->object(index);
      if (!object) {
        return object.failure();
      }
      extent.object = *object;
      if (isContainer(object->type)) {
        if (asKey) {
          return fail("a dictionary key that is not a string");
        }
        if (path.size() > depthLimit) {
          return Failure{fmt::format("property list nested deeper than {} levels", depthLimit)};
        }
        extent.state = Extent::Active;
        path.push_back(Step{*object, index});
        return {};
      }
      auto bytes = checkScalar(*object);
      if (!bytes) {
        return bytes.failure();
      }
      extent.nodes = 1;
      extent.bytes = *bytes;
      extent.state = Extent::Measured;
    }
    if (asKey && !isString(extent.object.type)) {
      return fail("a dictionary key that is not a string");
    }
    // A container met before may be met again deeper down.
    if (path.size() + extent.height > depthLimit) {
      return Failure{fmt::format("property list nested deeper than {} levels", depthLimit)};
    }
    return settle(path, extent);
  };

  if (auto entered = enter(top_, false); !entered) {
    return entered;
  }
  while (!path.empty()) {
    Step& step = path.back();
    const bool dictionary = step.object.type == Type::Dictionary;
    const std::uint64_t references = dictionary ? 2 * step.object.count : step.object.count;
    if (step.next < references) {
      const bool isKey = dictionary && step.next < step.object.count;
      const std::uint64_t child = reference(step.object, step.next++);
      if (auto entered = enter(child, isKey); !entered) {
        return entered;
      }
      continue;
    }
    Extent& extent = extents_[step.index];
    extent.nodes = step.nodes;
    extent.bytes = step.bytes;
    extent.height = step.height;
    extent.state = Extent::Measured;
    path.pop_back();
    if (auto settled = settle(path, extent); !settled) {
      return settled;
    }
  }
  return {};
}

std::string BinaryReader::string(const Object& object) const {
  const auto* p = bytes_.data() + object.payload;
  if (object.type == Type::Ascii) {
    return std::string(reinterpret_cast<const char*>(p), object.count);
  }
  std::string out;
  out.reserve(object.count);
  for (std::uint64_t i = 0; i < object.count; ++i) {
    char32_t unit = (p[2 * i] << 8) | p[2 * i + 1];
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      const char32_t low = (p[2 * i + 2] << 8) | p[2 * i + 3];
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
      ++i;
    }
    text::appendUtf8(out, unit);
  }
  return out;
}

Value BinaryReader::scalar(const Object& object) const {
  switch (object.type) {
  case Type::Boolean:
    return Value(object.count != 0);
  case Type::Integer:
    if (object.count == 16) {
      return Value(static_cast<std::int64_t>(number(object.payload + 8, 8)));
    }
    return Value(
        static_cast<std::int64_t>(number(object.payload, static_cast<unsigned>(object.count))));
  case Type::Uid:
    return Value(
        static_cast<std::int64_t>(number(object.payload, static_cast<unsigned>(object.count))));
  case Type::Real:
    if (object.count == 4) {
      return Value(static_cast<double>(
          std::bit_cast<float>(static_cast<std::uint32_t>(number(object.payload, 4)))));
    }
    return Value(std::bit_cast<double>(number(object.payload, 8)));
  case Type::Date:
    return Value(Date{std::bit_cast<double>(number(object.payload, 8))});
  case Type::Data: {
    const auto* p = bytes_.data() + object.payload;
    return Value(Data(p, p + object.count));
  }
  case Type::Ascii:
  case Type::Utf16:
    return Value(string(object));
  case Type::Array:
  case Type::Dictionary:
    break;
  }
  return Value();
}

Expected<Value> BinaryReader::build() const {
  // Every object reachable was decoded and validated by measure(): failures here are only the
  // builder's, which charges the same values and bytes and cannot refuse what measure() let
  // through.
  TreeBuilder builder(limits_);
  struct Frame {
    const Object* container;
    std::uint64_t next;
  };
  std::vector<Frame> stack;
  auto visit = [&](std::uint64_t index, bool asKey) -> Expected<void> {
    const Object& object = extents_[index].object;
    if (asKey) {
      return builder.key(string(object));
    }
    if (!isContainer(object.type)) {
      return builder.add(scalar(object));
    }
    auto begun = object.type == Type::Array ? builder.beginArray(object.count)
                                            : builder.beginDictionary(object.count);
    if (begun) {
      stack.push_back(Frame{&object, 0});
    }
    return begun;
  };
  if (auto visited = visit(top_, false); !visited) {
    return visited.failure();
  }
  while (!stack.empty()) {
    Frame& frame = stack.back();
    const Object& container = *frame.container;
    const std::uint64_t n = container.count;
    const bool dictionary = container.type == Type::Dictionary;
    if (frame.next == (dictionary ? 2 * n : n)) {
      stack.pop_back();
      if (auto ended = builder.end(); !ended) {
        return ended.failure();
      }
      continue;
    }
    // A dictionary's entries alternate key and value; its references hold all keys first.
    std::uint64_t position = frame.next++;
    bool asKey = false;
    if (dictionary) {
      asKey = position % 2 == 0;
      position = asKey ? position / 2 : n + position / 2;
    }
    if (auto visited = visit(reference(container, position), asKey); !visited) {
      return visited.failure();
    }
  }
  return std::move(builder).take();
}

Expected<Value> BinaryReader::read() {
  if (auto trailer = readTrailer(); !trailer) {
    return trailer.failure();
  }
  if (auto measured = measure(); !measured) {
    return measured.failure();
  }
  return build();
}

} // namespace

Expected<Value> parseBinary(std::span<const std::uint8_t> bytes, const ReadLimits& limits) {
  if (bytes.size() > limits.maxBytes) {
    return Failure{fmt::format("property list of {} bytes is larger than the {} a read may take",
                               bytes.size(), limits.maxBytes)};
  }
  if (bytes.size() < kMagic.size() ||
      std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0) {
    return Failure{"not a binary property list"};
  }
  return BinaryReader(bytes, limits).read();
}

} // namespace kestrin::plist
