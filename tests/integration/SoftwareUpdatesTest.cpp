// Software updates through the real agent: its start-up count, ambrant's view of it, and what
// several admins at once may send the update operations without harm.
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HostileCalls.h"
#include "RunningAgent.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using ::testing::HasSubstr;

TEST(SoftwareUpdates, TheAgentCountsAtStartAndShrugsOffHostileUpdateCalls) {
  fs::path opened;
  testing::RunningAgent agent(
      {}, {{"KESTRIN_TOOL_XDG_OPEN", "/bin/false"}}, [&](const fs::path& root) {
        fs::path bundle = root / "Applications/Quorvane/Quorvane Software Update.app";
        fs::create_directories(bundle / "Contents/MacOS");
        std::ofstream(bundle / "Contents/Info.plist")
            << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
               "<string>com.quorvane.SoftwareUpdate</string><key>CFBundleVersion</key>"
               "<string>1300</string></dict></plist>\n";
        fs::path exe = bundle / "Contents/MacOS/Quorvane Software Update";
        std::ofstream(exe) << "#!/bin/sh\nprintf '<plist version=\"1.0\"><dict><key>updates</key>"
                              "<array><dict><key>bundleid</key><string>com.quorvane.Tibbet</string>"
                              "<key>version</key><string>2.1</string></dict><dict><key>bundleid"
                              "</key><string>com.quorvane.Kestrin</string></dict></array></dict>"
                              "</plist>'\n";
        fs::permissions(exe, fs::perms::owner_all);
      });
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);
  // A version the agent has not run before counts at once, on its own.
  EXPECT_TRUE(testing::eventually([&] { return agent.logContains("Launching task..."); }));

  auto [status, printed] = testing::runAmbrant("updates 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(printed, HasSubstr("2 update(s) available"));
  EXPECT_THAT(printed, HasSubstr("com.quorvane.Tibbet\t-\t2.1\t-\n"));

  // Several admins at once, each sending what it should not.
  const testing::HostileCalls hostile = {
      {"softwareUpdateManualInstall:", {Value("file:///etc/passwd")}},
      {"softwareUpdateManualInstall:", {Value("javascript:alert(1)")}},
      {"softwareUpdateManualInstall:", {Value("https://www.quorvane.com.evil/x")}},
      {"softwareUpdateManualInstall:", {Value()}},
      {"installQuorvaneSoftwareUpdate:settings:",
       {Value(), Value(plist::Dictionary{{"obj1", "full"}, {"obj2", Value()}})}},
      {"installQuorvaneSoftwareUpdate:settings:",
       {Value(), Value(plist::Dictionary{{"obj1", "full"}, {"obj2", 42}})}},
      {"installQuorvaneSoftwareUpdate:settings:",
       {Value("not credentials"), Value(plist::Dictionary{{"obj1", plist::Array{}}})}},
      {"softwareUpdateAvailableUpdateCount:", {Value("yes")}},
      {"listQuorvaneSoftwareUpdates", {}}};
  EXPECT_TRUE(testing::severalAdminsSend(port, hostile));
  EXPECT_TRUE(agent.logContains("Unable to initiate manual download - invalid URL."));
  EXPECT_TRUE(agent.logContains("Error: no bundle ID specified"));
  EXPECT_FALSE(agent.logContains("Beginning manual download"));
  EXPECT_FALSE(agent.logContains("Executing auth task..."));
}

} // namespace
} // namespace kestrin
