// What the remote interface adds to running one of the maker's tasks: executeTask:bundleID:
// options: called over loopback TCP on a real agent process, against running the same tool
// directly in this process. The tool exits at once, so the difference is the agent's own cost
// (the call, the application lookup, reading the bundle's files) plus the transport.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ScratchDir.h"
#include "SpawnedAgent.h"
#include "foundation/QVTaskEx.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::plist::Value;

// A throwaway machine with one maker's application whose task is /bin/true, and the agent
// running on it. Shared by every benchmark of the run; ended at exit.
class BenchAgent {
public:
  static BenchAgent& shared() {
    static BenchAgent agent;
    return agent;
  }
  kestrin::transport::RpcClient* client() const { return agent_->client(); }
  const std::string& tool() const { return tool_; }

private:
  BenchAgent() {
    const fs::path& dir = scratch_.path();
    fs::path bundle = dir / "root/Applications/Quorvane/Tibbet.app";
    fs::create_directories(bundle / "Contents/MacOS");
    fs::create_directories(bundle / "Contents/Resources");
    fs::create_directories(dir / "home");
    (void)kestrin::plist::writeFile(
        bundle / "Contents/Info.plist",
        Value(kestrin::plist::Dictionary{{"CFBundleIdentifier", "com.quorvane.Tibbet"},
                                         {"CFBundleName", "Tibbet"}}));
    (void)kestrin::plist::writeFile(bundle / "Contents/QVUpdates.plist",
                                    Value(kestrin::plist::Dictionary{}));
    kestrin::plist::Array tasks{
        kestrin::plist::Dictionary{{"id", "now"}, {"command", kestrin::plist::Array{"--now"}}}};
    (void)kestrin::plist::writeFile(bundle / "Contents/Resources/QVTasks.plist",
                                    Value(kestrin::plist::Dictionary{{"QVTasks", tasks}}));
    tool_ = (bundle / "Contents/MacOS/Tibbet").string();
    fs::copy_file("/bin/true", tool_);

    agent_ = std::make_unique<kestrin::bench::SpawnedAgent>(
        KESTRIN_AGENT_PATH,
        kestrin::bench::SpawnedAgent::Folders{dir / "home", dir / "root", dir, dir / "agent.out"});
  }

  kestrin::bench::ScratchDir scratch_;
  std::string tool_;
  std::unique_ptr<kestrin::bench::SpawnedAgent> agent_; // ended before the folders go
};

void ExecuteTask_Remote(benchmark::State& state) {
  auto* client = BenchAgent::shared().client();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = client->root();
  std::vector<Value> arguments{Value("now"), Value("com.quorvane.Tibbet"),
                               Value(kestrin::plist::Array{"--fast"})};
  for (auto _ : state) {
    benchmark::DoNotOptimize(root->invoke("executeTask:bundleID:options:", arguments));
  }
}
BENCHMARK(ExecuteTask_Remote)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same tool with the same arguments, run here.
void ExecuteTask_Direct(benchmark::State& state) {
  const std::string& tool = BenchAgent::shared().tool();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrin::QVTaskEx::terminationCodeFromTask(
        tool, {"--now", "--fast"}, kestrin::QVTaskEx::TimeLimit{30.0}));
  }
}
BENCHMARK(ExecuteTask_Direct)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
