#include "foundation/QVSysInfo.h"

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using plist::Value;

void writeInfo(const fs::path& plistPath, plist::Dictionary info) {
  fs::create_directories(plistPath.parent_path());
  ASSERT_TRUE(plist::writeFile(plistPath, Value(std::move(info))).ok());
}

TEST(QVSysInfo, MissingFactsGiveTheDocumentedFallbacks) {
  testing::ThrowawayMachine machine;
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(info.machineType(), "Unknown");
  EXPECT_EQ(info.machineSerial(), "Unknown");
  EXPECT_EQ(info.processorClockSpeed(), 0u);
  EXPECT_EQ(info.physicalRAMSize(), 0u);
  EXPECT_EQ(info.OSXVersionString(), "10.5.0");
  EXPECT_EQ(info.quickTimeVersionString(), "7.0.0");
  EXPECT_EQ(info.OSXBuildNumber(), "Unknown");
  EXPECT_EQ(info.versionStringForBundleID("com.apple.FinalCutPro"), "");
  std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("Unable to obtain system version: "), std::string::npos);
  EXPECT_NE(said.find("Unable to obtain QuickTime version: "), std::string::npos);
}

TEST(QVSysInfo, VersionsSplitIntoThreeNumbers) {
  using V = std::array<unsigned, 3>;
  EXPECT_EQ(QVSysInfo::splitVersion("7.0.3"), (V{7, 0, 3}));
  EXPECT_EQ(QVSysInfo::splitVersion("10.6"), (V{10, 6, 0}));
  EXPECT_EQ(QVSysInfo::splitVersion("10"), (V{10, 0, 0}));
  EXPECT_EQ(QVSysInfo::splitVersion("1.2.3.4"), (V{0, 0, 0}));
  EXPECT_EQ(QVSysInfo::splitVersion(""), (V{0, 0, 0}));
}

TEST(QVSysInfo, SpecsFormatTheFactsForDisplay) {
  testing::ThrowawayMachine machine;
  platform::SystemFacts facts;
  facts.modelName = "Edit Bay 4";
  facts.cpuHertz = 2'660'000'000;
  facts.processorCount = 8;
  facts.isX86 = true;
  facts.physicalMemoryMegabytes = 2048;
  facts.systemVersion = std::array<unsigned, 3>{12, 8, 0};
  QVSysInfo info(machine.paths(), facts);
  machine.makeBundle(machine.root() / "Applications", "Final Cut Pro", "com.apple.FinalCutPro",
                     "7.0.3");
  plist::Dictionary specs = info.systemSpecs();
  EXPECT_EQ(*specs.find("CPU Speed"), Value("2.66 GHz"));
  EXPECT_EQ(*specs.find("Memory Size"), Value("2.00 GB"));
  EXPECT_EQ(*specs.find("Number of CPUs"), Value("8"));
  EXPECT_EQ(*specs.find("Intel Processor"), Value("Yes"));
  EXPECT_EQ(*specs.find("Hardware Model"), Value("Edit Bay 4"));
  EXPECT_EQ(*specs.find("OS X Version"), Value("12.8.0"));
  EXPECT_EQ(*specs.find("Final Cut Pro Version"), Value("7.0.3"));
}

const std::vector<std::string> kApplicationKeys = {
    "Final Cut Pro Version",  "Final Cut Pro X Version",
    "Motion Version",         "Motion 5 Version",
    "Color Version",          "DVD Studio Pro Version",
    "Soundtrack Pro Version", "Compressor Version",
    "Compressor 4 Version",   "LiveType Version",
    "Cinema Tools Version",   "Avid Media Composer Version",
    "Avid Symphony Version",  "Adobe Premiere Pro Version"};

TEST(QVSysInfo, ProfileAndSpecsCarryTheirKeysInOrder) {
  testing::ThrowawayMachine machine;
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  ::testing::internal::CaptureStderr();

  std::vector<std::string> profile = {"QuickTime Version"};
  profile.insert(profile.end(), kApplicationKeys.begin(), kApplicationKeys.end());
  profile.insert(profile.end(),
                 {"Plugins", "OS X Version", "iTunes Version", "Frameworks", "Kexts"});
  EXPECT_EQ(info.systemProfile().keys(), profile);

  std::vector<std::string> specs = {"QuickTime Version"};
  specs.insert(specs.end(), kApplicationKeys.begin(), kApplicationKeys.end());
  specs.insert(specs.end(),
               {"OS X Version", "CPU Speed", "Number of CPUs", "Intel Processor", "Memory Size",
                "Logged in User", "Hardware Model", "OS Build", "Serial Number"});
  plist::Dictionary found = info.systemSpecs();
  EXPECT_EQ(found.keys(), specs);
  // A machine that tells nothing still gives display strings, not gaps.
  EXPECT_EQ(*found.find("CPU Speed"), Value("0.00 GHz"));
  EXPECT_EQ(*found.find("Memory Size"), Value("0.00 GB"));
  EXPECT_EQ(*found.find("Intel Processor"), Value("No"));
  EXPECT_EQ(*found.find("Serial Number"), Value("Unknown"));
  EXPECT_EQ(*found.find("Logged in User"), Value(machine.paths().machine().ownUserName));
  ::testing::internal::GetCapturedStderr();
}

