// Render clusters through the operation table: qmasterprefs' list and its one-minute cache,
// Batch Monitor's jobs for every cluster at once, its XML read leniently, and the steering
// of jobs; with fake programs over a throwaway machine whose clock the test moves.

#include <fstream>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "MakerToolTest.h"
#include "fixtures/AgentProcess.h"
#include "operations/QmasterOperations.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;

plist::Data bytes(const std::string& text) {
  return plist::Data(text.begin(), text.end());
}

class QmasterTest : public testing::MakerToolTest {
protected:
  QmasterTest() {
    // qmasterprefs prints what the test put in "prefs.out" and counts its runs.
    std::ofstream(qmasterprefs) << "#!/bin/sh\necho \"$@\" >> '" << (dir() / "prefs.runs").string()
                                << "'\ncat '" << (dir() / "prefs.out").string() << "'\n";
    fs::permissions(qmasterprefs, fs::perms::owner_all);
    harness.tools = harness.tools.withPath(platform::Tool::Qmasterprefs, qmasterprefs.string());
    // Batch Monitor prints "<cluster>.xml" for a query and records steering.
    fs::path bundle = harness.machine.root() / "Applications/Batch Monitor.app";
    fs::create_directories(bundle / "Contents/MacOS");
    (void)plist::writeFile(
        bundle / "Contents/Info.plist",
        Value(plist::Dictionary{{"CFBundleIdentifier", "com.apple.BatchMonitor"}}));
    std::ofstream(bundle / "Contents/MacOS/Batch Monitor")
        << "#!/bin/sh\ncase \"$5\" in -pause|-resume|-kill) echo \"$@\" >> '"
        << (dir() / "steered").string() << "'; exit 0;; esac\ncat \"" << dir().string()
        << "/$2.xml\"\n";
    fs::permissions(bundle / "Contents/MacOS/Batch Monitor", fs::perms::owner_all);
  }
  fs::path dir() const { return harness.machine.root(); }
  void preferences(const std::string& list) { std::ofstream(dir() / "prefs.out") << list; }
  int prefsRuns() const {
    std::ifstream in(dir() / "prefs.runs");
    int lines = 0;
    for (std::string line; std::getline(in, line);) {
      ++lines;
    }
    return lines;
  }
  void jobsOf(const std::string& cluster, const std::string& xml) {
    std::ofstream(dir() / (cluster + ".xml")) << xml;
  }

  fs::path qmasterprefs = harness.machine.root() / "qmasterprefs";
};

TEST_F(QmasterTest, ClustersAreReadFromThePreferencesAndKeptForAMinute) {
  preferences("Qmaster -cluster on servername \"Render Farm\" port 5 -Cluster On servername "
              "\"Edit Cluster\" -cluster on servername \"\" -cluster on servername \"Open "
              "-cluster on nothing here -sharing servername \"Not A Cluster\"");
  Value expected(plist::Array{"This Computer", "Render Farm Cluster", "Edit Cluster"});
  EXPECT_EQ(harness.call("qmasterClusters"), expected);
  EXPECT_EQ(harness.call("qmasterClusters"), expected);
  EXPECT_EQ(prefsRuns(), 1);
  harness.advance(61s);
  harness.call("qmasterClusters");
  EXPECT_EQ(prefsRuns(), 2);

  harness.advance(61s);
  harness.tools = harness.tools.withPath(platform::Tool::Qmasterprefs, "/nonexistent/qmasterprefs");
  EXPECT_EQ(harness.call("qmasterClusters"), Value(plist::Array{"This Computer"}));
  EXPECT_TRUE(logged("Unable to load Qmaster preferences"));
  harness.call("qmasterStartSharing");
  EXPECT_TRUE(logged("Unable to find path for qmasterprefs"));
}

