#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/QVTreeItem.h"

namespace kestrin {

// A group in the plug-in tree: a title, the folder its members live in, the sub-folder it
// stands for below its type's folder, and its children (plug-ins and groups). Its enabled and
// access states are aggregates of its children's.
//
// A plain value for one thread at a time. The parent is not owned and must outlive the group's
// use of it; trees are shallow (their depth follows folder depth), so the recursive operations
// are bounded.
class QVGroupItem {
public:
  using Text = std::optional<std::string>;
  using Number = std::optional<std::int64_t>;

  const Text& title() const { return title_; }
  void setTitle(Text title) { title_ = std::move(title); }
  // The folder as stored (and archived); groupPath() computes it from the children.
  const Text& storedGroupPath() const { return groupPath_; }
  void setGroupPath(Text groupPath) { groupPath_ = std::move(groupPath); }
  const Text& subdir() const { return subdir_; }
  void setSubdir(Text subdir) { subdir_ = std::move(subdir); }
  const std::vector<QVTreeItem>& children() const { return children_; }
  void setChildren(std::vector<QVTreeItem> children) { children_ = std::move(children); }
  QVGroupItem* parent() const { return parent_; }
  void setParent(QVGroupItem* parent) { parent_ = parent; }

  // Replaces the children with a copy that has the child at the end; the child's parent is
  // left as it was.
  void addChild(QVTreeItem child);

  // 1 when every direct child is enabled (a plug-in with pluginEnabled 1, a group whose
  // groupEnabled is 1), 0 when every one is disabled, otherwise -1: mixed, no children, or an
  // empty sub-group, which counts as mixed.
  std::int64_t groupEnabled() const;
  // 0 when every direct child is computer-wide, 1 when every one is the user's, otherwise -1
  // (a group child of -1 decides at once).
  std::int64_t groupAccess() const;
  // The folder most children live in: a plug-in's parent folder, a group's groupPath. On a
  // tie the first in path order wins. Without children, the stored one.
  Text groupPath() const;
  // groupPath without as many trailing components as subdir has (when it has no more).
  Text basePath() const;

  // Plug-in children get the sub-folder; group children the sub-folder plus their title.
  void renameChildSubdirs(const Text& subdir);
  // Plug-ins below, at any depth.
  std::size_t totalChildCount() const;
  // Enabled plug-in children, plus every plug-in of each group child, enabled or not: the
  // count the administration application has always shown.
  std::size_t totalEnabledChildCount() const;
  void enableChildren(const Number& enabled);
  void setChildAccess(const Number& access);
  // Every plug-in below, depth first in child order.
  std::vector<std::shared_ptr<QVPluginItem>> allChildren() const;

  // Sort the children (reversed when asked), then each child the same way.
  void sortChildrenByName(bool reverse);
  void sortChildrenByVersion(bool reverse);
  void sortChildrenByStatus(bool reverse);
  void sortChildrenByType(bool reverse);

  // The items in reverse order; nullopt, with "-[QVGroupItem reverseArray:]" in the log, if
  // that fails.
  static std::optional<std::vector<QVTreeItem>> reverseArray(const std::vector<QVTreeItem>& items);

  // Equal when every archived field is, down the whole tree.
  friend bool operator==(const QVGroupItem& a, const QVGroupItem& b);

private:
  using Order = std::weak_ordering (*)(const QVTreeItem&, const QVTreeItem&);
  using Sort = void (QVGroupItem::*)(bool);
  void sortChildren(Order order, bool reverse, Sort again);

  Text title_;
  Text groupPath_;
  Text subdir_;
  std::vector<QVTreeItem> children_;
  QVGroupItem* parent_ = nullptr;
};

} // namespace kestrin
