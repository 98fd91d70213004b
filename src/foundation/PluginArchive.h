#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/PluginFolders.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin {

class QVGroupItem;

// The plug-in tree as it travels to the administration application: a property-list value
// that keeps each item's fields in their archived order and with their types.
//
//   {"archiver": "QVPluginTree", "version": 1, "root": GROUP}
//   GROUP  = ["QVGroupItem", title, [GROUP or ITEM, ...], subdir, groupPath]
//   ITEM   = ["QVPluginItem", shortName, fileName, subdir, version, pluginEnabled,
//             itemSelection, pluginType, pluginAccess]
//
// Texts are strings, pluginEnabled and itemSelection integers, and each of these may be
// missing, written as an empty dictionary (property lists have no null). pluginType and
// pluginAccess are 32-bit integers, always present. actualPath, groupEnabled and the parents
// are not written: reading computes them again.
class PluginArchive {
public:
  static constexpr const char* kArchiver = "QVPluginTree";
  static constexpr std::int64_t kVersion = 1;
  // Groups inside groups, and items in all: what a reply could ever carry.
  static constexpr int kDepthLimit = 24;
  static constexpr std::size_t kItemLimit = 200'000;

  PluginArchive() = delete;

  static plist::Value archive(const QVGroupItem& root);
  // The tree, children's parents set, paths computed from `roots`. A Failure that says what
  // is wrong for an archive of another version or one that is malformed.
  static Expected<std::shared_ptr<QVGroupItem>>
  unarchive(const plist::Value& archive,
            std::shared_ptr<const PluginRoots> roots = PluginRoots::standard());
};

} // namespace kestrin
