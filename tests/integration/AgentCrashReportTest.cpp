// The agent's own crash reports: a test build of the agent told to crash writes its report and
// dies by the signal, and the next start (of the shipped agent) reports it once.

#include <regex>

#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/TempDir.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::AgentProcess;
using ::testing::HasSubstr;
using testing::readText;
using testing::RecordingObject;

class AgentCrashReport : public ::testing::Test {
protected:
  AgentCrashReport() {
    fs::create_directories(home());
    fs::create_directories(dir.path() / "root");
    fs::create_directories(dir.path() / "run");
  }

  fs::path home() const { return dir.path() / "home"; }
  fs::path trigger() const { return dir.path() / "crash-now"; }
  fs::path crashFolder() const { return home() / "Library/Logs/CrashReporter"; }

  std::unique_ptr<AgentProcess> start(const char* executable, const std::string& name) {
    std::map<std::string, std::string> environment{
        {"HOME", home().string()},
        {"KESTRIN_ROOT", (dir.path() / "root").string()},
        {"XDG_RUNTIME_DIR", (dir.path() / "run").string()},
        {"PATH", "/usr/bin:/bin"},
        {"KESTRIN_TEST_CRASH_TRIGGER", trigger().string()}};
    for (const char* variable : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      if (const char* value = std::getenv(variable)) {
        environment[variable] = value;
      }
    }
    output = dir.path() / (name + ".out");
    return std::make_unique<AgentProcess>(executable, std::vector<std::string>{}, environment,
                                          output);
  }
  std::unique_ptr<transport::RpcClient> connect() {
    int port = 0;
    testing::eventually([&] {
      std::string text = readText(output);
      auto at = text.rfind("Listening on port ");
      if (at != std::string::npos) {
        port = std::atoi(text.c_str() + at + 18);
      }
      return port != 0;
    });
    EXPECT_NE(port, 0) << readText(output);
    auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    EXPECT_TRUE(client.ok()) << client.message();
    return client ? std::move(*client) : nullptr;
  }
  std::vector<fs::path> reports() const {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(crashFolder(), error)) {
      found.push_back(entry.path());
    }
    return found;
  }
  // The configuration an admin receives on connecting.
  static plist::Dictionary fetched(transport::RpcClient& client) {
    auto receiver =
        std::make_shared<RecordingObject>(std::set<std::string>{"processConfiguration:"});
    client.root()->invoke("fetchInitialConfiguration:", {plist::ObjectRef(receiver)});
    auto calls = receiver->calls();
    return calls.size() == 1 ? *calls[0].arguments.at(0).asDictionary() : plist::Dictionary{};
  }

  testing::TempDir dir;
  fs::path output;
};

TEST_F(AgentCrashReport, ACrashLeavesAReadableReportThatTheNextStartReportsOnce) {
  auto crashing = start(KESTRIN_CRASHING_AGENT, "crashing");
  auto client = connect();
  ASSERT_TRUE(client);
  client->root()->invoke("gatherLogs", {}); // a line of its own for the report to quote
  client.reset();
  testing::writeText(trigger(), "segv");
  auto status = crashing->waitForExit(20s);
  ASSERT_TRUE(status.has_value()) << readText(output);
  ASSERT_TRUE(WIFSIGNALED(*status)) << *status;
  EXPECT_EQ(WTERMSIG(*status), SIGSEGV);

  auto written = reports();
  ASSERT_EQ(written.size(), 1u);
  EXPECT_TRUE(std::regex_match(written[0].filename().string(),
                               std::regex(R"(Kestrin_\d{4}-\d\d-\d\d-\d{6}_[^/]+\.crash)")))
      << written[0];
  std::string report = readText(written[0]);
  EXPECT_THAT(report, HasSubstr("Identifier:      com.quorvane.Kestrin\n"));
  EXPECT_THAT(report, HasSubstr("(" KESTRIN_BUNDLE_VERSION ")\n"));
  EXPECT_THAT(report, HasSubstr("Exception Type:  SIGSEGV (Segmentation fault)\n"
                                "Exception Codes: SEGV_MAPERR at 0x0000000000000010\n"));
  EXPECT_THAT(report, HasSubstr("/Kestrin.app/Contents/MacOS/Kestrin("));
  EXPECT_THAT(report, HasSubstr(" - Gathering logs...\n"));

  // The service manager would restart it; here the shipped agent starts in its place.
  auto next = start(KESTRIN_AGENT_PATH, "next");
  client = connect();
  ASSERT_TRUE(client);
  plist::Dictionary first = fetched(*client);
  ASSERT_NE(first.find("selfCrashLog"), nullptr) << readText(output);
  EXPECT_EQ(*first.find("selfCrashLog"), Value(report));
  EXPECT_EQ(fetched(*client).find("selfCrashLog"), nullptr);
  Value gathered = client->root()->invoke("gatherLogs", {});
  ASSERT_NE(gathered.asDictionary(), nullptr);
  EXPECT_NE(gathered.get(written[0].string()), nullptr);
}

} // namespace
} // namespace kestrin
