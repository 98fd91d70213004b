#include "foundation/QVGroupItem.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "foundation/QVException.h"
#include "foundation/QVPluginItem.h"

namespace kestrin {

namespace {

template <typename... F> struct Overloaded : F... { using F::operator()...; };
template <typename... F> Overloaded(F...) -> Overloaded<F...>;

// Path components as the platform splits them: a leading "/" is a component of its own, and
// so is a trailing one.
std::vector<std::string> pathComponents(const std::string& path) {
  std::vector<std::string> components;
  if (path.starts_with("/")) {
    components.emplace_back("/");
  }
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t slash = path.find('/', start);
    std::size_t end = slash == std::string::npos ? path.size() : slash;
    if (end > start) {
      components.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  if (path.size() > 1 && path.ends_with("/")) {
    components.emplace_back("/");
  }
  return components;
}

// Without "//", "." and lexical "..", and without a trailing "/".
std::string standardized(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') {
    normal.pop_back();
  }
  return normal == "." ? "" : normal;
}

std::string parentFolder(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') {
    trimmed.pop_back();
  }
  std::size_t slash = trimmed.rfind('/');
  if (slash == std::string::npos) {
    return "";
  }
  return slash == 0 ? "/" : trimmed.substr(0, slash);
}

} // namespace

void QVGroupItem::addChild(QVTreeItem child) {
  std::vector<QVTreeItem> children = children_;
  children.push_back(std::move(child));
  children_ = std::move(children);
}

std::int64_t QVGroupItem::groupEnabled() const {
  std::size_t enabled = 0;
  std::size_t disabled = 0;
  std::size_t mixed = 0;
  for (const QVTreeItem& child : children_) {
    std::visit(Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) {
                            ++(plugin->pluginEnabled() == 1 ? enabled : disabled);
                          },
                          [&](const std::shared_ptr<QVGroupItem>& group) {
                            std::int64_t state = group->groupEnabled();
                            ++(state == 1 ? enabled : state == 0 ? disabled : mixed);
                          }},
               child);
  }
  if (enabled >= 1 && disabled == 0 && mixed == 0) {
    return 1;
  }
  if (disabled >= 1 && enabled == 0 && mixed == 0) {
    return 0;
  }
  return -1;
}

std::int64_t QVGroupItem::groupAccess() const {
  bool computer = false;
  bool user = false;
  for (const QVTreeItem& child : children_) {
    std::int64_t access = std::visit(
        Overloaded{[](const std::shared_ptr<QVPluginItem>& plugin) -> std::int64_t {
                     return plugin->pluginAccess();
                   },
                   [](const std::shared_ptr<QVGroupItem>& group) { return group->groupAccess(); }},
        child);
    if (access == -1 && std::holds_alternative<std::shared_ptr<QVGroupItem>>(child)) {
      return -1;
    }
    (access == 0 ? computer : user) = true;
  }
  if (computer == user) { // both, or no children
    return -1;
  }
  return computer ? 0 : 1;
}

QVGroupItem::Text QVGroupItem::groupPath() const {
  if (children_.empty()) {
    return groupPath_;
  }
  std::map<std::string, std::size_t> counts;
  for (const QVTreeItem& child : children_) {
    std::visit(Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) {
                            ++counts[parentFolder(plugin->pluginPath())];
                          },
                          [&](const std::shared_ptr<QVGroupItem>& group) {
                            if (Text path = group->groupPath()) {
                              ++counts[*path];
                            }
                          }},
               child);
  }
  const std::pair<const std::string, std::size_t>* best = nullptr;
  for (const auto& entry : counts) {
    if (best == nullptr || entry.second > best->second) {
      best = &entry;
    }
  }
  return best ? Text(best->first) : std::nullopt;
}

QVGroupItem::Text QVGroupItem::basePath() const {
  Text path = groupPath();
  std::vector<std::string> pathParts = pathComponents(path.value_or(""));
  std::vector<std::string> subdirParts = pathComponents(subdir_.value_or(""));
  if (subdirParts.empty() || subdirParts.size() > pathParts.size()) {
    return path;
  }
  pathParts.resize(pathParts.size() - subdirParts.size());
  std::string joined;
  for (std::size_t i = 0; i < pathParts.size(); ++i) {
    joined += (i == 0 ? "" : "/") + pathParts[i];
  }
  return standardized(joined);
}

void QVGroupItem::renameChildSubdirs(const Text& subdir) {
  for (const QVTreeItem& child : children_) {
    std::visit(
        Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) { plugin->setSubdir(subdir); },
                   [&](const std::shared_ptr<QVGroupItem>& group) {
                     group->renameChildSubdirs(
                         subdir ? Text(appendPathComponent(*subdir, group->title().value_or("")))
                                : std::nullopt);
                   }},
        child);
  }
}