TEST_F(QmasterTest, EveryClustersJobsAreGatheredSideBySide) {
  preferences("x -cluster on servername \"A\" -cluster on servername \"B\" -cluster on "
              "servername \"C\" -cluster on servername \"D\"");
  for (const char* cluster :
       {"This Computer", "A Cluster", "B Cluster", "C Cluster", "D Cluster"}) {
    jobsOf(cluster, std::string("<status><batchStatus batchid=\"1\" name=\"") + cluster +
                        "\"/><jobStatus batchid=\"1\" jobid=\"7\" status=\"running\"/>"
                        "<jobStatus jobid=\"8\"/><jobStatus batchid=\"9\" jobid=\"9\"/>"
                        "<batchStatus name=\"no id\"/></status>");
  }
  Value jobs = harness.call("qmasterJobs");
  ASSERT_TRUE(jobs.asDictionary()) << harness.machine.logText();
  ASSERT_EQ(jobs.asDictionary()->size(), 5u) << harness.machine.logText();
  Value batch = *jobs.get("C Cluster")->get("1");
  EXPECT_EQ(*batch.get("name"), Value("C Cluster"));
  EXPECT_EQ(
      *batch.get("jobs"),
      Value(plist::Dictionary{
          {"7", plist::Dictionary{{"batchid", "1"}, {"jobid", "7"}, {"status", "running"}}}}));
  EXPECT_TRUE(logged("Qmaster processing complete."));
}

TEST_F(QmasterTest, BatchMonitorOutputIsReadAsFarAsItCanBe) {
  auto read = [](const std::string& xml) {
    return QmasterOperations::jobsFromBatchMonitorOutput(bytes(xml));
  };
  EXPECT_FALSE(read("").ok());
  auto truncated = read("<s><batchStatus batchid=\"1\"/><jobStatus batchid=\"1\" jobid=\"2\"/>"
                        "<jobStatus batchid=\"1\" jobid=\"3\" unclosed=\"");
  ASSERT_TRUE(truncated.ok());
  EXPECT_NE(truncated->find("1")->get("jobs")->asDictionary()->find("2"), nullptr);
  auto entities = read("<!DOCTYPE s [<!ENTITY big \"x\">]><s><batchStatus batchid=\"&big;\"/></s>");
  ASSERT_TRUE(entities.ok());
  EXPECT_EQ(entities->find("x"), nullptr); // never expanded
  std::string huge = "<s>" + std::string(20 << 20, ' ') + "</s>";
  EXPECT_FALSE(read(huge).ok());
}

TEST_F(QmasterTest, JobsAreSteeredOnlyWithAClusterAndAJob) {
  harness.call("qmasterJobPause:",
               {Value(plist::Array{plist::Dictionary{{"clustername", "A Cluster"}, {"jobid", 7}},
                                   plist::Dictionary{{"clustername", "A Cluster"}}, Value("x")})});
  harness.call("qmasterJobTerminate:",
               {Value(plist::Array{plist::Dictionary{{"clustername", "B"}, {"jobid", "9"}}})});
  EXPECT_TRUE(logged("Unable to find cluster name and job ID"));
  EXPECT_TRUE(logged("Pausing Qmaster jobs"));
  EXPECT_TRUE(logged("Resuming Qmaster jobs")); // the kill says so too
  // Both started without waiting for either: in either order.
  auto steered = [&] {
    std::istringstream lines(testing::readText(dir() / "steered"));
    std::set<std::string> found;
    for (std::string line; std::getline(lines, line);) {
      found.insert(line);
    }
    return found;
  };
  EXPECT_TRUE(testing::eventually([&] {
    return steered() ==
           std::set<std::string>{"-clustername A Cluster -jobid 7 -pause -query 1 -timeout 1",
                                 "-clustername B -jobid 9 -kill -query 1 -timeout 1"};
  }));
  EXPECT_THROW(harness.call("qmasterJobResume:", {Value("not a list")}), ArgumentError);

  harness.call("qmasterStopSharing");
  harness.call("qmasterResetServices");
  EXPECT_THAT(testing::readText(dir() / "prefs.runs"),
              ::testing::HasSubstr("-stopSharing\n-resetCluster cancelJobs\n"));
}

} // namespace
} // namespace kestrin::operations
