// Fetching a 50 MB preference backup: feldaneBackupData: called over loopback TCP on a real
// agent process (the bundle's ditto zips it beside the backup, the agent reads the archive,
// removes it and sends the bytes), against `zip -r` of the same folder plus reading the
// archive here. The difference is what the agent and the transport add to zipping and reading.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
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
#include "platform/FileBytes.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::plist::Value;

constexpr std::size_t kFiles = 500;
constexpr std::size_t kFileBytes = 100 * 1024; // 500 x 100 KiB: about 50 MB

// Preference files as the maker's applications write them: XML property lists of keys and
// values, the values random enough that the archive is not trivially small.
void writePreferenceFolder(const fs::path& folder) {
  std::mt19937_64 random(42);
  for (std::size_t i = 0; i < kFiles; ++i) {
    fs::path file = folder / ("Preferences/ByHost" + std::to_string(i % 10)) /
                    ("com.quorvane.setting" + std::to_string(i) + ".plist");
    fs::create_directories(file.parent_path());
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
    for (std::size_t key = 0; text.size() < kFileBytes; ++key) {
      char value[17];
      std::snprintf(value, sizeof value, "%016llx", static_cast<unsigned long long>(random()));
      text += "\t<key>RecentProjectPath" + std::to_string(key) + "</key>\n\t<string>" + value +
              "</string>\n";
    }
    std::ofstream(file) << text << "</dict>\n</plist>\n";
  }
}

// A throwaway machine holding the backup, and the agent running on it. Shared by both
// benchmarks of the run; ended at exit.
class BenchAgent {
public:
  static BenchAgent& shared() {
    static BenchAgent agent;
    return agent;
  }
  kestrin::transport::RpcClient* client() const { return agent_->client(); }
  const fs::path& backup() const { return backup_; }
  fs::path scratch() const { return scratch_.path(); }

private:
  BenchAgent() {
    const fs::path& dir = scratch_.path();
    backup_ = dir / "home/Library/Backups/Edit Suite.pmb2";
    writePreferenceFolder(backup_);
    fs::create_directories(dir / "root");
    agent_ = std::make_unique<kestrin::bench::SpawnedAgent>(
        KESTRIN_AGENT_PATH,
        kestrin::bench::SpawnedAgent::Folders{dir / "home", dir / "root", dir, dir / "agent.out"});
  }

  kestrin::bench::ScratchDir scratch_;
  fs::path backup_;
  std::unique_ptr<kestrin::bench::SpawnedAgent> agent_; // ended before the folders go
};

void FeldaneBackupData_Remote(benchmark::State& state) {
  auto& agent = BenchAgent::shared();
  if (agent.client() == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = agent.client()->root();
  std::vector<Value> arguments{Value(agent.backup().string())};
  std::size_t bytes = 0;
  for (auto _ : state) {
    Value archive = root->invoke("feldaneBackupData:", arguments);
    if (archive.asData() == nullptr) {
      state.SkipWithError("the agent sent no archive");
      return;
    }
    bytes = archive.asData()->size();
  }
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(FeldaneBackupData_Remote)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// zip -r of the same folder, then the archive read into memory and removed. zip stores the
// folder's whole path in each name, a few bytes more per entry than the agent's relative names.
void ZipAndRead_Local(benchmark::State& state) {
  auto& agent = BenchAgent::shared();
  fs::path archive = agent.scratch() / "local.zip";
  std::size_t bytes = 0;
  for (auto _ : state) {
    int status = kestrin::QVTaskEx::terminationCodeFromTask(
        "/usr/bin/zip", {"-q", "-r", archive.string(), agent.backup().string()});
    auto read = kestrin::platform::readFileBytes(archive.string(), std::size_t{1} << 30);
    if (status != 0 || !read) {
      state.SkipWithError("zip failed");
      return;
    }
    bytes = read->size();
    benchmark::DoNotOptimize(read->data());
    fs::remove(archive);
  }
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(ZipAndRead_Local)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

} // namespace

BENCHMARK_MAIN();
