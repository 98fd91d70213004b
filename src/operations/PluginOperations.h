#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/PluginFolders.h"
#include "operations/CredentialOperations.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin {
class PluginInventory;
}

namespace kestrin::operations {

// The machine's video and audio plug-ins for the administration application: the inventory,
// a plug-in's files as a zip archive, installing and replacing one, and enabling, disabling and
// moving one between the domains through the maker's Vantry tool, with or without an
// administrator's rights.
//
// Every path a caller names must lie inside one of the plug-in folders (or their disabled
// copies), and installing never writes outside the folder of the plug-in's type: a path
// elsewhere is refused with a line in the log, like any other failure. Failures are logged,
// not reported; only a refused authentication while updating posts an error (1006).
class PluginOperations {
public:
  explicit PluginOperations(const Services& services);
  ~PluginOperations();
  void registerIn(OperationTable& table);

  plist::Array vantryPluginList();
  // The inventory as the archived plug-in tree (see PluginArchive).
  plist::Value vantryPluginTree();
  std::optional<plist::Data> vantryPluginData(std::optional<plist::Dictionary> record);
  void vantryInstallPlugin(std::optional<plist::Dictionary> record,
                           std::optional<plist::Data> archive);
  void vantryUpdatePlugin(const Caller& caller, std::optional<plist::Dictionary> authInfo,
                          std::optional<plist::Dictionary> settings);
  void vantryEnablePlugin(const Caller& caller, std::optional<plist::Dictionary> authInfo,
                          std::optional<plist::Dictionary> settings);
  void vantryChangeAccess(const Caller& caller, std::optional<plist::Dictionary> authInfo,
                          std::optional<plist::Dictionary> settings);
  bool vantryNeedsAdminAccess(std::optional<plist::Array> records,
                              std::optional<plist::Dictionary> destination);
  std::optional<std::string> subdirForPluginPath(std::optional<std::string> path);
  std::int64_t accessModeForPluginPath(std::optional<std::string> path);

  // The largest archive a plug-in is sent as: what fits in one reply.
  static constexpr std::size_t kArchiveLimit = std::size_t{48} << 20;

private:
  // Runs Vantry with the arguments, with the caller's rights when authInfo is given.
  void runVantry(const Caller& caller, const std::vector<std::string>& arguments,
                 const std::optional<plist::Dictionary>& authInfo);
  // Whether the path lies inside a folder of the plug-in table or its disabled copy; logs a
  // refusal when it does not.
  bool isPluginPath(const std::string& path) const;
  std::string expandTilde(const std::string& path) const;

  const Services services_; // references: a copy is as good as the original
  PluginFolders folders_;
  std::unique_ptr<PluginInventory> inventory_;
  CredentialOperations credentials_;
};

} // namespace kestrin::operations
