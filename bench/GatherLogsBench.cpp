// gatherLogs over the wire against reading the same files here: a real agent process on a
// throwaway machine holding five full logs (500,000 bytes each, where the agent starts a new
// one) and 20 crash reports of 8 KiB, called over loopback TCP; and the same files read into
// memory by this process. The difference is what the agent and the transport add to the disk.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ScratchDir.h"
#include "SpawnedAgent.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::plist::Value;

constexpr int kLogs = 5;
constexpr std::size_t kLogBytes = 500'000;
constexpr int kReports = 20;
constexpr std::size_t kReportBytes = 8 * 1024;

void writeFile(const fs::path& path, std::size_t bytes, char fill) {
  fs::create_directories(path.parent_path());
  std::string line(99, fill);
  line += '\n';
  std::ofstream out(path, std::ios::binary);
  for (std::size_t written = 0; written < bytes; written += line.size()) {
    out.write(line.data(), static_cast<std::streamsize>(std::min(line.size(), bytes - written)));
  }
}

// The machine and the agent on it, shared by both benchmarks; ended at exit.
class BenchAgent {
public:
  static BenchAgent& shared() {
    static BenchAgent agent;
    return agent;
  }
  kestrin::transport::RpcClient* client() const { return agent_->client(); }
  // The folders that gatherLogs reads, with the name rule of each.
  std::vector<std::pair<fs::path, std::regex>> folders() const {
    std::vector<std::pair<fs::path, std::regex>> found;
    for (const fs::path& library :
         {scratch_.path() / "home/Library", scratch_.path() / "root/Library"}) {
      found.emplace_back(library / "Logs/Quorvane", std::regex(R"(.*\.log)"));
      found.emplace_back(library / "Logs/CrashReporter", std::regex(R"(Kestrin_.*\.crash)"));
    }
    return found;
  }

private:
  BenchAgent() {
    const fs::path& dir = scratch_.path();
    // Another of the maker's applications: the agent rotates its own log at start-up.
    for (int n = 1; n <= kLogs; ++n) {
      writeFile(dir / ("home/Library/Logs/Quorvane/Tibbet." + std::to_string(n) + ".log"),
                kLogBytes, 'l');
    }
    for (int n = 0; n < kReports; ++n) {
      writeFile(dir / ("home/Library/Logs/CrashReporter/Kestrin_2026-11-" + std::to_string(10 + n) +
                       "-120000_studio.crash"),
                kReportBytes, 'c');
    }
    fs::create_directories(dir / "root");

    agent_ = std::make_unique<kestrin::bench::SpawnedAgent>(
        KESTRIN_AGENT_PATH,
        kestrin::bench::SpawnedAgent::Folders{dir / "home", dir / "root", dir, dir / "agent.out"});
  }

  kestrin::bench::ScratchDir scratch_;
  std::unique_ptr<kestrin::bench::SpawnedAgent> agent_; // ended before the folders go
};

std::int64_t totalBytes(const Value& gathered) {
  std::int64_t total = 0;
  if (const auto* logs = gathered.asDictionary()) {
    for (const auto& [path, bytes] : *logs) {
      total += bytes.asData() ? static_cast<std::int64_t>(bytes.asData()->size()) : 0;
    }
  }
  return total;
}

void GatherLogs_Remote(benchmark::State& state) {
  auto* client = BenchAgent::shared().client();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = client->root();
  std::int64_t bytes = 0;
  for (auto _ : state) {
    Value gathered = root->invoke("gatherLogs", {});
    bytes = totalBytes(gathered);
    benchmark::DoNotOptimize(gathered);
  }
  state.counters["files_bytes"] = static_cast<double>(bytes);
  state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(GatherLogs_Remote)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same folders and name rules, each file read whole into memory by this process.
void GatherLogs_Local(benchmark::State& state) {
  auto folders = BenchAgent::shared().folders();
  std::int64_t bytes = 0;
  for (auto _ : state) {
    std::map<std::string, std::vector<char>> gathered;
    bytes = 0;
    for (const auto& [folder, rule] : folders) {
      std::error_code error;
      for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (!entry.is_regular_file() || !std::regex_match(entry.path().filename().string(), rule)) {
          continue;
        }
        std::ifstream in(entry.path(), std::ios::binary | std::ios::ate);
        std::vector<char> contents(static_cast<std::size_t>(in.tellg()));
        in.seekg(0);
        in.read(contents.data(), static_cast<std::streamsize>(contents.size()));
        bytes += static_cast<std::int64_t>(contents.size());
        gathered.emplace(entry.path().string(), std::move(contents));
      }
    }
    benchmark::DoNotOptimize(gathered);
  }
  state.counters["files_bytes"] = static_cast<double>(bytes);
  state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(GatherLogs_Local)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
