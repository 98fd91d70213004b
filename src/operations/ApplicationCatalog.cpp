#include "operations/ApplicationCatalog.h"

#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "operations/MakerApplications.h"

namespace kestrin::operations {

std::optional<std::string>
ApplicationCatalog::pathForAppWithBundleID(const std::string& bundleIdentifier) const {
  return operations::pathForAppWithBundleID(paths_, bundleIdentifier);
}

void ApplicationCatalog::populateQVApps() {
  QVLog::appendLog("Getting Quorvane app list...");
  setQVApps(qvAppsInFolder(paths_, paths_.applicationDirectory(false).value_or("")));
}

void ApplicationCatalog::setQVApps(std::vector<std::string> paths) {
  {
    std::lock_guard lock(mutex_);
    qvAppArray_ = std::move(paths);
    qvAppsPopulated_ = true;
  }
  changed_.notify_all();
}

bool ApplicationCatalog::qvAppsPopulated() const {
  std::lock_guard lock(mutex_);
  return qvAppsPopulated_;
}

std::vector<std::string> ApplicationCatalog::qvApps(platform::Clock::Duration wait) const {
  std::unique_lock lock(mutex_);
  clock_.waitFor(lock, changed_, wait, [this] { return qvAppsPopulated_; });
  return qvAppArray_;
}

} // namespace kestrin::operations
