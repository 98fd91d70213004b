#include "plist/PropertyList.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Syscall.h"

namespace kestrin::plist {

namespace {

// Nesting deeper than this is refused rather than risking the stack on hostile input.
constexpr int kMaxDepth = 512;

struct NodeDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// ---- libplist -> Value

Expected<Value> fromNode(plist_t node, int depth);

Expected<Value> fromNode(plist_t node, int depth) {
  if (depth > kMaxDepth) {
    return Failure{"property list nested too deeply"};
  }
  switch (plist_get_node_type(node)) {
  case PLIST_BOOLEAN: {
    std::uint8_t b = 0;
    plist_get_bool_val(node, &b);
    return Value(b != 0);
  }
  case PLIST_UINT: {
    std::uint64_t u = 0;
    plist_get_uint_val(node, &u);
    return Value(static_cast<std::int64_t>(u));
  }
  case PLIST_UID: {
    std::uint64_t u = 0;
    plist_get_uid_val(node, &u);
    return Value(static_cast<std::int64_t>(u));
  }
  case PLIST_REAL: {
    double d = 0;
    plist_get_real_val(node, &d);
    return Value(d);
  }
  case PLIST_STRING:
  case PLIST_KEY: {
    char* raw = nullptr;
    if (plist_get_node_type(node) == PLIST_KEY) {
      plist_get_key_val(node, &raw);
    } else {
      plist_get_string_val(node, &raw);
    }
    std::unique_ptr<char, FreeDeleter> owned(raw);
    return Value(std::string(raw ? raw : ""));
  }
  case PLIST_DATA: {
    char* raw = nullptr;
    std::uint64_t length = 0;
    plist_get_data_val(node, &raw, &length);
    std::unique_ptr<char, FreeDeleter> owned(raw);
    auto* bytes = reinterpret_cast<const std::uint8_t*>(raw);
    return Value(raw ? Data(bytes, bytes + length) : Data());
  }
  case PLIST_DATE: {
    std::int32_t sec = 0;
    std::int32_t usec = 0;
    plist_get_date_val(node, &sec, &usec);
    // libplist splits a negative binary date by truncation and keeps the fraction's magnitude
    // in usec, so the fraction counts away from zero. Dates in (-1, 0) lose their sign there.
    double fraction = static_cast<double>(usec) / 1e6;
    return Value(Date{sec < 0 ? sec - fraction : sec + fraction});
  }
  case PLIST_ARRAY: {
    std::uint32_t count = plist_array_get_size(node);
    Array array;
    array.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      auto item = fromNode(plist_array_get_item(node, i), depth + 1);
      if (!item) {
        return item;
      }
      array.push_back(std::move(item).value());
    }
    return Value(std::move(array));
  }
  case PLIST_DICT: {
    Dictionary dict;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(node, &it);
    std::unique_ptr<void, FreeDeleter> ownedIter(it);
    for (;;) {
      char* key = nullptr;
      plist_t child = nullptr;
      plist_dict_next_item(node, it, &key, &child);
      if (child == nullptr) {
        std::free(key);
        break;
      }
      std::unique_ptr<char, FreeDeleter> ownedKey(key);
      auto item = fromNode(child, depth + 1);
      if (!item) {
        return item;
      }
      dict.set(key ? key : "", std::move(item).value());
    }
    return Value(std::move(dict));
  }
  case PLIST_NONE:
    break;
  }
  return Failure{"property list holds a node of unknown type"};
}

// ---- Value -> libplist

// libplist keeps dates as whole seconds plus microseconds and reads them back as
// sec + usec/1e6; splitting with floor keeps microseconds non-negative for negative dates.
plist_t newDate(double seconds) {
  double whole = std::floor(seconds);
  auto usec = static_cast<std::int32_t>(std::lround((seconds - whole) * 1e6));
  if (usec >= 1000000) {
    whole += 1;
    usec -= 1000000;
  }
  constexpr double lo = std::numeric_limits<std::int32_t>::min();
  constexpr double hi = std::numeric_limits<std::int32_t>::max();
  whole = std::clamp(whole, lo, hi);
  return plist_new_date(static_cast<std::int32_t>(whole), usec);
}

Expected<Node> toNode(const Value& value, int depth) {
  if (depth > kMaxDepth) {
    return Failure{"value nested too deeply for a property list"};
  }
  switch (value.kind()) {
  case Kind::Boolean:
    return Node(plist_new_bool(*value.asBool() ? 1 : 0));
  case Kind::Integer:
    return Node(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
  case Kind::Real:
    return Node(plist_new_real(*value.asReal()));
  case Kind::String:
    if (value.asString()->find('\0') != std::string::npos) {
      return Failure{"a string with a NUL character cannot be stored in a property list"};
    }
    return Node(plist_new_string(value.asString()->c_str()));
  case Kind::Data: {
    const Data& data = *value.asData();
    return Node(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
  }
  case Kind::Date:
    return Node(newDate(value.asDate()->seconds));
  case Kind::Array: {
    Node array(plist_new_array());
    for (const Value& item : *value.asArray()) {
      auto child = toNode(item, depth + 1);
      if (!child) {
        return child;
      }
      plist_array_append_item(array.get(), child->release());
    }
    return array;
  }
  case Kind::Dictionary: {
    Node dict(plist_new_dict());
    for (const auto& [key, item] : *value.asDictionary()) {
      auto child = toNode(item, depth + 1);
      if (!child) {
        return child;
      }
      plist_dict_set_item(dict.get(), key.c_str(), child->release());
    }
    return dict;
  }
  case Kind::Null:
  case Kind::Error:
  case Kind::Object:
    break;
  }
  return Failure{std::string("a ") + std::string(kindName(value.kind())) +
                 " value cannot be stored in a property list"};
}

constexpr std::string_view kBinaryMagic = "bplist00";

bool looksBinary(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= kBinaryMagic.size() &&
         std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) == 0;
}

// libplist accepts trailing garbage and missing end tags in places; insist that the document
// at least closes its plist element.
bool xmlLooksComplete(std::string_view text) {
  auto end = text.find_last_not_of(" \t\r\n");
  if (end == std::string_view::npos) {
    return false;
  }
  text = text.substr(0, end + 1);
  return text.ends_with("</plist>") || text.ends_with("<plist/>");
}

} // namespace

Expected<Value> parseXml(std::string_view text) {
  if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Failure{"property list too large"};
  }
  if (!xmlLooksComplete(text)) {
    return Failure{"not a complete XML property list"};
  }
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
  if (root == nullptr) {
    return Failure{"malformed XML property list"};
  }
  Node owned(root);
  return fromNode(root, 0);
}

