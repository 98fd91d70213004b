#include "foundation/PluginArchive.h"

#include <limits>

#include <fmt/format.h>

#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"

namespace kestrin {

namespace {

constexpr const char* kPluginClass = "QVPluginItem";
constexpr const char* kGroupClass = "QVGroupItem";

plist::Value object(const std::optional<std::string>& text) {
  return text ? plist::Value(*text) : plist::Value(plist::Dictionary{});
}

plist::Value object(const std::optional<std::int64_t>& number) {
  return number ? plist::Value(*number) : plist::Value(plist::Dictionary{});
}

plist::Value archived(const QVTreeItem& item);

plist::Value archivedGroup(const QVGroupItem& group) {
  plist::Array children;
  children.reserve(group.children().size());
  for (const QVTreeItem& child : group.children()) {
    children.push_back(archived(child));
  }
  return plist::Array{kGroupClass, object(group.title()), std::move(children),
                      object(group.subdir()), object(group.storedGroupPath())};
}

plist::Value archived(const QVTreeItem& item) {
  if (const auto* group = std::get_if<std::shared_ptr<QVGroupItem>>(&item)) {
    return archivedGroup(**group);
  }
  const QVPluginItem& plugin = *std::get<std::shared_ptr<QVPluginItem>>(item);
  return plist::Array{kPluginClass,
                      object(plugin.shortName()),
                      object(plugin.fileName()),
                      object(plugin.subdir()),
                      object(plugin.version()),
                      object(plugin.pluginEnabled()),
                      object(plugin.itemSelection()),
                      plugin.pluginType(),
                      plugin.pluginAccess()};
}

// Reads one archive; every refusal throws Malformed, caught at the top.
class Reader {
public:
  struct Malformed {
    std::string why;
  };

  explicit Reader(std::shared_ptr<const PluginRoots> roots) : roots_(std::move(roots)) {}

  std::shared_ptr<QVGroupItem> group(const plist::Value& value, int depth) {
    const plist::Array& fields = fieldsOf(value, kGroupClass, 5);
    if (depth > PluginArchive::kDepthLimit) {
      throw Malformed{fmt::format("groups nested deeper than {}", PluginArchive::kDepthLimit)};
    }
    auto result = std::make_shared<QVGroupItem>();
    result->setTitle(text(fields[1], "title"));
    const plist::Array* children = fields[2].asArray();
    if (children == nullptr) {
      throw Malformed{"a group's children are not an array"};
    }
    std::vector<QVTreeItem> items;
    items.reserve(children->size());
    for (const plist::Value& child : *children) {
      count();
      if (isA(child, kGroupClass)) {
        auto inner = group(child, depth + 1);
        inner->setParent(result.get());
        items.emplace_back(std::move(inner));
      } else {
        auto leaf = plugin(child);
        leaf->setParent(result.get());
        items.emplace_back(std::move(leaf));
      }
    }
    result->setChildren(std::move(items));
    result->setSubdir(text(fields[3], "subdir"));
    result->setGroupPath(text(fields[4], "groupPath"));
    return result;
  }

private:
  void count() {
    if (++items_ > PluginArchive::kItemLimit) {
      throw Malformed{fmt::format("more than {} items", PluginArchive::kItemLimit)};
    }
  }

  static bool isA(const plist::Value& value, const char* name) {
    const plist::Array* fields = value.asArray();
    const std::string* className =
        fields && !fields->empty() ? fields->front().asString() : nullptr;
    return className && *className == name;
  }

  static const plist::Array& fieldsOf(const plist::Value& value, const char* name,
                                      std::size_t count) {
    if (!isA(value, name)) {
      throw Malformed{fmt::format("expected a {}", name)};
    }
    const plist::Array& fields = *value.asArray();
    if (fields.size() != count) {
      throw Malformed{
          fmt::format("a {} has {} fields, not {}", name, fields.size() - 1, count - 1)};
    }
    return fields;
  }

  static bool isNil(const plist::Value& value) {
    const plist::Dictionary* marker = value.asDictionary();
    return marker && marker->empty();
  }

  static std::optional<std::string> text(const plist::Value& value, const char* field) {
    if (isNil(value)) {
      return std::nullopt;
    }
    if (const std::string* s = value.asString()) {
      return *s;
    }
    throw Malformed{fmt::format("{} is a {} value, not a string", field, kindName(value.kind()))};
  }

  static std::optional<std::int64_t> number(const plist::Value& value, const char* field) {
    if (isNil(value)) {
      return std::nullopt;
    }
    if (auto n = value.asInteger()) {
      return *n;
    }
    throw Malformed{fmt::format("{} is a {} value, not an integer", field, kindName(value.kind()))};
  }

  static std::int32_t integer32(const plist::Value& value, const char* field) {
    auto n = value.asInteger();
    if (!n || *n < std::numeric_limits<std::int32_t>::min() ||
        *n > std::numeric_limits<std::int32_t>::max()) {
      throw Malformed{fmt::format("{} is not a 32-bit integer", field)};
    }
    return static_cast<std::int32_t>(*n);
  }

  std::shared_ptr<QVPluginItem> plugin(const plist::Value& value) {
    const plist::Array& fields = fieldsOf(value, kPluginClass, 9);
    // Through the setters, in the archived order.
    auto item = std::make_shared<QVPluginItem>(roots_);
    item->setShortName(text(fields[1], "shortName"));
    item->setFileName(text(fields[2], "fileName"));
    item->setSubdir(text(fields[3], "subdir"));
    item->setVersion(text(fields[4], "version"));
    item->setPluginEnabled(number(fields[5], "pluginEnabled"));
    item->setItemSelection(number(fields[6], "itemSelection"));
    item->setPluginType(integer32(fields[7], "pluginType"));
    item->setPluginAccess(integer32(fields[8], "pluginAccess"));
    return item;
  }

  std::shared_ptr<const PluginRoots> roots_;
  std::size_t items_ = 0;
};

} // namespace

plist::Value PluginArchive::archive(const QVGroupItem& root) {
  return plist::Dictionary{
      {"archiver", kArchiver}, {"version", kVersion}, {"root", archivedGroup(root)}};
}

Expected<std::shared_ptr<QVGroupItem>>
PluginArchive::unarchive(const plist::Value& archive, std::shared_ptr<const PluginRoots> roots) {
  const plist::Value* archiver = archive.get("archiver");
  if (archiver == nullptr || archiver->asString() == nullptr ||
      *archiver->asString() != kArchiver) {
    return Failure{"Not a plug-in tree archive"};
  }
  const plist::Value* version = archive.get("version");
  if (version == nullptr || version->asInteger() != kVersion) {
    return Failure{fmt::format("Plug-in tree archive of version {}; this program reads version {}",
                               version ? plist::describe(*version) : "(none)", kVersion)};
  }
  const plist::Value* root = archive.get("root");
  if (root == nullptr) {
    return Failure{"Malformed plug-in tree archive: no root group"};
  }
  try {
    return Reader(std::move(roots)).group(*root, 0);
  } catch (const Reader::Malformed& malformed) {
    return Failure{"Malformed plug-in tree archive: " + malformed.why};
  }
}

} // namespace kestrin
