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
  ~BenchAgent() {
    client_.reset();
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  kestrin::transport::RpcClient* client() const { return client_.get(); }
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

    fs::path output = dir / "agent.out";
    std::string home = "HOME=" + (dir / "home").string();
    std::string root = "KESTRIN_ROOT=" + (dir / "root").string();
    std::string runtime = "XDG_RUNTIME_DIR=" + dir.string();
    std::string path = "PATH=/usr/bin:/bin";
    char* envp[] = {home.data(), root.data(), runtime.data(), path.data(), nullptr};
    std::string agent = KESTRIN_AGENT_PATH;
    char* argv[] = {agent.data(), nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (::posix_spawn(&pid_, agent.c_str(), &actions, nullptr, argv, envp) != 0) {
      pid_ = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);

    static const std::regex listening("Listening on port ([0-9]+)\n");
    int port = 0;
    for (int i = 0; i < 1000 && port == 0 && pid_ > 0; ++i) {
      std::ifstream file(output);
      std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      std::smatch match;
      if (std::regex_search(text, match, listening)) {
        port = std::stoi(match[1]);
      } else {
        std::this_thread::sleep_for(20ms);
      }
    }
    if (port != 0) {
      auto connected = kestrin::transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
      if (connected.ok()) {
        client_ = std::move(*connected);
      }
    }
  }

  kestrin::bench::ScratchDir scratch_;
  pid_t pid_ = -1;
  std::unique_ptr<kestrin::transport::RpcClient> client_;
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
