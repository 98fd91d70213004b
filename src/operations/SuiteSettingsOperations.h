#pragma once

#include <optional>
#include <string>

#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Settings an administrator reads and changes from afar: the maker's suite's (update checks,
// beta updates, and the administrator password that each of sixteen tools may demand) and the
// agent's own. A value of −1 is the admin side's "mixed" or "leave as it is".
class SuiteSettingsOperations {
public:
  explicit SuiteSettingsOperations(const Services& services) : services_(services) {}
  void registerIn(OperationTable& table);

  plist::Dictionary ambrantSettings();
  void setAmbrantSettings(plist::Dictionary settings);
  // settings: "obj1" the new "requireAdminPassword" of every protected tool.
  void ambrantPasswordProtect(const Caller& caller, std::optional<plist::Dictionary> credentials,
                              plist::Dictionary settings);
  plist::Dictionary networkClientSettings();
  void setNetworkClientSettings(plist::Dictionary settings);

private:
  std::string userPreferences(const char* file) const;
  std::string protectedToolPreferences(const std::string& tool) const;
  // A number from a suite file, or `fallback` when the file or the key is missing.
  std::int64_t suiteValue(const char* file, const char* key, std::int64_t fallback) const;
  // Changes one key of an existing suite file; a missing file is not created.
  void setSuiteValue(const char* file, const char* key, const plist::Value& value) const;

  const Services services_;
};

} // namespace kestrin::operations
