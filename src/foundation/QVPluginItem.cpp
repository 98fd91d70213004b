#include "foundation/QVPluginItem.h"

#include <algorithm>

#include "foundation/QVException.h"
#include "foundation/QVFileManager.h"

namespace kestrin {

std::string appendPathComponent(const std::string& base, const std::string& component) {
  std::string_view tail = component;
  while (!tail.empty() && tail.front() == '/') {
    tail.remove_prefix(1);
  }
  if (tail.empty()) {
    return base.empty() ? component : base;
  }
  if (base.empty()) {
    return component;
  }
  std::string_view head = base;
  while (head.size() > 1 && head.back() == '/') {
    head.remove_suffix(1);
  }
  return std::string(head) + (head == "/" ? "" : "/") + std::string(tail);
}

QVPluginItem::QVPluginItem(std::shared_ptr<const PluginRoots> roots) : roots_(std::move(roots)) {}

QVPluginItem::QVPluginItem(Text fileName, std::int32_t pluginType, std::int32_t pluginAccess,
                           Number pluginEnabled, std::shared_ptr<const PluginRoots> roots)
    : roots_(std::move(roots)) {
  setFileName(std::move(fileName));
  setPluginType(pluginType);
  setPluginAccess(pluginAccess);
  setPluginEnabled(pluginEnabled);
  itemSelection_ = 0;
  actualPath_ = pluginPath();
}

void QVPluginItem::setFileName(Text fileName) {
  changeTracked([&] { fileName_ = std::move(fileName); });
}
void QVPluginItem::setSubdir(Text subdir) {
  changeTracked([&] { subdir_ = std::move(subdir); });
}
void QVPluginItem::setPluginType(std::int32_t pluginType) {
  changeTracked([&] { pluginType_ = pluginType; });
}
void QVPluginItem::setPluginAccess(std::int32_t pluginAccess) {
  changeTracked([&] { pluginAccess_ = pluginAccess; });
}
void QVPluginItem::setItemSelection(Number itemSelection) {
  changeTracked([&] { itemSelection_ = itemSelection; });
}
void QVPluginItem::setPluginEnabled(Number pluginEnabled) {
  changeTracked([&] { pluginEnabled_ = pluginEnabled; });
}
void QVPluginItem::setParent(QVGroupItem* parent) {
  changeTracked([&] { parent_ = parent; });
}

std::string QVPluginItem::pluginTypeName() const {
  switch (pluginType_) {
  case 0:
    return "FxPlug";
  case 1:
    return "FxScript";
  case 2:
    return "Audio Unit";
  default:
    return "Unknown";
  }
}

std::string QVPluginItem::pluginBasePath() const {
  const std::string& root = pluginAccess_ == 0 ? roots_->computer : roots_->user;
  switch (pluginType_) {
  case 0:
    return appendPathComponent(root, "Library/Plug-Ins/FxPlug");
  case 1:
    return appendPathComponent(
        root, pluginAccess_ == 0
                  ? "Library/Application Support/Final Cut Pro System Support/Plugins"
                  : "Library/Preferences/Final Cut Pro User Data/Plugins");
  case 2:
    return appendPathComponent(root, "Library/Audio/Plug-Ins/Components");
  default:
    return "";
  }
}

std::string QVPluginItem::pluginRelativePath() const {
  std::string path = pluginBasePath();
  if (subdir_) {
    path = appendPathComponent(path, *subdir_);
  }
  return appendPathComponent(path, fileName_.value_or(""));
}

std::string QVPluginItem::pluginTypeDir() const {
  return pluginEnabled_ == 0 ? roots_->disabled : "";
}

std::string QVPluginItem::pluginPath() const {
  return appendPathComponent(pluginTypeDir(), pluginRelativePath());
}

void QVPluginItem::updateActualPath() {
  std::string path = pluginPath();
  if (actualPath_ && !QVFileManager::fileExistsAtPath(path)) {
    return;
  }
  actualPath_ = std::move(path);
}

std::optional<std::vector<QVTreeItem>>
QVPluginItem::reverseArray(const std::vector<QVTreeItem>& items) {
  try {
    return std::vector<QVTreeItem>(items.rbegin(), items.rend());
  } catch (const std::exception& e) {
    QVException::logException(e, "-[QVPluginItem reverseArray:]");
    return std::nullopt;
  }
}

bool operator==(const QVPluginItem& a, const QVPluginItem& b) {
  return a.shortName_ == b.shortName_ && a.fileName_ == b.fileName_ && a.subdir_ == b.subdir_ &&
         a.version_ == b.version_ && a.pluginEnabled_ == b.pluginEnabled_ &&
         a.itemSelection_ == b.itemSelection_ && a.pluginType_ == b.pluginType_ &&
         a.pluginAccess_ == b.pluginAccess_;
}

} // namespace kestrin
