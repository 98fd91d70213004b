#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/SystemFacts.h"
#include "plist/Value.h"

namespace kestrin {

class QVLocalPaths;

// What the machine is: hardware, system and application versions, frameworks, kernel
// extensions and plug-ins, with the documented fallbacks where a fact is missing ("Unknown",
// 0, 10.5.0 for the system and 7.0.0 for QuickTime, which Linux does not have).
//
// Stateless apart from the facts it was made with; shared() answers for this machine.
class QVSysInfo {
public:
  QVSysInfo(const QVLocalPaths& paths, platform::SystemFacts facts)
      : paths_(paths), facts_(std::move(facts)) {}

  static const QVSysInfo& shared();

  plist::Dictionary systemProfile() const;
  plist::Dictionary systemSpecs() const;
  std::string machineType() const;
  std::string machineSerial() const;
  unsigned processorClockSpeed() const; // MHz
  int processorCount() const;
  bool isIntel() const;
  unsigned physicalRAMSize() const; // MB
  std::string OSXVersionString() const;
  // Major, minor and bug fix of the system; 10.5.0, with a console line, when unknown.
  std::array<unsigned, 3> systemVersion() const;
  // The same into whichever out-parameters are not null.
  void getSystemVersionMajor(unsigned* major, unsigned* minor, unsigned* bugFix) const;
  std::string OSXBuildNumber() const;
  std::string quickTimeVersionString() const;
  // 7.0.0, with a console line: Linux has no QuickTime.
  std::array<unsigned, 3> quickTimeVersion() const;
  void getQuickTimeVersionMajor(unsigned* major, unsigned* minor, unsigned* bugFix) const;
  // The short version string of the application with the identifier, or "".
  std::string versionStringForBundleID(const std::string& bundleIdentifier) const;
  // "7.0.3" -> 7, 0, 3; "10" -> 10, 0, 0; none or four and more parts -> 0, 0, 0.
  static std::array<unsigned, 3> splitVersion(const std::string& version);
  static void getAppMajorVersion(unsigned* major, unsigned* minor, unsigned* bugFix,
                                 const std::string& versionString);

  // versionStringForBundleID of the applications that the profiles report.
  std::string finalCutProVersionString() const;
  std::string finalCutProXVersionString() const;
  std::string motionVersionString() const;
  std::string motion5VersionString() const;
  std::string colorVersionString() const;
  std::string dvdspVersionString() const;
  std::string soundtrackProVersionString() const;
  std::string compressorVersionString() const;
  std::string compressor4VersionString() const;
  std::string liveTypeVersionString() const;
  std::string cinemaToolsVersionString() const;
  std::string avidVersionString() const;
  std::string avidSymphonyVersionString() const;
  std::string premiereVersionString() const;
  std::string iTunesVersionString() const;

  // {"name", "fullPath", "version"} records keyed by the bundle's file name, for the bundles
  // that have a CFBundleVersion: frameworks of the local and system Library, and kernel
  // extensions (".kext" or ".bundle") of the system Library.
  plist::Dictionary frameworks() const;
  plist::Dictionary kexts() const;

  // The plug-in inventory (see PluginInventory): every folder of the plug-in table, each
  // followed by its disabled copy when includeDisabled; and the plug-ins of one folder.
  plist::Array plugins(bool includeDisabled) const;
  plist::Array pluginsAtPath(const std::string& folder,
                             const std::optional<std::string>& type) const;

  // The applications whose versions the profiles report, in their order: the accessor's
  // bundle identifier and the profile key.
  struct ReportedApplication {
    const char* bundleIdentifier;
    const char* key;
  };
  static const std::array<ReportedApplication, 15>& reportedApplications();

private:
  std::string reportedVersion(std::size_t index) const;
  // "QuickTime Version" and the fourteen application versions, in their order.
  void addVersions(plist::Dictionary& into) const;
  void addBundleRecords(plist::Dictionary& records, const std::string& listed,
                        const std::string& bundleFolder, const std::string& infoPath,
                        bool (*keep)(const std::string&)) const;

  const QVLocalPaths& paths_;
  platform::SystemFacts facts_;
};

} // namespace kestrin
