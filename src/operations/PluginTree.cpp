#include "operations/PluginTree.h"

#include <map>

#include "foundation/BundleInfoFile.h"
#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"

namespace kestrin::operations {

namespace {

// A group being filled: children are collected here and handed over once, since a group's
// addChild copies its whole list.
struct Node {
  std::shared_ptr<QVGroupItem> group = std::make_shared<QVGroupItem>();
  std::vector<QVTreeItem> children;
  std::vector<std::unique_ptr<Node>> subgroups; // in the order met
  std::map<std::string, Node*> byTitle;

  Node& subgroup(const std::string& title, const std::optional<std::string>& subdir,
                 const std::optional<std::string>& groupPath) {
    auto found = byTitle.find(title);
    if (found != byTitle.end()) {
      return *found->second;
    }
    subgroups.push_back(std::make_unique<Node>());
    Node& node = *subgroups.back();
    node.group->setTitle(title);
    node.group->setSubdir(subdir);
    node.group->setGroupPath(groupPath);
    node.group->setParent(group.get());
    children.emplace_back(node.group);
    byTitle.emplace(title, &node);
    return node;
  }

  void finish() {
    for (auto& node : subgroups) {
      node->finish();
    }
    group->setChildren(std::move(children));
  }
};

bool isBelow(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() + 1 && path.starts_with(folder) && path[folder.size()] == '/';
}

std::vector<std::string> componentsOf(std::string_view relative) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= relative.size()) {
    std::size_t slash = relative.find('/', start);
    std::size_t end = slash == std::string_view::npos ? relative.size() : slash;
    if (end > start) {
      parts.emplace_back(relative.substr(start, end - start));
    }
    start = end + 1;
  }
  return parts;
}

} // namespace

std::int32_t pluginTypeCode(std::string_view typeName) {
  return typeName == "FxPlug" ? 0 : typeName == "FxScript" ? 1 : typeName == "Audio Unit" ? 2 : -1;
}

std::shared_ptr<QVGroupItem> pluginTreeOf(const plist::Array& inventory,
                                          const std::vector<PluginFolders::Row>& table,
                                          const PluginFolders& folders,
                                          std::shared_ptr<const PluginRoots> roots) {
  Node root;
  root.group->setTitle("Plug-ins");
  for (const plist::Value& value : inventory) {
    const plist::Dictionary* record = value.asDictionary();
    auto fullPath = record ? stringMember(*record, "fullPath") : std::nullopt;
    if (!fullPath) {
      continue;
    }
    std::string type = stringMember(*record, "type").value_or("Unknown");
    const plist::Value* disabledValue = record->find("disabled");
    bool disabled = disabledValue && disabledValue->boolValue().value_or(false);
    std::string enabledPath = disabled ? folders.withoutDisabledPrefix(*fullPath) : *fullPath;

    // The table's folder that holds it; a stray record gets its own parent folder.
    std::string folder;
    for (const PluginFolders::Row& row : table) {
      if (row.type == type && isBelow(enabledPath, row.folder)) {
        folder = row.folder;
        break;
      }
    }
    std::vector<std::string> parts;
    if (folder.empty()) {
      std::size_t slash = enabledPath.rfind('/');
      folder = slash == std::string::npos || slash == 0 ? "/" : enabledPath.substr(0, slash);
      parts = componentsOf(slash == std::string::npos ? enabledPath : enabledPath.substr(slash));
    } else {
      parts = componentsOf(std::string_view(enabledPath).substr(folder.size()));
    }
    if (parts.empty()) {
      continue;
    }
    std::string fileName = parts.back();
    parts.pop_back();

    Node* node = &root.subgroup(type, std::nullopt, std::nullopt);
    node = &node->subgroup(folder, std::nullopt, folder);
    std::optional<std::string> subdir;
    for (const std::string& part : parts) {
      subdir = subdir ? appendPathComponent(*subdir, part) : part;
      node = &node->subgroup(part, subdir, appendPathComponent(folder, *subdir));
    }

    const plist::Value* access = record->find("accessType");
    auto item = std::make_shared<QVPluginItem>(
        fileName, pluginTypeCode(type),
        static_cast<std::int32_t>(access ? access->integerValue().value_or(0) : 0),
        disabled ? 0 : 1, roots);
    item->setShortName(stringMember(*record, "name"));
    item->setVersion(stringMember(*record, "version"));
    item->setSubdir(subdir);
    item->setParent(node->group.get());
    item->setActualPath(*fullPath);
    node->children.emplace_back(std::move(item));
  }
  root.finish();
  return root.group;
}

} // namespace kestrin::operations
