// Applications and render clusters of a real agent over loopback: qmasterJobs over 16 clusters
// whose Batch Monitor takes 200 ms each (the workers must overlap: against 16 × 200 ms), and
// finalCutStudioAppInfo with 500 more processes running on the machine.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include "SpawnedAgent.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using kestrin::plist::Value;

constexpr int kClusters = 16;

// Fifteen clusters beside "This Computer", and a Batch Monitor that takes 200 ms to answer.
void installRenderTools(const fs::path& dir) {
  fs::path qmasterprefs = dir / "qmasterprefs";
  std::ofstream prefs(qmasterprefs);
  prefs << "#!/bin/sh\necho 'list";
  for (int i = 1; i < kClusters; ++i) {
    prefs << " -cluster on servername \"Farm " << i << "\"";
  }
  prefs << "'\n";
  prefs.close();
  fs::permissions(qmasterprefs, fs::perms::owner_all);
  fs::path bundle = dir / "root/Applications/Batch Monitor.app";
  fs::create_directories(bundle / "Contents/MacOS");
  std::ofstream(bundle / "Contents/Info.plist")
      << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
         "<string>com.apple.BatchMonitor</string></dict></plist>\n";
  std::ofstream(bundle / "Contents/MacOS/Batch Monitor")
      << "#!/bin/sh\nsleep 0.2\necho '<s><batchStatus batchid=\"1\"/><jobStatus batchid=\"1\" "
         "jobid=\"1\"/></s>'\n";
  fs::permissions(bundle / "Contents/MacOS/Batch Monitor", fs::perms::owner_all);
}

kestrin::transport::RpcClient* agent() {
  static kestrin::bench::AgentOnMachine agent(KESTRIN_AGENT_PATH, [](const fs::path& dir) {
    installRenderTools(dir);
    return std::vector<std::string>{"KESTRIN_TOOL_QMASTERPREFS=" + (dir / "qmasterprefs").string()};
  });
  return agent.client();
}

void QmasterJobs_16Clusters(benchmark::State& state) {
  auto* client = agent();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  for (auto _ : state) {
    Value jobs = client->root()->invoke("qmasterJobs", {});
    if (!jobs.asDictionary() || jobs.asDictionary()->size() != kClusters) {
      state.SkipWithError("not every cluster answered");
      return;
    }
  }
  state.counters["sequential_ms"] = kClusters * 200.0;
}
BENCHMARK(QmasterJobs_16Clusters)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void FinalCutStudioAppInfo_500Processes(benchmark::State& state) {
  auto* client = agent();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  std::vector<pid_t> sleepers;
  char sleep[] = "/bin/sleep";
  char seconds[] = "120";
  char* argv[] = {sleep, seconds, nullptr};
  for (int i = 0; i < 500; ++i) {
    pid_t pid = -1;
    if (::posix_spawn(&pid, sleep, nullptr, nullptr, argv, nullptr) == 0) {
      sleepers.push_back(pid);
    }
  }
  for (auto _ : state) {
    Value records = client->root()->invoke("finalCutStudioAppInfo", {});
    benchmark::DoNotOptimize(records);
  }
  for (pid_t pid : sleepers) { // ours, by pid
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
  }
}
BENCHMARK(FinalCutStudioAppInfo_500Processes)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
