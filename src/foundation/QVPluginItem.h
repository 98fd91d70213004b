#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/PluginFolders.h"
#include "foundation/QVTreeItem.h"

namespace kestrin {

// A plug-in in the tree that the administration application shows: its names, version, type,
// access domain and whether it is enabled, and from those the path it belongs at. Where the
// plug-in is really found (actualPath) is kept up to date as the item changes.
//
// Type codes: 0 FxPlug, 1 FxScript, 2 Audio Unit, anything else "Unknown". Access: 0 the
// computer-wide domain, any other value the user's. Enabled: 1 enabled, 0 disabled (moved into
// the disabled-plug-ins folder); nothing else selects either.
//
// A plain value for one thread at a time. The parent is not owned and must outlive the item's
// use of it.
class QVPluginItem {
public:
  using Text = std::optional<std::string>;
  using Number = std::optional<std::int64_t>;

  explicit QVPluginItem(std::shared_ptr<const PluginRoots> roots = PluginRoots::standard());
  // initWithFilename:pluginType:pluginAccess:pluginEnabled: through the setters, with
  // itemSelection 0 and actualPath the plug-in's path.
  QVPluginItem(Text fileName, std::int32_t pluginType, std::int32_t pluginAccess,
               Number pluginEnabled,
               std::shared_ptr<const PluginRoots> roots = PluginRoots::standard());

  const Text& shortName() const { return shortName_; }
  const Text& fileName() const { return fileName_; }
  const Text& subdir() const { return subdir_; }
  const Text& version() const { return version_; }
  const Number& pluginEnabled() const { return pluginEnabled_; }
  const Text& actualPath() const { return actualPath_; }
  std::int32_t pluginType() const { return pluginType_; }
  std::int32_t pluginAccess() const { return pluginAccess_; }
  const Number& itemSelection() const { return itemSelection_; }
  QVGroupItem* parent() const { return parent_; }
  const std::shared_ptr<const PluginRoots>& roots() const { return roots_; }

  // These store only.
  void setShortName(Text shortName) { shortName_ = std::move(shortName); }
  void setVersion(Text version) { version_ = std::move(version); }
  // Where the plug-in was found when that is not where its fields say it belongs.
  void setActualPath(Text actualPath) { actualPath_ = std::move(actualPath); }
  // These update actualPath before and after storing.
  void setFileName(Text fileName);
  void setSubdir(Text subdir);
  void setPluginType(std::int32_t pluginType);
  void setPluginAccess(std::int32_t pluginAccess);
  void setItemSelection(Number itemSelection);
  void setPluginEnabled(Number pluginEnabled);
  void setParent(QVGroupItem* parent);

  std::string pluginTypeName() const;
  // The type's folder in the item's domain ("" for an unknown type).
  std::string pluginBasePath() const;
  // pluginBasePath, then subdir when set, then fileName.
  std::string pluginRelativePath() const;
  // The disabled-plug-ins folder when pluginEnabled is 0, otherwise "".
  std::string pluginTypeDir() const;
  // pluginTypeDir joined with pluginRelativePath.
  std::string pluginPath() const;
  // actualPath becomes pluginPath, unless it is set and nothing exists at pluginPath.
  void updateActualPath();

  // A plug-in has nothing to sort: these exist so that a group can sort every child alike.
  void sortChildrenByName(bool) {}
  void sortChildrenByVersion(bool) {}
  void sortChildrenByStatus(bool) {}
  void sortChildrenByType(bool) {}

  // The items in reverse order; nullopt, with "-[QVPluginItem reverseArray:]" in the log, if
  // that fails.
  static std::optional<std::vector<QVTreeItem>> reverseArray(const std::vector<QVTreeItem>& items);

  // Equal when every archived field is.
  friend bool operator==(const QVPluginItem& a, const QVPluginItem& b);

private:
  template <typename Change> void changeTracked(Change&& change) {
    updateActualPath();
    change();
    updateActualPath();
  }

  Text shortName_;
  Text fileName_;
  Text subdir_;
  Text version_;
  Number pluginEnabled_;
  Text actualPath_;
  std::int32_t pluginType_ = 0;
  std::int32_t pluginAccess_ = 0;
  Number itemSelection_;
  QVGroupItem* parent_ = nullptr;
  std::shared_ptr<const PluginRoots> roots_;
};

// base + "/" + component, the way paths are extended: nothing is added for an empty
// component, and an empty base gives the component itself.
std::string appendPathComponent(const std::string& base, const std::string& component);

} // namespace kestrin
