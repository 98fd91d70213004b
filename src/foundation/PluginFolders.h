#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin {

class QVLocalPaths;

// What a plug-in item computes its paths from.
struct PluginRoots {
  std::string computer; // root of the computer-wide domain: "/" of "/Library"
  std::string user;     // the user's folder
  std::string disabled; // the disabled-plug-ins folder
  // This process's: the shared paths' local root, QVUserDir's folder and the disabled folder.
  static std::shared_ptr<const PluginRoots> standard();
};

// Where plug-ins live on this machine: the folders the inventory scans, the folder disabled
// plug-ins are moved into (beneath it a plug-in keeps the whole path it had when enabled), and
// the folder each installable type goes into. Immutable; any thread may use it.
class PluginFolders {
public:
  explicit PluginFolders(const QVLocalPaths& paths);

  struct Row {
    std::string folder;
    std::string type;
  };
  static constexpr std::size_t kRowCount = 15;
  static constexpr const char* kDisabledFolder = "Quorvane/Ambrant/Vantry Disabled Plugins";

  // The scanned folders, in their order; Adobe's MediaCore folder is that of the last installed
  // Premiere version.
  std::vector<Row> table(const std::vector<std::string>& premiereVersions) const;
  // ".../Adobe/Common/Plug-ins/CS<v>/MediaCore": CS6 without versions, else the last version
  // with a trailing ".0" cut to its first character (5.0 gives CS5, 5.5 CS5.5, and 10.0 CS1,
  // as it always has). A version that would leave the Plug-ins folder gives CS6.
  std::string mediaCoreFolder(const std::vector<std::string>& premiereVersions) const;

  const std::string& disabledFolder() const { return disabled_; }
  // Whether the path begins with the disabled-plug-ins folder (as text).
  bool isDisabled(std::string_view path) const;
  std::string withoutDisabledPrefix(const std::string& path) const;
  // 0 when the path, less the disabled prefix, begins with the computer-wide Library folder;
  // otherwise 1.
  std::int64_t accessTypeOf(const std::string& path) const;

  // Where a plug-in of a type goes: "FxPlug", "FxScript" and "Audio Unit" have a folder in
  // each domain; other types nullopt.
  std::optional<std::string> typeFolder(std::string_view type, bool userDomain) const;
  // The type folders of both domains, in the order a plug-in's sub-folder is looked for.
  const std::array<std::string, 6>& typeBaseFolders() const { return typeBases_; }

  const std::string& computerLibrary() const { return computerLibrary_; }
  const std::string& userLibrary() const { return userLibrary_; }
  PluginRoots roots() const;

  // Whether `path` names something strictly inside `folder`: no "." or ".." in it, and the
  // folder that would hold it still inside `folder` once links in it are resolved.
  static bool isInside(const std::string& path, const std::string& folder);

private:
  std::string localRoot_;
  std::string userDirectory_;
  std::string computerLibrary_;
  std::string userLibrary_;
  std::string computerSupport_;
  std::string userPreferences_;
  std::string applications_;
  std::string movies_;
  std::string disabled_;
  std::array<std::string, 6> typeBases_;
};

// folder + text: text beginning with "/" appended as it is, other text as a path component.
// Both give the same path.
std::string appendFolderText(const std::string& folder, std::string_view text);

} // namespace kestrin