std::size_t QVGroupItem::totalChildCount() const {
  std::size_t count = 0;
  for (const QVTreeItem& child : children_) {
    count +=
        std::visit(Overloaded{[](const std::shared_ptr<QVPluginItem>&) -> std::size_t { return 1; },
                              [](const std::shared_ptr<QVGroupItem>& group) {
                                return group->totalChildCount();
                              }},
                   child);
  }
  return count;
}

std::size_t QVGroupItem::totalEnabledChildCount() const {
  std::size_t count = 0;
  for (const QVTreeItem& child : children_) {
    count += std::visit(Overloaded{[](const std::shared_ptr<QVPluginItem>& plugin) -> std::size_t {
                                     return plugin->pluginEnabled() == 1 ? 1 : 0;
                                   },
                                   [](const std::shared_ptr<QVGroupItem>& group) {
                                     return group->totalChildCount();
                                   }},
                        child);
  }
  return count;
}

void QVGroupItem::enableChildren(const Number& enabled) {
  for (const QVTreeItem& child : children_) {
    std::visit(
        Overloaded{
            [&](const std::shared_ptr<QVPluginItem>& plugin) { plugin->setPluginEnabled(enabled); },
            [&](const std::shared_ptr<QVGroupItem>& group) { group->enableChildren(enabled); }},
        child);
  }
}

void QVGroupItem::setChildAccess(const Number& access) {
  for (const QVTreeItem& child : children_) {
    std::visit(Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) {
                            plugin->setPluginAccess(static_cast<std::int32_t>(access.value_or(0)));
                          },
                          [&](const std::shared_ptr<QVGroupItem>& group) {
                            group->setChildAccess(access);
                          }},
               child);
  }
}

std::vector<std::shared_ptr<QVPluginItem>> QVGroupItem::allChildren() const {
  std::vector<std::shared_ptr<QVPluginItem>> plugins;
  for (const QVTreeItem& child : children_) {
    std::visit(
        Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) { plugins.push_back(plugin); },
                   [&](const std::shared_ptr<QVGroupItem>& group) {
                     auto below = group->allChildren();
                     plugins.insert(plugins.end(), below.begin(), below.end());
                   }},
        child);
  }
  return plugins;
}

void QVGroupItem::sortChildren(Order order, bool reverse, Sort again) {
  std::vector<QVTreeItem> sorted = children_;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [order](const QVTreeItem& a, const QVTreeItem& b) { return order(a, b) < 0; });
  if (reverse) {
    sorted = reverseArray(sorted).value_or(std::vector<QVTreeItem>{});
  }
  children_ = std::move(sorted);
  for (const QVTreeItem& child : children_) {
    if (const auto* group = std::get_if<std::shared_ptr<QVGroupItem>>(&child)) {
      ((**group).*again)(reverse);
    }
    // A plug-in item's sorts do nothing.
  }
}

void QVGroupItem::sortChildrenByName(bool reverse) {
  sortChildren(&nameCompare, reverse, &QVGroupItem::sortChildrenByName);
}
void QVGroupItem::sortChildrenByVersion(bool reverse) {
  sortChildren(&versionCompare, reverse, &QVGroupItem::sortChildrenByVersion);
}
void QVGroupItem::sortChildrenByStatus(bool reverse) {
  sortChildren(&statusCompare, reverse, &QVGroupItem::sortChildrenByStatus);
}
void QVGroupItem::sortChildrenByType(bool reverse) {
  sortChildren(&typeCompare, reverse, &QVGroupItem::sortChildrenByType);
}

std::optional<std::vector<QVTreeItem>>
QVGroupItem::reverseArray(const std::vector<QVTreeItem>& items) {
  try {
    return std::vector<QVTreeItem>(items.rbegin(), items.rend());
  } catch (const std::exception& e) {
    QVException::logException(e, "-[QVGroupItem reverseArray:]");
    return std::nullopt;
  }
}

bool operator==(const QVGroupItem& a, const QVGroupItem& b) {
  if (a.title_ != b.title_ || a.groupPath_ != b.groupPath_ || a.subdir_ != b.subdir_ ||
      a.children_.size() != b.children_.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.children_.size(); ++i) {
    bool same =
        std::visit(Overloaded{[&](const std::shared_ptr<QVPluginItem>& plugin) {
                                const auto* other =
                                    std::get_if<std::shared_ptr<QVPluginItem>>(&b.children_[i]);
                                return other && **other == *plugin;
                              },
                              [&](const std::shared_ptr<QVGroupItem>& group) {
                                const auto* other =
                                    std::get_if<std::shared_ptr<QVGroupItem>>(&b.children_[i]);
                                return other && **other == *group;
                              }},
                   a.children_[i]);
    if (!same) {
      return false;
    }
  }
  return true;
}

} // namespace kestrin
