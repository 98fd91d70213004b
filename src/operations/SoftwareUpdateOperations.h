#pragma once

#include <memory>
#include <optional>
#include <string>

#include "foundation/Timer.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "platform/HttpFetch.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Updates of the maker's software, through the maker's updater, Quorvane Software Update: how
// many wait (cached, refreshed at most once a day unless forced, with a one-shot timer for the
// next day), the updater's list, installing one with an administrator's credentials, opening a
// manual download in the user's browser, and fetching a fresh updater when the installed one
// is missing or too old.
//
// The updater's feed is a property list at "softwareUpdateFeedURL" (settings) whose
// "alternateURL" is the updater's zip archive; when it also carries "alternateSHA256", an
// archive with another digest is refused.
class SoftwareUpdateOperations {
public:
  explicit SoftwareUpdateOperations(const Services& services,
                                    platform::HttpLimits feedLimits = defaultFeedLimits(),
                                    platform::HttpLimits archiveLimits = defaultArchiveLimits());
  ~SoftwareUpdateOperations();
  SoftwareUpdateOperations(const SoftwareUpdateOperations&) = delete;
  SoftwareUpdateOperations& operator=(const SoftwareUpdateOperations&) = delete;
  void registerIn(OperationTable& table);

  plist::Value availableUpdateCount(bool force);
  plist::Value availableUpdateCountUnforced() { return availableUpdateCount(false); }
  // Start-up's check, on a worker of its own.
  void forceSoftwareUpdateCheck() { availableUpdateCount(true); }
  void fetchAvailableUpdateCount();
  std::optional<plist::Dictionary> listUpdates();
  // settings: "obj1" the update's type data, "obj2" its bundle identifier.
  void installUpdate(const Caller& caller, std::optional<plist::Dictionary> credentials,
                     plist::Dictionary settings);
  void manualInstall(std::string url);
  // The new updater's executable, unpacked into `destination` (by default the maker's folder
  // in the local Applications), or null.
  std::optional<std::string>
  downloadAndInstallSoftwareUpdater(std::optional<std::string> destination);

  static constexpr const char* kUpdaterIdentifier = "com.quorvane.SoftwareUpdate";
  static constexpr const char* kUpdaterName = "Quorvane Software Update";
  static constexpr const char* kDefaultFeedURL =
      "https://www.quorvane.com/support/softwareupdate/updater.plist";
  static constexpr const char* kDefaultSiteURL = "https://www.quorvane.com/";
  static platform::HttpLimits defaultFeedLimits();
  static platform::HttpLimits defaultArchiveLimits();

private:
  struct Schedule;
  void scheduleNextCount();
  std::string setting(const char* key, const char* fallback) const;

  const Services services_;
  const platform::HttpLimits feedLimits_;
  const platform::HttpLimits archiveLimits_;
  // Shared with the timer's callback, which may fire while the group is going away.
  std::shared_ptr<Schedule> schedule_;
};

} // namespace kestrin::operations
