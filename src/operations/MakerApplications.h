#pragma once

#include <optional>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin {
class QVLocalPaths;
}

namespace kestrin::operations {

// Finding the maker's applications, which every tool front-end of the agent runs.

// The bundle in `folder` (not recursive) whose name, less spaces and in lower case, is the
// identifier's last component and whose identifier matches; "softwareupdate" searches for
// "quorvanesoftwareupdate", so the maker's updater is never confused with the system's.
std::optional<std::string> pathForBundleIDInFolder(const std::string& bundleIdentifier,
                                                   const std::string& folder);
// Applications/Quorvane/Ambrant, Applications/Quorvane, Applications, then the bundle registry.
std::optional<std::string> pathForAppWithBundleID(const QVLocalPaths& paths,
                                                  const std::string& bundleIdentifier);
// The bundle's Contents/MacOS/<bundle name without extension>.
std::string executableOfBundle(const std::string& bundlePath);
// Every bundle below `folder` that carries Contents/QVUpdates.plist and a com.quorvane
// identifier, skipping the folders the maker never installs into. The walk follows no link
// below `folder`, enters no folder twice, goes no deeper than FileTree::kDepthLimit, and ends
// early when its caller has gone (Cancellation).
std::vector<std::string> qvAppsInFolder(const QVLocalPaths& paths, const std::string& folder);
// The task file of a bundle: Contents/Resources/QVTasks.plist, else Contents/QVTasks.plist.
std::optional<plist::Dictionary> taskFileOf(const std::string& bundlePath);

} // namespace kestrin::operations