TEST(QVSysInfo, EachApplicationAccessorAsksForItsOwnBundleIdentifier) {
  testing::ThrowawayMachine machine;
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  fs::path apps = machine.root() / "Applications";
  // Pairs of identifiers that differ only by a suffix or by case must not be confused.
  machine.makeBundle(apps, "Compressor", "com.apple.compressor.Compressor", "3.5.3");
  machine.makeBundle(apps, "Compressor 4", "com.apple.Compressor", "4.1");
  machine.makeBundle(apps, "Motion", "com.apple.motion", "4.0.3");
  machine.makeBundle(apps, "Motion 5", "com.apple.motionapp", "5.1");
  machine.makeBundle(apps, "iTunes", "com.apple.itunes", "10.6");
  fs::path noShortVersion = machine.makeBundle(apps, "Color", "com.apple.color", "1.5");
  plist::Dictionary bare{{"CFBundleIdentifier", "com.apple.color"}, {"CFBundleVersion", "1.5"}};
  ASSERT_TRUE(plist::writeFile(noShortVersion / "Contents/Info.plist", Value(bare)).ok());

  EXPECT_EQ(info.compressorVersionString(), "3.5.3");
  EXPECT_EQ(info.compressor4VersionString(), "4.1");
  EXPECT_EQ(info.motionVersionString(), "4.0.3");
  EXPECT_EQ(info.motion5VersionString(), "5.1");
  EXPECT_EQ(info.iTunesVersionString(), "10.6");
  EXPECT_EQ(info.colorVersionString(), "");
  EXPECT_EQ(info.avidVersionString(), "");

  ::testing::internal::CaptureStderr();
  plist::Dictionary profile = info.systemProfile();
  plist::Dictionary specs = info.systemSpecs();
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(*profile.find("Compressor 4 Version"), Value("4.1"));
  EXPECT_EQ(*profile.find("iTunes Version"), Value("10.6"));
  EXPECT_EQ(specs.find("iTunes Version"), nullptr);
}

TEST(QVSysInfo, OutParametersThatAreNullAreSkipped) {
  unsigned major = 99, bugFix = 99;
  QVSysInfo::getAppMajorVersion(&major, nullptr, &bugFix, "7.0.3");
  EXPECT_EQ(major, 7u);
  EXPECT_EQ(bugFix, 3u);

  testing::ThrowawayMachine machine;
  platform::SystemFacts facts;
  facts.systemVersion = std::array<unsigned, 3>{12, 11, 0};
  unsigned minor = 0;
  QVSysInfo(machine.paths(), facts).getSystemVersionMajor(nullptr, &minor, nullptr);
  EXPECT_EQ(minor, 11u);
}

TEST(QVSysInfo, InventoriesRecordBundlesWithAVersionOnly) {
  testing::ThrowawayMachine machine;
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  fs::path frameworks = fs::path(machine.paths().libraryDirectory(false).value()) / "Frameworks";
  writeInfo(frameworks / "Codec.framework/Versions/Current/Resources/Info.plist",
            {{"CFBundleVersion", "3.1"}});
  writeInfo(frameworks / "NoVersion.framework/Versions/Current/Resources/Info.plist",
            {{"CFBundleName", "x"}});
  fs::create_directories(frameworks / "NotAFramework");
  fs::path extensions = fs::path(machine.paths().systemLibraryDirectory().value()) / "Extensions";
  writeInfo(extensions / "Capture.KEXT/Contents/Info.plist", {{"CFBundleVersion", "2.0"}});
  writeInfo(extensions / "Audio.bundle/Contents/Info.plist", {{"CFBundleVersion", "1"}});

  plist::Dictionary found = info.frameworks();
  ASSERT_EQ(found.keys(), std::vector<std::string>{"Codec.framework"});
  EXPECT_EQ(*found.find("Codec.framework"),
            Value(plist::Dictionary{{"name", "Codec.framework"},
                                    {"fullPath", (frameworks / "Codec.framework").string()},
                                    {"version", "3.1"}}));
  plist::Dictionary kexts = info.kexts();
  EXPECT_EQ(kexts.keys(), (std::vector<std::string>{"Audio.bundle", "Capture.KEXT"}));
  EXPECT_EQ(*kexts.find("Capture.KEXT")->get("fullPath"),
            Value((extensions / "Capture.KEXT").string()));
}

TEST(QVSysInfo, SystemFrameworksAreReadFromTheLocalLibrary) {
  // The second pass lists the system Library's frameworks but reads each one's Info.plist
  // under the local Library, so a framework found only in the system Library is not recorded.
  testing::ThrowawayMachine machine;
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  fs::path local = fs::path(machine.paths().libraryDirectory(false).value()) / "Frameworks";
  fs::path system = fs::path(machine.paths().systemLibraryDirectory().value()) / "Frameworks";
  const char* info_plist = "Versions/Current/Resources/Info.plist";
  writeInfo(system / "SystemOnly.framework" / info_plist, {{"CFBundleVersion", "1"}});
  writeInfo(system / "Shared.framework" / info_plist, {{"CFBundleVersion", "system"}});
  writeInfo(local / "Shared.framework" / info_plist, {{"CFBundleVersion", "local"}});

  plist::Dictionary found = info.frameworks();
  ASSERT_EQ(found.keys(), std::vector<std::string>{"Shared.framework"});
  EXPECT_EQ(*found.find("Shared.framework")->get("version"), Value("local"));
  EXPECT_EQ(*found.find("Shared.framework")->get("fullPath"),
            Value((local / "Shared.framework").string()));
}

} // namespace
} // namespace kestrin
