#include "foundation/QVSysInfo.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "foundation/PluginInventory.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

// What the platform's version call answers for an unknown selector.
constexpr long kUndefinedSelector = -5551;

bool endsWithIgnoringCase(const std::string& name, std::string_view suffix) {
  if (name.size() < suffix.size()) {
    return false;
  }
  return std::equal(suffix.begin(), suffix.end(), name.end() - static_cast<long>(suffix.size()),
                    [](char a, char b) { return std::tolower(a) == std::tolower(b); });
}

bool isFramework(const std::string& name) {
  return endsWithIgnoringCase(name, ".framework");
}
bool isKext(const std::string& name) {
  return endsWithIgnoringCase(name, ".kext") || endsWithIgnoringCase(name, ".bundle");
}

std::string dotted(const std::array<unsigned, 3>& v) {
  return fmt::format("{}.{}.{}", v[0], v[1], v[2]);
}

void assignParts(const std::array<unsigned, 3>& parts, unsigned* major, unsigned* minor,
                 unsigned* bugFix) {
  if (major != nullptr) {
    *major = parts[0];
  }
  if (minor != nullptr) {
    *minor = parts[1];
  }
  if (bugFix != nullptr) {
    *bugFix = parts[2];
  }
}

} // namespace

const QVSysInfo& QVSysInfo::shared() {
  static const QVSysInfo info(QVLocalPaths::shared(), platform::SystemFacts::current());
  return info;
}

const std::array<QVSysInfo::ReportedApplication, 15>& QVSysInfo::reportedApplications() {
  static const std::array<ReportedApplication, 15> applications = {{
      {"com.apple.FinalCutPro", "Final Cut Pro Version"},
      {"com.apple.FinalCut", "Final Cut Pro X Version"},
      {"com.apple.motion", "Motion Version"},
      {"com.apple.motionapp", "Motion 5 Version"},
      {"com.apple.color", "Color Version"},
      {"com.apple.dvdstudiopro", "DVD Studio Pro Version"},
      {"com.apple.soundtrackpro", "Soundtrack Pro Version"},
      {"com.apple.compressor.Compressor", "Compressor Version"},
      {"com.apple.Compressor", "Compressor 4 Version"},
      {"com.apple.livetype", "LiveType Version"},
      {"com.apple.cinematools", "Cinema Tools Version"},
      {"com.avid.MediaComposer", "Avid Media Composer Version"},
      {"com.avid.Symphony", "Avid Symphony Version"},
      {"com.adobe.AdobePremierePro", "Adobe Premiere Pro Version"},
      {"com.apple.itunes", "iTunes Version"}, // the profile's only
  }};
  return applications;
}

std::string QVSysInfo::machineType() const {
  return facts_.modelName.value_or("Unknown");
}

std::string QVSysInfo::machineSerial() const {
  return facts_.serialNumber.value_or("Unknown");
}

unsigned QVSysInfo::processorClockSpeed() const {
  return facts_.cpuHertz ? static_cast<unsigned>(*facts_.cpuHertz / 1'000'000) : 0;
}

int QVSysInfo::processorCount() const {
  return facts_.processorCount;
}

bool QVSysInfo::isIntel() const {
  return facts_.isX86;
}

unsigned QVSysInfo::physicalRAMSize() const {
  return static_cast<unsigned>(facts_.physicalMemoryMegabytes.value_or(0));
}

std::array<unsigned, 3> QVSysInfo::systemVersion() const {
  if (facts_.systemVersion) {
    return *facts_.systemVersion;
  }
  QVLog::console("Unable to obtain system version: {}", kUndefinedSelector);
  return {10, 5, 0};
}

std::string QVSysInfo::OSXVersionString() const {
  return dotted(systemVersion());
}

void QVSysInfo::getSystemVersionMajor(unsigned* major, unsigned* minor, unsigned* bugFix) const {
  assignParts(systemVersion(), major, minor, bugFix);
}

std::string QVSysInfo::OSXBuildNumber() const {
  return facts_.buildVersion.value_or("Unknown");
}

std::array<unsigned, 3> QVSysInfo::quickTimeVersion() const {
  QVLog::console("Unable to obtain QuickTime version: {}", kUndefinedSelector);
  return {7, 0, 0};
}

void QVSysInfo::getQuickTimeVersionMajor(unsigned* major, unsigned* minor, unsigned* bugFix) const {
  assignParts(quickTimeVersion(), major, minor, bugFix);
}

std::string QVSysInfo::quickTimeVersionString() const {
  return dotted(quickTimeVersion());
}

std::string QVSysInfo::versionStringForBundleID(const std::string& bundleIdentifier) const {
  const QVLocalPaths::Machine& machine = paths_.machine();
  auto path = platform::Workspace::forMachine(machine.localRoot, machine.home)
                  .pathForBundleIdentifier(bundleIdentifier);
  if (!path) {
    return "";
  }
  auto info = plist::readFile(fs::path(*path) / "Contents/Info.plist");
  const plist::Value* version = info ? info->get("CFBundleShortVersionString") : nullptr;
  return version && version->asString() ? *version->asString() : "";
}

std::array<unsigned, 3> QVSysInfo::splitVersion(const std::string& version) {
  std::vector<unsigned> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t dot = version.find('.', start);
    std::string part = version.substr(start, dot == std::string::npos ? dot : dot - start);
    parts.push_back(static_cast<unsigned>(std::strtoul(part.c_str(), nullptr, 10)));
    if (dot == std::string::npos) {
      break;
    }
    start = dot + 1;
  }
  if (version.empty() || parts.size() > 3) {
    return {0, 0, 0};
  }
  parts.resize(3, 0);
  return {parts[0], parts[1], parts[2]};
}

