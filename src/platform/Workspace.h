#pragma once

#include <optional>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::platform {

// A bundle on disk: X.app with Contents/Info.plist and Contents/MacOS/<executable>.
struct BundleInfo {
  std::string path;           // .../X.app
  std::string executablePath; // .../X.app/Contents/MacOS/X
  plist::Dictionary info;     // Contents/Info.plist
};

// The bundle registry: which application bundle has a given identifier. The running program's
// own bundle is known first (as the original platform's registry knows the running
// application), then the Applications folders are searched in order. Nothing is cached, so an
// application installed a moment ago is found; a search reads one small file per bundle.
class Workspace {
public:
  // applicationFolders: searched in order for bundles directly inside them.
  // ownExecutable: the running program's executable (nullopt: none is considered).
  Workspace(std::vector<std::string> applicationFolders, std::optional<std::string> ownExecutable);

  // The folders of the given local root and home, and /proc/self/exe.
  static Workspace forMachine(const std::string& localRoot, const std::string& home);

  // The bundle that holds the running executable, when it sits in one.
  std::optional<BundleInfo> mainBundle() const;

  // Path of the application bundle whose "CFBundleIdentifier" equals identifier.
  std::optional<std::string> pathForBundleIdentifier(const std::string& identifier) const;

  // The file of a bundle's icon: Contents/Resources/<CFBundleIconFile> (its ".png" form when
  // the name has no extension), else the generic application icon of the running program's
  // bundle; nullopt when neither exists.
  std::optional<std::string> iconFileForBundle(const std::string& bundlePath) const;
  static constexpr const char* kGenericApplicationIcon = "GenericApplicationIcon.png";

  // Reads a bundle at a path; nullopt when it has no readable Info.plist dictionary.
  static std::optional<BundleInfo> readBundle(const std::string& bundlePath);

private:
  std::vector<std::string> applicationFolders_;
  std::optional<std::string> ownExecutable_;
};

} // namespace kestrin::platform
