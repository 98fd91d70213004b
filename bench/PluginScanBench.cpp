// The plug-in inventory over a tree of 10,000 plug-ins (half bundles with an Info.plist, half
// plain files, in 50 vendor folders), against find(1) with the same name filter over the same
// tree in the same run; and vantryPluginList over loopback on a real agent whose machine holds
// that tree.
//
// find walks into the bundles too (it knows no packages) but reads no Info.plist; the
// inventory reads all 5,000 of them and each entry's Finder information.

#include <csignal>
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
#include "foundation/PluginInventory.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVTaskEx.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::plist::Value;

constexpr int kVendors = 50;
constexpr int kPerVendor = 200;

// The machine: <scratch>/root is its local root, <scratch>/home its user's home.
class Machine {
public:
  static const Machine& shared() {
    static Machine machine;
    return machine;
  }
  fs::path root() const { return scratch_.path() / "root"; }
  fs::path home() const { return scratch_.path() / "home"; }
  fs::path folder() const { return root() / "Library/Plug-Ins/FxPlug"; }
  const fs::path& scratch() const { return scratch_.path(); }

private:
  Machine() {
    fs::create_directories(home());
    for (int vendor = 0; vendor < kVendors; ++vendor) {
      fs::path dir = folder() / ("Vendor" + std::to_string(vendor));
      fs::create_directories(dir);
      for (int i = 0; i < kPerVendor; ++i) {
        std::string name = "Effect" + std::to_string(i);
        if (i % 2 == 0) {
          fs::path bundle = dir / (name + ".fxplug");
          fs::create_directories(bundle / "Contents");
          (void)kestrin::plist::writeFile(
              bundle / "Contents/Info.plist",
              Value(kestrin::plist::Dictionary{{"CFBundleName", name},
                                               {"CFBundleIdentifier", "com.vendor." + name},
                                               {"CFBundleShortVersionString", "1.0"},
                                               {"CFBundleVersion", "100"}}));
        } else {
          std::ofstream(dir / (name + ".component")) << "binary";
        }
      }
    }
  }
  kestrin::bench::ScratchDir scratch_;
};

void BM_PluginInventory(benchmark::State& state) {
  const Machine& machine = Machine::shared();
  kestrin::QVLocalPaths::Machine facts;
  facts.localRoot = machine.root().string();
  facts.home = machine.home().string();
  facts.realUid = 1000;
  kestrin::QVLocalPaths paths(facts);
  kestrin::platform::Workspace workspace({}, std::nullopt);
  kestrin::PluginInventory inventory(paths, workspace);
  std::size_t found = 0;
  for (auto _ : state) {
    auto records = inventory.plugins(false);
    found = records.size();
    benchmark::DoNotOptimize(records);
  }
  state.counters["plugins"] = static_cast<double>(found);
}
BENCHMARK(BM_PluginInventory)->Unit(benchmark::kMillisecond)->UseRealTime();

// find, started as a child like every tool: its start-up is part of what it costs.
void BM_FindSameFilter(benchmark::State& state) {
  const Machine& machine = Machine::shared();
  kestrin::QVTaskEx::Arguments arguments = {machine.folder().string(), "("};
  for (const char* extension : {"txt", "fcfcc", "bundle", "fxplug", "component", "plugin", "vst"}) {
    if (arguments.back() != "(") {
      arguments.emplace_back("-o");
    }
    arguments.insert(arguments.end(), {"-iname", std::string("*.") + extension});
  }
  arguments.insert(arguments.end(), {")", "-print"});
  std::size_t lines = 0;
  for (auto _ : state) {
    auto output = kestrin::QVTaskEx::stringFromTask("/usr/bin/find", arguments,
                                                    kestrin::StringEncoding::UTF8);
    lines = output ? static_cast<std::size_t>(std::count(output->begin(), output->end(), '\n')) : 0;
  }
  state.counters["plugins"] = static_cast<double>(lines);
}
BENCHMARK(BM_FindSameFilter)->Unit(benchmark::kMillisecond)->UseRealTime();

// The agent on the same machine, listed over loopback.
class BenchAgent {
public:
  static BenchAgent& shared() {
    static BenchAgent agent;
    return agent;
  }
  kestrin::transport::RpcClient* client() const { return agent_->client(); }

private:
  BenchAgent() {
    const Machine& machine = Machine::shared();
    agent_ = std::make_unique<kestrin::bench::SpawnedAgent>(
        KESTRIN_AGENT_PATH,
        kestrin::bench::SpawnedAgent::Folders{machine.home(), machine.root(), machine.scratch(),
                                              machine.scratch() / "agent.out"},
        std::chrono::seconds(30));
  }
  std::unique_ptr<kestrin::bench::SpawnedAgent> agent_; // ended before the folders go
};

void BM_PluginListOverTheWire(benchmark::State& state) {
  auto* client = BenchAgent::shared().client();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = client->root();
  std::size_t found = 0;
  for (auto _ : state) {
    Value list = root->invoke("vantryPluginList", {});
    found = list.asArray() ? list.asArray()->size() : 0;
  }
  state.counters["plugins"] = static_cast<double>(found);
}
BENCHMARK(BM_PluginListOverTheWire)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