void QVSysInfo::getAppMajorVersion(unsigned* major, unsigned* minor, unsigned* bugFix,
                                   const std::string& versionString) {
  assignParts(splitVersion(versionString), major, minor, bugFix);
}

std::string QVSysInfo::reportedVersion(std::size_t index) const {
  return versionStringForBundleID(reportedApplications()[index].bundleIdentifier);
}

// In the order of reportedApplications().
std::string QVSysInfo::finalCutProVersionString() const {
  return reportedVersion(0);
}
std::string QVSysInfo::finalCutProXVersionString() const {
  return reportedVersion(1);
}
std::string QVSysInfo::motionVersionString() const {
  return reportedVersion(2);
}
std::string QVSysInfo::motion5VersionString() const {
  return reportedVersion(3);
}
std::string QVSysInfo::colorVersionString() const {
  return reportedVersion(4);
}
std::string QVSysInfo::dvdspVersionString() const {
  return reportedVersion(5);
}
std::string QVSysInfo::soundtrackProVersionString() const {
  return reportedVersion(6);
}
std::string QVSysInfo::compressorVersionString() const {
  return reportedVersion(7);
}
std::string QVSysInfo::compressor4VersionString() const {
  return reportedVersion(8);
}
std::string QVSysInfo::liveTypeVersionString() const {
  return reportedVersion(9);
}
std::string QVSysInfo::cinemaToolsVersionString() const {
  return reportedVersion(10);
}
std::string QVSysInfo::avidVersionString() const {
  return reportedVersion(11);
}
std::string QVSysInfo::avidSymphonyVersionString() const {
  return reportedVersion(12);
}
std::string QVSysInfo::premiereVersionString() const {
  return reportedVersion(13);
}
std::string QVSysInfo::iTunesVersionString() const {
  return reportedVersion(14);
}

void QVSysInfo::addBundleRecords(plist::Dictionary& records, const std::string& listed,
                                 const std::string& bundleFolder, const std::string& infoPath,
                                 bool (*keep)(const std::string&)) const {
  // Sorted so that the records come in the same order on every machine and every run.
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(listed, ec)) {
    std::string name = entry.path().filename().string();
    if (keep(name)) {
      names.push_back(std::move(name));
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string bundle = bundleFolder + "/" + name;
    auto info = plist::readFile(bundle + infoPath);
    const plist::Value* version = info ? info->get("CFBundleVersion") : nullptr;
    if (version == nullptr) {
      continue;
    }
    records.set(name,
                plist::Dictionary{{"name", name}, {"fullPath", bundle}, {"version", *version}});
  }
}

plist::Dictionary QVSysInfo::frameworks() const {
  plist::Dictionary records;
  std::string local = paths_.libraryDirectory(false).value_or("");
  // Both passes build the bundle's path under the local Library: that is how the inventory
  // has always been taken.
  addBundleRecords(records, local + "/Frameworks", local + "/Frameworks",
                   "/Versions/Current/Resources/Info.plist", &isFramework);
  addBundleRecords(records, paths_.systemLibraryDirectory().value_or("") + "/Frameworks",
                   local + "/Frameworks", "/Versions/Current/Resources/Info.plist", &isFramework);
  return records;
}

plist::Dictionary QVSysInfo::kexts() const {
  plist::Dictionary records;
  std::string extensions = paths_.systemLibraryDirectory().value_or("") + "/Extensions";
  addBundleRecords(records, extensions, extensions, "/Contents/Info.plist", &isKext);
  return records;
}

plist::Array QVSysInfo::plugins(bool includeDisabled) const {
  const QVLocalPaths::Machine& machine = paths_.machine();
  auto workspace = platform::Workspace::forMachine(machine.localRoot, machine.home);
  return PluginInventory(paths_, workspace).plugins(includeDisabled);
}

plist::Array QVSysInfo::pluginsAtPath(const std::string& folder,
                                      const std::optional<std::string>& type) const {
  const QVLocalPaths::Machine& machine = paths_.machine();
  auto workspace = platform::Workspace::forMachine(machine.localRoot, machine.home);
  return PluginInventory(paths_, workspace).pluginsAtPath(folder, type);
}

void QVSysInfo::addVersions(plist::Dictionary& into) const {
  into.set("QuickTime Version", quickTimeVersionString());
  const auto& applications = reportedApplications();
  for (std::size_t i = 0; i + 1 < applications.size(); ++i) { // iTunes is the profile's only
    into.set(applications[i].key, versionStringForBundleID(applications[i].bundleIdentifier));
  }
}

plist::Dictionary QVSysInfo::systemProfile() const {
  plist::Dictionary profile;
  addVersions(profile);
  const auto& applications = reportedApplications();
  profile.set("Plugins", plugins(false));
  profile.set("OS X Version", OSXVersionString());
  profile.set(applications.back().key,
              versionStringForBundleID(applications.back().bundleIdentifier));
  profile.set("Frameworks", frameworks());
  profile.set("Kexts", kexts());
  return profile;
}

plist::Dictionary QVSysInfo::systemSpecs() const {
  plist::Dictionary specs;
  addVersions(specs);
  specs.set("OS X Version", OSXVersionString());
  specs.set("CPU Speed", fmt::format("{:0.2f} GHz", processorClockSpeed() / 1000.0));
  specs.set("Number of CPUs", fmt::format("{}", processorCount()));
  specs.set("Intel Processor", isIntel() ? "Yes" : "No");
  specs.set("Memory Size", fmt::format("{:0.2f} GB", physicalRAMSize() * (1.0 / 1024)));
  specs.set("Logged in User", paths_.machine().ownUserName);
  specs.set("Hardware Model", machineType());
  specs.set("OS Build", OSXBuildNumber());
  specs.set("Serial Number", machineSerial());
  return specs;
}

} // namespace kestrin
