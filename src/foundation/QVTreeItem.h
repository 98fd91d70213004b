#pragma once

#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace kestrin {

class QVGroupItem;
class QVPluginItem;

// One node of the plug-in tree: a plug-in (a leaf) or a group of nodes. Groups own their
// children; a child's parent is a plain pointer back, never an owner.
using QVTreeItem = std::variant<std::shared_ptr<QVPluginItem>, std::shared_ptr<QVGroupItem>>;

// The tree's orders, `a` compared with `b`; texts compare ignoring case, a missing text as "".
//   nameCompare     plug-in: shortName; group: title
//   versionCompare  plug-ins by version text; a plug-in before a group; groups equal
//   statusCompare   plug-ins by pluginEnabled (a missing one first); a plug-in before a group;
//                   groups equal
//   typeCompare     plug-in: pluginTypeName; group: "Group"
// Each is a total order, so sorting with it is well defined.
std::weak_ordering nameCompare(const QVTreeItem& a, const QVTreeItem& b);
std::weak_ordering versionCompare(const QVTreeItem& a, const QVTreeItem& b);
std::weak_ordering statusCompare(const QVTreeItem& a, const QVTreeItem& b);
std::weak_ordering typeCompare(const QVTreeItem& a, const QVTreeItem& b);

// Text order ignoring the case of ASCII letters.
std::weak_ordering compareIgnoringCase(const std::optional<std::string>& a,
                                       const std::optional<std::string>& b);

} // namespace kestrin
