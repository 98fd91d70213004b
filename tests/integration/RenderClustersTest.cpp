// Render clusters through the real agent: ambrant's tree of jobs, and what several admins at
// once may send the steering operations without harm.
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

TEST(RenderClusters, AmbrantPrintsTheJobTreeAndHostileSteeringStartsNothing) {
  testing::TempDir tools;
  fs::path steered = tools.path() / "steered";
  fs::path qmasterprefs = tools.path() / "qmasterprefs";
  std::ofstream(qmasterprefs) << "#!/bin/sh\necho 'x -cluster on servername \"Render Farm\"'\n";
  fs::permissions(qmasterprefs, fs::perms::owner_all);
  testing::RunningAgent agent(
      {}, {{"KESTRIN_TOOL_QMASTERPREFS", qmasterprefs.string()}}, [&](const fs::path& root) {
        fs::path bundle = root / "Applications/Batch Monitor.app";
        fs::create_directories(bundle / "Contents/MacOS");
        std::ofstream(bundle / "Contents/Info.plist")
            << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
               "<string>com.apple.BatchMonitor</string></dict></plist>\n";
        fs::path exe = bundle / "Contents/MacOS/Batch Monitor";
        std::ofstream(exe) << "#!/bin/sh\ncase \"$5\" in -pause|-resume|-kill) echo \"$@\" >> '"
                           << steered.string()
                           << "'; exit 0;; esac\necho '<s><batchStatus batchid=\"4\" "
                              "name=\"Trailer\"/><jobStatus batchid=\"4\" jobid=\"12\" "
                              "status=\"rendering\"/></s>'\n";
        fs::permissions(exe, fs::perms::owner_all);
      });
  int port = agent.waitForPort();
  ASSERT_NE(port, 0);

  auto [status, tree] = testing::runAmbrant("jobs 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(tree, HasSubstr("Render Farm Cluster\n  batch 4  batchid=4  name=Trailer\n"
                              "    job 12  batchid=4  jobid=12  status=rendering\n"));
  EXPECT_THAT(tree, HasSubstr("This Computer\n"));

  testing::HostileCalls hostile;
  for (const char* selector : {"qmasterJobPause:", "qmasterJobResume:", "qmasterJobTerminate:"}) {
    for (const Value& references :
         {Value("not a list"), Value(plist::Array{Value(), 5, "x", plist::Array{}}),
          Value(plist::Array{plist::Dictionary{{"clustername", "A"}}}),
          Value(plist::Array{plist::Dictionary{{"jobid", "1"}}}),
          Value(
              plist::Array{plist::Dictionary{{"clustername", plist::Array{}}, {"jobid", "1"}}})}) {
      hostile.push_back({selector, {references}});
    }
  }
  hostile.push_back({"qmasterClusters", {}});
  EXPECT_TRUE(testing::severalAdminsSend(port, hostile));
  EXPECT_TRUE(agent.logContains("Unable to find cluster name and job ID"));
  EXPECT_FALSE(fs::exists(steered));
}

} // namespace
} // namespace kestrin
