#include "foundation/PluginInventory.h"

#include <algorithm>
#include <array>
#include <filesystem>

#include <sys/stat.h>

#include "foundation/BundleInfoFile.h"
#include "foundation/FileTree.h"
#include "foundation/FinderInfo.h"
#include "foundation/QVLog.h"
#include "foundation/QVPremiere.h"

namespace kestrin {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 7> kPluginExtensions = {
    "txt", "fcfcc", "bundle", "fxplug", "component", "plugin", "vst"};

std::string lowercaseExtension(const std::string& name) {
  std::string extension = fs::path(name).extension().string();
  if (!extension.empty()) {
    extension.erase(0, 1);
  }
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

bool hasPluginExtension(const std::string& extension) {
  return std::find(kPluginExtensions.begin(), kPluginExtensions.end(), extension) !=
         kPluginExtensions.end();
}

// A folder without an extension is a package only by its Finder information's bundle bit.
bool hasBundleBit(const std::string& path) {
  auto info = FinderInfo::read(path);
  return info && (info->flags() & FinderInfo::kHasBundle) != 0;
}

bool hasEffectScriptType(const std::string& path) {
  auto info = FinderInfo::read(path);
  return info && info->fileType() == PluginInventory::kEffectScriptType;
}

std::optional<plist::Date> modificationDate(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return plist::Date::fromUnix(static_cast<double>(status.st_mtim.tv_sec) +
                               status.st_mtim.tv_nsec / 1e9);
}

} // namespace

// One call's state: what was found, and whether anything was left out.
struct PluginInventory::Scan {
  plist::Array records;
  bool tooDeep = false;
  bool tooMany = false;
};

PluginInventory::PluginInventory(const QVLocalPaths& paths, const platform::Workspace& workspace)
    : paths_(paths), workspace_(workspace), folders_(paths) {}

std::vector<PluginFolders::Row> PluginInventory::folderTable() const {
  return folders_.table(QVPremiere(paths_, workspace_).premiereVersions());
}

plist::Array PluginInventory::plugins(bool includeDisabled) const {
  Scan scan;
  for (const PluginFolders::Row& row : folderTable()) {
    scanInto(scan, row.folder, row.type);
    if (includeDisabled) {
      // The row's whole path inside the disabled folder: what disabling keeps of it.
      scanInto(scan, folders_.disabledFolder() + row.folder, row.type);
    }
  }
  return std::move(scan.records);
}

plist::Array PluginInventory::pluginsAtPath(const std::string& folder,
                                            const std::optional<std::string>& type) const {
  Scan scan;
  scanInto(scan, folder, type);
  return std::move(scan.records);
}

void PluginInventory::scanInto(Scan& scan, const std::string& top,
                               const std::optional<std::string>& type) const {
  if (scan.tooMany) {
    return;
  }
  // Both apply to every record of the folder, whatever sub-folder it lies in.
  const bool disabled = folders_.isDisabled(top);
  const std::int64_t accessType = folders_.accessTypeOf(top);
  FileTree::Walk walk;
  bool tooDeep = false;

  auto addRecord = [&](const std::string& path, const std::string& name) {
    if (scan.records.size() >= kRecordLimit) {
      scan.tooMany = true;
      QVLog::appendLog("Plug-in inventory stopped at {} plug-ins in {}", kRecordLimit, top);
      return;
    }
    std::optional<std::string> bundleName;
    std::optional<std::string> version;
    std::string info = path + "/Contents/Info.plist";
    struct stat status {};
    bool package = ::stat(info.c_str(), &status) == 0;
    if (package) {
      if (auto dictionary = readBundleInfo(info)) {
        bundleName = stringMember(*dictionary, "CFBundleName");
        version = stringMember(*dictionary, "CFBundleShortVersionString");
        if (!version) {
          version = stringMember(*dictionary, "CFBundleVersion");
        }
      }
    }
    plist::Dictionary record{{"fullPath", path}};
    record.set("name", bundleName ? *bundleName : fs::path(name).stem().string());
    if (version) {
      record.set("version", std::move(*version));
    }
    if (auto modified = modificationDate(path)) {
      record.set("moddate", *modified);
    }
    if (type) {
      record.set("type", *type);
    }
    record.set("disabled", disabled);
    record.set("accessType", accessType);
    record.set("package", package);
    scan.records.push_back(std::move(record));
  };

  // Recursion is bounded by kDepthLimit, so the stack is too.
  auto scanFolder = [&](auto& self, const std::string& folder, int depth) -> void {
    auto listing = walk.enter(folder, depth);
    if (!listing) {
      return;
    }
    for (const FileTree::Entry& entry : listing->entries) {
      if (scan.tooMany) {
        return;
      }
      std::string path = FileTree::join(folder, entry.name);
      std::string extension = lowercaseExtension(entry.name);
      if (entry.type == FileTree::Type::Folder && extension.empty() && !hasBundleBit(path)) {
        if (depth < kDepthLimit) {
          self(self, path, depth + 1);
        } else {
          tooDeep = true;
        }
        continue;
      }
      if (hasPluginExtension(extension) || hasEffectScriptType(path)) {
        addRecord(path, entry.name);
      }
    }
  };
  scanFolder(scanFolder, top, 0);

  if (tooDeep || walk.stopped()) {
    QVLog::appendLog("Plug-in folder {} holds folders nested too deeply or met twice; "
                     "those were not searched",
                     top);
  }
}

} // namespace kestrin
