#pragma once

#include <memory>
#include <vector>

#include "foundation/PluginFolders.h"
#include "plist/Value.h"

namespace kestrin {
class QVGroupItem;
}

namespace kestrin::operations {

// The plug-in tree of an inventory, as the administration application shows it: below the
// root one group per type name (in the order the types first appear), below each type one
// group per folder of the table (titled with the folder; its disabled plug-ins join it), and
// below a folder one group per sub-folder component. Plug-ins are the leaves, each with its
// real path as actualPath. Records without a "fullPath" string are left out.
std::shared_ptr<QVGroupItem> pluginTreeOf(const plist::Array& inventory,
                                          const std::vector<PluginFolders::Row>& table,
                                          const PluginFolders& folders,
                                          std::shared_ptr<const PluginRoots> roots);

// The type code of a plug-in item for an inventory's type name: 0 FxPlug, 1 FxScript,
// 2 Audio Unit, -1 for every other.
std::int32_t pluginTypeCode(std::string_view typeName);

} // namespace kestrin::operations
