// The configuration an admin reads on first connecting, through the remote interface and
// through ambrant.

#include <fstream>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/RecordingObject.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::RecordingObject;
using testing::runAmbrant;
using testing::RunningAgent;

// A bundle of the maker's with its update-group file, found by the start-up scan.
void makeSuiteApplication(const fs::path& folder, const std::string& name,
                          const plist::Dictionary& group) {
  fs::path bundle = folder / (name + ".app");
  fs::create_directories(bundle / "Contents/MacOS");
  ASSERT_TRUE(
      plist::writeFile(bundle / "Contents/Info.plist",
                       Value(plist::Dictionary{{"CFBundleIdentifier", "com.quorvane." + name},
                                               {"CFBundleName", name}}))
          .ok());
  ASSERT_TRUE(plist::writeFile(bundle / "Contents/QVUpdates.plist", Value(group)).ok());
}

// The state a killed run leaves: a launch stamp without an exit stamp, and a crash report
// written after that launch.
void leaveKilledRun(const fs::path& root, const fs::path& home) {
  fs::create_directories(home / "Library/Preferences");
  ASSERT_TRUE(plist::writeFile(home / "Library/Preferences/com.quorvane.Kestrin.plist",
                               Value(plist::Dictionary{
                                   {"launch", plist::Date::fromUnix(::time(nullptr) - 600.0)}}))
                  .ok());
  for (const fs::path& logs : {home / "Library/Logs", root / "Library/Logs"}) {
    fs::create_directories(logs / "DiagnosticReports");
    std::ofstream(logs / "DiagnosticReports/Kestrin_2026-11-23-120000_studio.crash")
        << "Thread 0 crashed";
  }
}

class Configuration : public ::testing::Test {
protected:
  explicit Configuration(bool withSuite = true)
      : agent({}, {}, [withSuite](const fs::path& root) {
          fs::path applications = root / "Applications/Quorvane";
          makeSuiteApplication(applications, "Lintrow",
                               {{"QVGroupID", "com.quorvane.other"},
                                {"QVGroupVersion", "9"},
                                {"QVGroupVersionString", "9.0"}});
          if (withSuite) {
            makeSuiteApplication(applications, "Ambrant Admin",
                                 {{"QVGroupID", "com.quorvane.ambrant"},
                                  {"QVGroupVersion", "412"},
                                  {"QVGroupVersionString", "4.1.2"}});
          }
          leaveKilledRun(root, root.parent_path() / "home");
        }) {}

  void SetUp() override {
    port = agent.waitForPort();
    ASSERT_NE(port, 0) << testing::readText(agent.output());
    auto connected = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    ASSERT_TRUE(connected.ok()) << connected.message();
    client = std::move(*connected);
  }
  Value call(const std::string& selector, std::vector<Value> arguments = {}) {
    return client->root()->invoke(selector, std::move(arguments));
  }
  // The dictionary that fetchInitialConfiguration: hands to a receiver.
  plist::Dictionary fetched() {
    auto receiver =
        std::make_shared<RecordingObject>(std::set<std::string>{"processConfiguration:"});
    call("fetchInitialConfiguration:", {plist::ObjectRef(receiver)});
    auto calls = receiver->calls();
    EXPECT_EQ(calls.size(), 1u);
    return calls.empty() ? plist::Dictionary{} : *calls[0].arguments.at(0).asDictionary();
  }

  RunningAgent agent;
  int port = 0;
  std::unique_ptr<transport::RpcClient> client;
};

TEST_F(Configuration, TheShortFormCarriesVersionsMaintenanceAndTheSuitesVersion) {
  Value configuration = call("initialConfiguration");
  ASSERT_NE(configuration.asDictionary(), nullptr);
  EXPECT_EQ(*configuration.get("version"), Value(KESTRIN_BUNDLE_VERSION));
  EXPECT_NE(configuration.get("versionString"), nullptr);
  EXPECT_EQ(*configuration.get("maintenanceRequested"), Value(false));
  EXPECT_EQ(*configuration.get("ambrantVersion"), Value("412"));
  EXPECT_EQ(*configuration.get("ambrantVersionString"), Value("4.1.2"));
  EXPECT_EQ(*configuration.get("minAdminVersion"), Value("0"));
  EXPECT_EQ(configuration.get("preferredHostName"), nullptr); // full fetch only
  EXPECT_EQ(call("ambrantVersion"),
            Value(plist::Dictionary{{"version", "412"}, {"versionString", "4.1.2"}}));
}

TEST_F(Configuration, TheFullFetchAddsNamesAndReportsTheAgentsOwnCrashOnce) {
  plist::Dictionary first = fetched();
  ASSERT_NE(first.find("preferredHostName"), nullptr);
  EXPECT_EQ(first.find("preferredHostName")->asString()->back(), '.');
  ASSERT_NE(first.find("hostNames"), nullptr);
  EXPECT_FALSE(first.find("hostNames")->asArray()->empty());
  EXPECT_EQ(first.find("availableUpdateCount"), nullptr); // no count known yet
  ASSERT_NE(first.find("selfCrashLog"), nullptr);
  EXPECT_EQ(*first.find("selfCrashLog"), Value("Thread 0 crashed"));

  EXPECT_EQ(fetched().find("selfCrashLog"), nullptr);
}

TEST_F(Configuration, AFailingOrAbsentReceiverCostsTheCallerNothing) {
  auto failing = std::make_shared<RecordingObject>(std::set<std::string>{});
  EXPECT_NO_THROW(call("fetchInitialConfiguration:", {plist::ObjectRef(failing)}));
  auto gone = std::make_shared<RecordingObject>(std::set<std::string>{"processConfiguration:"});
  gone->die();
  EXPECT_NO_THROW(call("fetchInitialConfiguration:", {plist::ObjectRef(gone)}));
  EXPECT_NO_THROW(call("fetchInitialConfiguration:", {Value()}));
  // Still serving, and no restart of the service was scheduled.
  EXPECT_EQ(*call("initialConfiguration").get("minAdminVersion"), Value("0"));
  EXPECT_FALSE(agent.logContains("Reconnecting"));
}

TEST_F(Configuration, AmbrantPrintsTheFullConfiguration) {
  auto [status, out] = runAmbrant("config 127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(status, 0);
  EXPECT_NE(out.find("\"preferredHostName\""), std::string::npos) << out;
  EXPECT_NE(out.find("\"ambrantVersionString\":\"4.1.2\""), std::string::npos) << out;
  EXPECT_EQ(runAmbrant("config 127.0.0.1:1").first, 2);
}

class ConfigurationWithoutSuite : public Configuration {
protected:
  ConfigurationWithoutSuite() : Configuration(false) {}
};

TEST_F(ConfigurationWithoutSuite, LeavesTheSuitesVersionOut) {
  Value configuration = call("initialConfiguration");
  EXPECT_EQ(configuration.get("ambrantVersion"), nullptr);
  EXPECT_EQ(configuration.get("ambrantVersionString"), nullptr);
  EXPECT_TRUE(call("ambrantVersion").isNull());
}

} // namespace
} // namespace kestrin
