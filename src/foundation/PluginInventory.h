#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/PluginFolders.h"
#include "plist/Value.h"

namespace kestrin {

class QVLocalPaths;
namespace platform {
class Workspace;
} // namespace platform

// Which video and audio plug-ins are installed, and where: the folders of the plug-in table
// walked in order, one flat record per plug-in found:
//
//   "fullPath"    the plug-in's file or bundle            always
//   "name"        CFBundleName, else the file name less its extension
//   "version"     CFBundleShortVersionString, else CFBundleVersion    when the bundle has one
//   "moddate"     its modification date                   when it has one
//   "type"        the folder's type name                  when the scan was given one
//   "disabled"    whether it lies in the disabled-plug-ins folder     always
//   "accessType"  0 in the computer-wide Library, 1 elsewhere         always
//   "package"     whether it holds Contents/Info.plist    always
//
// The scan never fails: unreadable folders contribute nothing and unreadable bundle information
// falls back to the file name. It never follows a link to a folder, enters no folder twice,
// goes no deeper than kDepthLimit folders below where it started and stops at kRecordLimit
// records, logging when it cut anything short. Stateless apart from where it looks; any thread
// may use it.
class PluginInventory {
public:
  // Sub-folders below a scanned folder that are searched: vendors group their plug-ins one or
  // two levels deep. Deeper folders are left unread.
  static constexpr int kDepthLimit = 16;
  // Records of one inventory: far above any real machine, well below what a reply can carry.
  static constexpr std::size_t kRecordLimit = 50'000;
  // 'FCSC': the type code of Final Cut Pro's effect scripts, whatever their name.
  static constexpr std::uint32_t kEffectScriptType = 0x46435343;

  PluginInventory(const QVLocalPaths& paths, const platform::Workspace& workspace);

  // Every folder of the table in order; with includeDisabled each folder is followed at once
  // by the same folder inside the disabled-plug-ins folder.
  plist::Array plugins(bool includeDisabled) const;
  // The plug-ins in one folder and its plain sub-folders, in listing order with a sub-folder's
  // records where the sub-folder was met.
  plist::Array pluginsAtPath(const std::string& folder,
                             const std::optional<std::string>& type) const;

  // The table this machine has now (Adobe's row follows the installed Premiere versions).
  std::vector<PluginFolders::Row> folderTable() const;
  const PluginFolders& folders() const { return folders_; }

private:
  struct Scan;
  void scanInto(Scan& scan, const std::string& folder,
                const std::optional<std::string>& type) const;

  const QVLocalPaths& paths_;
  const platform::Workspace& workspace_;
  PluginFolders folders_;
};

} // namespace kestrin
