#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kestrin {

class QVLocalPaths;
namespace platform {
class Workspace;
} // namespace platform

// The installed versions of Adobe Premiere Pro, several of which may sit side by side in the
// applications folder, each in a folder of its own ("Adobe Premiere Pro CS6/Adobe Premiere Pro
// CS6.app"). A version comes from the application's bundle or, without one, from Adobe's
// "Configuration/XManConfig.xml" beside it.
//
// Versions are answered in the order found, each once. Unreadable folders, bundles and files
// contribute nothing. Stateless apart from where it looks; any thread may call it.
class QVPremiere {
public:
  static constexpr const char* kBundleIdentifier = "com.adobe.AdobePremierePro";
  static constexpr const char* kApplicationPrefix = "Adobe Premiere ";

  QVPremiere(const QVLocalPaths& paths, const platform::Workspace& workspace)
      : paths_(paths), workspace_(workspace) {}

  // versionsForAppName("Adobe Premiere ").
  std::vector<std::string> premiereVersions() const;
  // The versions of every application whose folder's name begins with the prefix (any case),
  // in the folder that holds the application the workspace knows, then in the local
  // Applications folder.
  std::vector<std::string> versionsForAppName(const std::string& prefix) const;
  static std::vector<std::string> versionsForAppName(const std::string& prefix,
                                                     const std::string& folder);
  // Major and minor version ("6.0" for a bundle of 6.0.5) of every installation, in the same
  // two folders.
  std::vector<std::string> suiteVersions() const;
  static std::vector<std::string> suiteVersionsInFolder(const std::string& folder);

  // The ProductVersion of an XManConfig.xml; nullopt when the file cannot be read as an XML
  // document or has none.
  static std::optional<std::string> productVersionAtPath(const std::string& path);

private:
  // The folder above the known application's own folder, then the local Applications folder.
  std::vector<std::string> searchFolders() const;
  std::vector<std::string>
      collect(std::vector<std::string> (*inFolder)(const std::string& folder)) const;

  const QVLocalPaths& paths_;
  const platform::Workspace& workspace_;
};

} // namespace kestrin
