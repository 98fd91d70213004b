#include "platform/SystemFacts.h"

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"

namespace kestrin::platform {
namespace {

using kestrin::testing::TempDir;
using kestrin::testing::writeText;
using Version = std::array<unsigned, 3>;

constexpr const char* kCpufreq = "sys/devices/system/cpu/cpu0/cpufreq/";

// Two processors of a machine whose speed is scaled down at the moment.
constexpr const char* kIntelCpuinfo = "processor\t: 0\n"
                                      "vendor_id\t: GenuineIntel\n"
                                      "model name\t: Intel(R) Xeon(R) CPU X5650 @ 2.66GHz\n"
                                      "cpu MHz\t\t: 1596.000\n"
                                      "\n"
                                      "processor\t: 1\n"
                                      "model name\t: Intel(R) Xeon(R) CPU X5650 @ 2.66GHz\n"
                                      "cpu MHz\t\t: 2661.000\n";

TEST(SystemFacts, ReadsModelSerialSpeedAndReleaseFromTheirFiles) {
  TempDir root;
  writeText(root / "sys/class/dmi/id/product_name", "Precision T7500\n");
  writeText(root / "sys/class/dmi/id/product_serial", "  7XK2F4J \n");
  writeText(root / "proc/cpuinfo", kIntelCpuinfo);
  writeText(root / "etc/debian_version", "12.11\n");
  writeText(root / "etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12\"\nVERSION_ID=\"12\"\n");

  SystemFacts facts = SystemFacts::fromFiles(root.path().string());
  EXPECT_EQ(facts.modelName, "Precision T7500");
  EXPECT_EQ(facts.serialNumber, "7XK2F4J");
  EXPECT_EQ(facts.cpuHertz, 2'660'000'000u);
  EXPECT_EQ(facts.systemVersion, (Version{12, 11, 0}));
}

TEST(SystemFacts, ProcessorSpeedPrefersTheNominalOverTheMomentary) {
  TempDir root;
  auto hertz = [&] { return SystemFacts::fromFiles(root.path().string()).cpuHertz; };
  writeText(root / "proc/cpuinfo", "model name\t: AMD EPYC\ncpu MHz\t\t: 2445.428\n");
  EXPECT_EQ(hertz(), 2'445'428'000u);
  writeText(root / (std::string(kCpufreq) + "cpuinfo_max_freq"), "3400000\n");
  EXPECT_EQ(hertz(), 3'400'000'000u);
  writeText(root / "proc/cpuinfo", kIntelCpuinfo);
  EXPECT_EQ(hertz(), 2'660'000'000u);
  writeText(root / (std::string(kCpufreq) + "base_frequency"), "2100000\n");
  EXPECT_EQ(hertz(), 2'100'000'000u);
}

TEST(SystemFacts, MissingPlaceholderAndMalformedEntriesLeaveTheFactAbsent) {
  TempDir root;
  auto facts = [&] { return SystemFacts::fromFiles(root.path().string()); };
  SystemFacts nothing = facts();
  EXPECT_EQ(nothing.modelName, std::nullopt);
  EXPECT_EQ(nothing.serialNumber, std::nullopt);
  EXPECT_EQ(nothing.cpuHertz, std::nullopt);
  EXPECT_EQ(nothing.systemVersion, std::nullopt);

  writeText(root / "sys/class/dmi/id/product_name", "To be filled by O.E.M.\n");
  writeText(root / "sys/class/dmi/id/product_serial", "\n");
  writeText(root / "proc/cpuinfo", "model name\t: Cortex-A72 @ GHz\ncpu MHz\t\t:\n");
  writeText(root / (std::string(kCpufreq) + "cpuinfo_max_freq"), "fast\n");
  writeText(root / "etc/debian_version", "bookworm/sid\n");
  writeText(root / "etc/os-release", "ID=debian\nVERSION_ID=\n");
  SystemFacts junk = facts();
  EXPECT_EQ(junk.modelName, std::nullopt);
  EXPECT_EQ(junk.serialNumber, std::nullopt);
  EXPECT_EQ(junk.cpuHertz, std::nullopt);
  EXPECT_EQ(junk.systemVersion, std::nullopt);
  writeText(root / "etc/debian_version", "99999999999999999999.1\n");
  EXPECT_EQ(facts().systemVersion, std::nullopt);
}

TEST(SystemFacts, FallsBackToTheDeviceTreeModelAndTheOsReleaseVersion) {
  TempDir root;
  writeText(root / "proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
  writeText(root / "usr/lib/os-release", "NAME=Ubuntu\nVERSION_ID='22.04'\n");
  SystemFacts facts = SystemFacts::fromFiles(root.path().string());
  EXPECT_EQ(facts.modelName, "Raspberry Pi 4 Model B Rev 1.4");
  EXPECT_EQ(facts.systemVersion, (Version{22, 4, 0}));

  // /etc wins over /usr/lib, as the os-release convention says.
  writeText(root / "etc/os-release", "VERSION_ID=11\n");
  EXPECT_EQ(SystemFacts::fromFiles(root.path().string()).systemVersion, (Version{11, 0, 0}));
}

TEST(SystemFacts, ThisMachineHasProcessorsMemoryAndAKernelBuild) {
  SystemFacts facts = SystemFacts::current();
  EXPECT_GE(facts.processorCount, 1);
  ASSERT_TRUE(facts.physicalMemoryMegabytes.has_value());
  EXPECT_GT(*facts.physicalMemoryMegabytes, 0u);
  ASSERT_TRUE(facts.buildVersion.has_value());
  EXPECT_FALSE(facts.buildVersion->empty());
}

} // namespace
} // namespace kestrin::platform
