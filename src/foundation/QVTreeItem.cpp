#include "foundation/QVTreeItem.h"

#include <algorithm>
#include <cctype>

#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"

namespace kestrin {

namespace {

const QVPluginItem* pluginOf(const QVTreeItem& item) {
  const auto* plugin = std::get_if<std::shared_ptr<QVPluginItem>>(&item);
  return plugin ? plugin->get() : nullptr;
}

const QVGroupItem* groupOf(const QVTreeItem& item) {
  const auto* group = std::get_if<std::shared_ptr<QVGroupItem>>(&item);
  return group ? group->get() : nullptr;
}

// Plug-ins by `compare`; a plug-in before any group; groups alike.
template <typename Compare>
std::weak_ordering pluginsFirst(const QVTreeItem& a, const QVTreeItem& b, Compare compare) {
  const QVPluginItem* left = pluginOf(a);
  const QVPluginItem* right = pluginOf(b);
  if (left && right) {
    return compare(*left, *right);
  }
  if (left) {
    return std::weak_ordering::less;
  }
  return right ? std::weak_ordering::greater : std::weak_ordering::equivalent;
}

} // namespace

std::weak_ordering compareIgnoringCase(const std::optional<std::string>& a,
                                       const std::optional<std::string>& b) {
  static const std::string none;
  const std::string& left = a ? *a : none;
  const std::string& right = b ? *b : none;
  auto fold = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  std::size_t common = std::min(left.size(), right.size());
  for (std::size_t i = 0; i < common; ++i) {
    int l = fold(left[i]);
    int r = fold(right[i]);
    if (l != r) {
      return l < r ? std::weak_ordering::less : std::weak_ordering::greater;
    }
  }
  return left.size() <=> right.size();
}

std::weak_ordering nameCompare(const QVTreeItem& a, const QVTreeItem& b) {
  auto name = [](const QVTreeItem& item) {
    const QVPluginItem* plugin = pluginOf(item);
    return plugin ? plugin->shortName() : groupOf(item)->title();
  };
  return compareIgnoringCase(name(a), name(b));
}

std::weak_ordering versionCompare(const QVTreeItem& a, const QVTreeItem& b) {
  return pluginsFirst(a, b, [](const QVPluginItem& left, const QVPluginItem& right) {
    return compareIgnoringCase(left.version(), right.version());
  });
}

std::weak_ordering statusCompare(const QVTreeItem& a, const QVTreeItem& b) {
  return pluginsFirst(a, b, [](const QVPluginItem& left, const QVPluginItem& right) {
    // std::optional orders a missing value before every present one.
    return std::weak_ordering(left.pluginEnabled() <=> right.pluginEnabled());
  });
}

std::weak_ordering typeCompare(const QVTreeItem& a, const QVTreeItem& b) {
  auto type = [](const QVTreeItem& item) {
    const QVPluginItem* plugin = pluginOf(item);
    return std::optional<std::string>(plugin ? plugin->pluginTypeName() : "Group");
  };
  return compareIgnoringCase(type(a), type(b));
}

} // namespace kestrin
