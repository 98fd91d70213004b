#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"

namespace kestrin {
class QVLocalPaths;
}

namespace kestrin::operations {

// The maker's applications on this machine: the list that the folder scan at start-up finds,
// and the lookup of one application by bundle identifier that every tool front-end uses.
// Thread-safe; the list is replaced whole.
class ApplicationCatalog {
public:
  ApplicationCatalog(const QVLocalPaths& paths, const platform::Clock& clock)
      : paths_(paths), clock_(clock) {}

  const QVLocalPaths& paths() const { return paths_; }

  // Applications/Quorvane/Ambrant, Applications/Quorvane, Applications, then the registry.
  std::optional<std::string> pathForAppWithBundleID(const std::string& bundleIdentifier) const;

  // Scans the Applications folder for the maker's applications and keeps the list.
  void populateQVApps();
  void setQVApps(std::vector<std::string> paths);
  bool qvAppsPopulated() const;
  // The list once the scan has finished or `wait` has passed on the clock (whatever there is
  // then).
  std::vector<std::string> qvApps(platform::Clock::Duration wait) const;

private:
  const QVLocalPaths& paths_;
  const platform::Clock& clock_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> qvAppArray_;
  bool qvAppsPopulated_ = false;
};

} // namespace kestrin::operations
