// The software-update count over the wire, answered from the agent's cache against one that
// runs the updater (forced): a real agent on a throwaway machine whose updater prints a list
// of 20 updates.

#include <filesystem>
#include <fstream>
#include <memory>

#include <benchmark/benchmark.h>

#include "SpawnedAgent.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using kestrin::plist::Value;

// Its updater prints a list of 20 updates.
void installUpdater(const fs::path& dir) {
  fs::path bundle = dir / "root/Applications/Quorvane/Quorvane Software Update.app";
  fs::create_directories(bundle / "Contents/MacOS");
  std::ofstream(bundle / "Contents/Info.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>CFBundleIdentifier</key><string>com.quorvane.SoftwareUpdate</string>"
         "<key>CFBundleVersion</key><string>1300</string></dict></plist>\n";
  fs::path exe = bundle / "Contents/MacOS/Quorvane Software Update";
  std::ofstream script(exe);
  script << "#!/bin/sh\nprintf '<plist version=\"1.0\"><dict><key>updates</key><array>";
  for (int i = 0; i < 20; ++i) {
    script << "<dict><key>bundleid</key><string>com.quorvane.Tool" << i << "</string></dict>";
  }
  script << "</array></dict></plist>'\n";
  script.close();
  fs::permissions(exe, fs::perms::owner_all);
}

kestrin::transport::RpcClient* agent() {
  static kestrin::bench::AgentOnMachine agent(KESTRIN_AGENT_PATH, [](const fs::path& dir) {
    installUpdater(dir);
    return std::vector<std::string>{};
  });
  return agent.client();
}

void count(benchmark::State& state, bool force) {
  auto* client = agent();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = client->root();
  root->invoke("softwareUpdateAvailableUpdateCount:", {Value(true)}); // a cache to answer from
  for (auto _ : state) {
    Value answer = root->invoke("softwareUpdateAvailableUpdateCount:", {Value(force)});
    if (answer != Value(20)) {
      state.SkipWithError("the count is not 20");
      return;
    }
  }
}

void Count_Cached(benchmark::State& state) {
  count(state, false);
}
void Count_RunningTheUpdater(benchmark::State& state) {
  count(state, true);
}
BENCHMARK(Count_Cached)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(Count_RunningTheUpdater)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