Expected<Value> parseBinary(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return Failure{"property list too large"};
  }
  if (!looksBinary(bytes)) {
    return Failure{"not a binary property list"};
  }
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &root);
  if (root == nullptr) {
    return Failure{"malformed binary property list"};
  }
  Node owned(root);
  return fromNode(root, 0);
}

Expected<Value> parse(std::span<const std::uint8_t> bytes) {
  if (looksBinary(bytes)) {
    return parseBinary(bytes);
  }
  return parseXml(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

Expected<Value> parse(std::string_view text) {
  return parse(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

Expected<std::string> toXml(const Value& value) {
  auto node = toNode(value, 0);
  if (!node) {
    return node.failure();
  }
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node->get(), &xml, &length);
  if (xml == nullptr) {
    return Failure{"could not write XML property list"};
  }
  std::string result(xml, length);
  plist_to_xml_free(xml);
  return result;
}

Expected<Data> toBinary(const Value& value) {
  auto node = toNode(value, 0);
  if (!node) {
    return node.failure();
  }
  char* bin = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node->get(), &bin, &length);
  if (bin == nullptr) {
    return Failure{"could not write binary property list"};
  }
  auto* bytes = reinterpret_cast<const std::uint8_t*>(bin);
  Data result(bytes, bytes + length);
  plist_to_bin_free(bin);
  return result;
}

Expected<Value> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return Failure{"cannot open " + path.string()};
  }
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    return Failure{"cannot read " + path.string()};
  }
  auto value = parse(std::string_view(bytes));
  if (!value) {
    return Failure{path.string() + ": " + value.message()};
  }
  return value;
}

Expected<void> writeFile(const std::filesystem::path& path, const Value& value, Format format) {
  std::string bytes;
  if (format == Format::Xml) {
    auto xml = toXml(value);
    if (!xml) {
      return xml.failure();
    }
    bytes = std::move(xml).value();
  } else {
    auto bin = toBinary(value);
    if (!bin) {
      return bin.failure();
    }
    bytes.assign(bin->begin(), bin->end());
  }

  std::string temp = path.string() + ".XXXXXX";
  int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) {
    return Failure{errnoMessage("cannot create " + temp)};
  }
  auto fail = [&](const std::string& what) {
    Failure failure{errnoMessage(what)};
    ::close(fd);
    ::unlink(temp.c_str());
    return failure;
  };
  // mkostemp creates the file 0600; settings files are read by the user's other tools too.
  if (::fchmod(fd, 0644) != 0) {
    return fail("cannot set the mode of " + temp);
  }
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = retryOnEintr([&] { return ::write(fd, bytes.data() + written, bytes.size() - written); });
    if (n < 0) {
      return fail("cannot write " + temp);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0) {
    return fail("cannot flush " + temp);
  }
  if (::close(fd) != 0) {
    ::unlink(temp.c_str());
    return Failure{errnoMessage("cannot close " + temp)};
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    Failure failure{errnoMessage("cannot replace " + path.string())};
    ::unlink(temp.c_str());
    return failure;
  }
  return {};
}

} // namespace kestrin::plist
