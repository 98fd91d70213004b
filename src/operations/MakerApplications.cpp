#include "operations/MakerApplications.h"

#include <algorithm>
#include <filesystem>

#include "foundation/FileTree.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace fs = std::filesystem;

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::optional<plist::Dictionary> dictionaryAt(const fs::path& path) {
  auto value = plist::readFile(path);
  if (value && value->asDictionary()) {
    return *value->asDictionary();
  }
  return std::nullopt;
}

std::string identifierOf(const fs::path& bundle) {
  auto info = dictionaryAt(bundle / "Contents/Info.plist");
  const plist::Value* identifier = info ? info->find("CFBundleIdentifier") : nullptr;
  return identifier && identifier->asString() ? *identifier->asString() : "";
}

bool isPackage(const fs::path& path) {
  std::error_code ec;
  return path.has_extension() && fs::is_directory(path / "Contents", ec);
}

bool skippedFolder(const std::string& name) {
  static const char* const kSkipped[] = {"plugins",     "help",          "application backups",
                                         "doc",         "documentation", "html",
                                         "applescript", "final draft",   "mamp",
                                         "shake",       "ambrant"};
  std::string folded = lower(name);
  return std::find(std::begin(kSkipped), std::end(kSkipped), folded) != std::end(kSkipped) ||
         folded.rfind("avid", 0) == 0;
}

// The maker's applications below `folder`. Links to folders are neither entered nor taken for
// applications: a link can make a tree endless, and can point the agent anywhere.
void collectApps(const std::string& folder, int depth, FileTree::Walk& walk,
                 std::vector<std::string>& found) {
  auto listing = walk.enter(folder, depth);
  if (!listing) {
    return;
  }
  for (const FileTree::Entry& entry : listing->entries) {
    if (entry.type != FileTree::Type::Folder) {
      continue;
    }
    fs::path path = FileTree::join(folder, entry.name);
    if (!isPackage(path)) {
      if (!path.has_extension() && !skippedFolder(entry.name)) {
        collectApps(path.string(), depth + 1, walk, found);
      }
      continue;
    }
    std::error_code ec;
    if (fs::exists(path / "Contents/QVUpdates.plist", ec) &&
        identifierOf(path).rfind("com.quorvane", 0) == 0) {
      found.push_back(path.string());
    }
  }
}

} // namespace

std::optional<std::string> pathForBundleIDInFolder(const std::string& bundleIdentifier,
                                                   const std::string& folder) {
  std::string search = lower(bundleIdentifier.substr(bundleIdentifier.rfind('.') + 1));
  if (search == "softwareupdate") {
    search = "quorvanesoftwareupdate";
  }
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    std::string name = entry.path().stem().string();
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    if (lower(name) == search && lower(identifierOf(entry.path())) == lower(bundleIdentifier)) {
      return (fs::path(folder) / entry.path().filename()).string();
    }
  }
  return std::nullopt;
}

std::optional<std::string> pathForAppWithBundleID(const QVLocalPaths& paths,
                                                  const std::string& bundleIdentifier) {
  std::string applications = paths.applicationDirectory(false).value_or("");
  for (const std::string& folder :
       {applications + "/Quorvane/Ambrant", applications + "/Quorvane", applications}) {
    if (auto found = pathForBundleIDInFolder(bundleIdentifier, folder)) {
      return found;
    }
  }
  const QVLocalPaths::Machine& machine = paths.machine();
  return platform::Workspace::forMachine(machine.localRoot, machine.home)
      .pathForBundleIdentifier(bundleIdentifier);
}

std::string executableOfBundle(const std::string& bundlePath) {
  fs::path bundle(bundlePath);
  return (bundle / "Contents/MacOS" / bundle.stem()).string();
}

std::vector<std::string> qvAppsInFolder(const QVLocalPaths& paths, const std::string& folder) {
  std::vector<std::string> found;
  std::error_code ec;
  std::string applications = paths.applicationDirectory(false).value_or("");
  if (fs::is_symlink(folder, ec)) {
    std::string target = fs::read_symlink(folder, ec).string();
    if (!applications.empty() && target.rfind(applications, 0) == 0) {
      QVLog::appendLog("Warning: Symbolic link links back to itself.");
      return found;
    }
  }
  fs::directory_iterator entries(folder, ec);
  if (ec) {
    QVLog::appendLog("Unable to get contents of directory {} - {}", folder, ec.message());
    return found;
  }
  FileTree::Walk walk;
  collectApps(folder, 0, walk, found);
  if (walk.cancelled()) {
    QVLog::appendLog("Stopped looking for applications in {}: the caller has gone.", folder);
  }
  return found;
}

std::optional<plist::Dictionary> taskFileOf(const std::string& bundlePath) {
  if (auto file = dictionaryAt(fs::path(bundlePath) / "Contents/Resources/QVTasks.plist")) {
    return file;
  }
  return dictionaryAt(fs::path(bundlePath) / "Contents/QVTasks.plist");
}

} // namespace kestrin::operations
