#include "foundation/QVPremiere.h"

#include <algorithm>

#include <pugixml.hpp>

#include "foundation/BundleInfoFile.h"
#include "foundation/FileTree.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVXMLParser.h"
#include "platform/Workspace.h"

namespace kestrin {

namespace {

constexpr const char* kProductVersionQuery =
    "./Configuration/VariableForExMan/Data[@key='ProductVersion']";

bool beginsWithIgnoringCase(std::string_view name, std::string_view prefix) {
  return name.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), name.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) ==
                  std::tolower(static_cast<unsigned char>(b));
         });
}

// The names in a folder that begin with the prefix, in listing order.
std::vector<std::string> entriesBeginningWith(const std::string& folder, std::string_view prefix) {
  std::vector<std::string> names;
  auto listing = FileTree::list(folder);
  if (!listing) {
    return names;
  }
  for (const FileTree::Entry& entry : listing->entries) {
    if (beginsWithIgnoringCase(entry.name, prefix)) {
      names.push_back(entry.name);
    }
  }
  return names;
}

void addOnce(std::vector<std::string>& versions, std::string version) {
  if (std::find(versions.begin(), versions.end(), version) == versions.end()) {
    versions.push_back(std::move(version));
  }
}

std::string configurationOf(const std::string& folder, const std::string& entry) {
  return FileTree::join(FileTree::join(folder, entry), "Configuration/XManConfig.xml");
}

bool isFolder(const std::string& path) {
  return QVFileManager::isDirectoryAtPath(path);
}

} // namespace

std::optional<std::string> QVPremiere::productVersionAtPath(const std::string& path) {
  auto document = QVXMLParser::documentAtPath(path);
  if (!document) {
    return std::nullopt;
  }
  return QVXMLParser::stringValueForQuery(kProductVersionQuery, **document);
}

std::vector<std::string> QVPremiere::versionsForAppName(const std::string& prefix,
                                                        const std::string& folder) {
  std::vector<std::string> versions;
  for (const std::string& entry : entriesBeginningWith(folder, prefix)) {
    std::string bundle = FileTree::join(FileTree::join(folder, entry), entry + ".app");
    if (isFolder(bundle)) {
      auto info = readBundleInfo(bundle + "/Contents/Info.plist");
      auto version = info ? stringMember(*info, "CFBundleVersionString") : std::nullopt;
      if (info && !version) {
        version = stringMember(*info, "CFBundleVersion");
      }
      if (version) {
        addOnce(versions, std::move(*version));
      }
    } else if (auto version = productVersionAtPath(configurationOf(folder, entry))) {
      addOnce(versions, std::move(*version));
    }
  }
  return versions;
}

std::vector<std::string> QVPremiere::suiteVersionsInFolder(const std::string& folder) {
  std::vector<std::string> versions;
  for (const std::string& entry : entriesBeginningWith(folder, kApplicationPrefix)) {
    std::string configuration = configurationOf(folder, entry);
    if (auto document = QVXMLParser::documentAtPath(configuration)) {
      if (auto version = QVXMLParser::stringValueForQuery(kProductVersionQuery, **document)) {
        addOnce(versions, std::move(*version));
      }
      continue;
    }
    // No configuration to read (or one that is not a plain XML document): the bundle's version.
    auto matches =
        QVFileManager::filesMatchingWildcardPath(entry + "/Adobe Premiere Pro *.app", folder);
    if (matches.empty()) {
      continue;
    }
    auto info = readBundleInfo(matches.front() + "/Contents/Info.plist");
    auto version = info ? stringMember(*info, "CFBundleVersion") : std::nullopt;
    if (!version) {
      continue;
    }
    std::size_t first = version->find('.');
    std::size_t second = first == std::string::npos ? first : version->find('.', first + 1);
    addOnce(versions, second == std::string::npos ? *version : version->substr(0, second));
  }
  return versions;
}

std::vector<std::string> QVPremiere::searchFolders() const {
  std::vector<std::string> folders;
  if (auto application = workspace_.pathForBundleIdentifier(kBundleIdentifier)) {
    // .../Applications/Adobe Premiere Pro CS6/Adobe Premiere Pro CS6.app: two levels up.
    folders.push_back(FileTree::split(FileTree::split(*application).first).first);
  }
  if (auto local = paths_.applicationDirectory(false)) {
    folders.push_back(*local);
  }
  return folders;
}

std::vector<std::string>
QVPremiere::collect(std::vector<std::string> (*inFolder)(const std::string& folder)) const {
  std::vector<std::string> versions;
  for (const std::string& folder : searchFolders()) {
    for (std::string& version : inFolder(folder)) {
      addOnce(versions, std::move(version));
    }
  }
  return versions;
}

std::vector<std::string> QVPremiere::premiereVersions() const {
  return versionsForAppName(kApplicationPrefix);
}

std::vector<std::string> QVPremiere::versionsForAppName(const std::string& prefix) const {
  std::vector<std::string> versions;
  for (const std::string& folder : searchFolders()) {
    for (std::string& version : versionsForAppName(prefix, folder)) {
      addOnce(versions, std::move(version));
    }
  }
  return versions;
}

std::vector<std::string> QVPremiere::suiteVersions() const {
  return collect(&QVPremiere::suiteVersionsInFolder);
}

} // namespace kestrin
