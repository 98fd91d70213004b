// Applications through the real agent: ambrant's table, a real application launched and quit
// by the agent with nothing left behind, and what several admins at once may send the
// application and settings operations without harm.
#include <csignal>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HostileCalls.h"
#include "RunningAgent.h"
#include "platform/Processes.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using ::testing::HasSubstr;

TEST(Applications, TheAgentListsLaunchesAndQuitsAndShrugsOffHostileCalls) {
  fs::path bundle;
  testing::RunningAgent agent({}, {}, [&](const fs::path& root) {
    bundle = root / "Applications/Avid Media Composer.app";
    fs::create_directories(bundle / "Contents/MacOS");
    std::ofstream(bundle / "Contents/Info.plist")
        << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
           "<string>com.avid.MediaComposer</string><key>CFBundleShortVersionString</key>"
           "<string>2024.6</string></dict></plist>\n";
    fs::copy_file(KESTRIN_IDLE_APPLICATION, bundle / "Contents/MacOS/Avid Media Composer");
  });
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);
  auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
  ASSERT_TRUE(client.ok()) << client.message();
  auto call = [&](const std::string& selector, std::vector<Value> arguments) {
    return (*client)->root()->invoke(selector, std::move(arguments));
  };

  call("launchApp:", {Value("com.avid.MediaComposer")});
  auto running = [&] { return platform::processesInside(bundle.string()); };
  ASSERT_TRUE(testing::eventually([&] { return running().size() == 1; }));
  pid_t pid = running()[0].pid;
  auto [status, table] = testing::runAmbrant("apps 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(table, ::testing::ContainsRegex("Avid Media Composer +yes +yes +2024.6\n"));
  EXPECT_THAT(table, ::testing::ContainsRegex("Tibbet +no +- +-\n"));
  call("terminateApp:", {Value("com.avid.MediaComposer")});
  bool ended = testing::eventually([&] { return !fs::exists("/proc/" + std::to_string(pid)); });
  if (!ended) {
    ::kill(pid, SIGKILL); // ours to clean up, by its pid
  }
  EXPECT_TRUE(ended) << "a quit application, reaped by the agent, leaves no process behind";

  const testing::HostileCalls hostile = {
      {"launchApp:", {Value()}},
      {"launchApp:", {Value(42)}},
      {"launchApp:", {Value("")}},
      {"terminateApp:", {Value(std::string(10'000, 'a'))}},
      {"terminateApp:", {Value("com.quorvane.Kestrin")}},
      {"forceQuitApp:", {Value("com.quorvane.Kestrin")}},
      {"computerIcon:", {Value(plist::Array{100'000, 100'000})}},
      {"computerIcon:", {Value("not a size")}},
      {"setNetworkClientSettings:", {Value(plist::Dictionary{{"softwareUpdateFeedURL", "x"}})}},
      {"setNetworkClientSettings:", {Value(plist::Dictionary{{"autoUpdateCheck", "on"}})}},
      {"setAmbrantSettings:", {Value(5)}},
      {"ambrantPasswordProtect:settings:", {Value(), Value(plist::Dictionary{{"obj1", 0}})}}};
  EXPECT_TRUE(testing::severalAdminsSend(port, hostile));
  EXPECT_TRUE(agent.logContains("Refusing to quit the agent itself"));
  EXPECT_TRUE(call("ping", {}).isNull());
}

} // namespace
} // namespace kestrin
