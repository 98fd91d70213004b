#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/SystemFacts.h"
#include "plist/Value.h"

namespace kestrin {

class QVLocalPaths;

// What the machine is: hardware, system and application versions, frameworks and kernel
// extensions, with the documented fallbacks where a fact is missing ("Unknown", 0, 10.5.0 for
// the system and 7.0.0 for QuickTime, which Linux does not have).
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
  std::array<unsigned, 3> systemVersion() const;
  std::string OSXBuildNumber() const;
  std::string quickTimeVersionString() const;
  std::array<unsigned, 3> quickTimeVersion() const;
  // The short version string of the application with the identifier, or "".
  std::string versionStringForBundleID(const std::string& bundleIdentifier) const;
  // "7.0.3" -> 7, 0, 3; "10" -> 10, 0, 0; none or four and more parts -> 0, 0, 0.
  static std::array<unsigned, 3> splitVersion(const std::string& version);
  plist::Dictionary frameworks() const;
  plist::Dictionary kexts() const;

  // The applications whose versions the profiles report, in their order: the accessor's
  // bundle identifier and the profile key.
  struct ReportedApplication {
    const char* bundleIdentifier;
    const char* key;
  };
  static const std::array<ReportedApplication, 15>& reportedApplications();

private:
  // "QuickTime Version" and the fourteen application versions, in their order.
  void addVersions(plist::Dictionary& into) const;
  void addBundleRecords(plist::Dictionary& records, const std::string& listed,
                        const std::string& bundleFolder, const std::string& infoPath,
                        bool (*keep)(const std::string&)) const;

  const QVLocalPaths& paths_;
  platform::SystemFacts facts_;
};

} // namespace kestrin
