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

TEST(QVSysInfo, SpecsFormatTheFactsForDisplayInTheirOrder) {
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
  std::vector<std::string> keys = specs.keys();
  EXPECT_EQ(keys.front(), "QuickTime Version");
  EXPECT_EQ(keys[15], "OS X Version");
  EXPECT_EQ(keys.back(), "Serial Number");

  plist::Dictionary profile = info.systemProfile();
  std::vector<std::string> order = profile.keys();
  ASSERT_EQ(order.size(), 20u);
  EXPECT_EQ(order[15], "Plugins");
  EXPECT_EQ(order[16], "OS X Version");
  EXPECT_EQ(order[17], "iTunes Version");
  EXPECT_EQ(order.back(), "Kexts");
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
  EXPECT_EQ(info.kexts().size(), 2u);
}

} // namespace
} // namespace kestrin
