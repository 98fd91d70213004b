// Lines per second through QVLog, end to end (queued and on disk), and the round trip of a
// short line from a worker thread, which waits until the writer has written it.
#include "foundation/QVLog.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "ScratchDir.h"

namespace {

using kestrin::QVLog;
namespace fs = std::filesystem;

// Log settings that write into a throwaway folder.
QVLog::Config configIn(const kestrin::bench::ScratchDir& scratch) {
  QVLog::Config c;
  c.userLogDirectory = (scratch.path() / "Logs").string();
  c.rootLogDirectory = (scratch.path() / "RootLogs").string();
  c.globalPrefsPath = (scratch.path() / "com.quorvane.global.plist").string();
  c.defaultAppName = "Bench";
  return c;
}

// A typical progress line of the agent, about 60 characters.
std::string lineText(int thread, int i) {
  return "Backing up preference set " + std::to_string(i) + " for worker " +
         std::to_string(thread) + "...";
}

constexpr int kLinesPerRound = 8000;

void BM_LogLinesFromMainThread(benchmark::State& state) {
  kestrin::bench::ScratchDir scratch;
  auto config = configIn(scratch);
  config.mainThread = std::this_thread::get_id();
  QVLog log(config);
  log.newLog("Bench");
  for (auto _ : state) {
    for (int i = 0; i < kLinesPerRound; ++i) {
      log.log(lineText(0, i));
    }
    log.flush();
  }
  state.SetItemsProcessed(state.iterations() * kLinesPerRound);
}
BENCHMARK(BM_LogLinesFromMainThread)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_LogLinesFrom4WorkerThreads(benchmark::State& state) {
  constexpr int kThreads = 4;
  kestrin::bench::ScratchDir scratch;
  QVLog log(configIn(scratch)); // the benchmark's own thread is the main thread here
  log.newLog("Bench");
  for (auto _ : state) {
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
      workers.emplace_back([&log, t] {
        for (int i = 0; i < kLinesPerRound / kThreads; ++i) {
          log.log(lineText(t, i));
        }
      });
    }
    for (auto& worker : workers) {
      worker.join();
    }
    log.flush();
  }
  state.SetItemsProcessed(state.iterations() * kLinesPerRound);
}
BENCHMARK(BM_LogLinesFrom4WorkerThreads)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShortLogFromWorkerThreadLatency(benchmark::State& state) {
  kestrin::bench::ScratchDir scratch;
  auto config = configIn(scratch);
  config.mainThread = std::thread::id(); // no thread is the main thread: every call waits
  QVLog log(config);
  log.newLog("Bench");
  int i = 0;
  for (auto _ : state) {
    log.log("Step " + std::to_string(i++) + " done");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ShortLogFromWorkerThreadLatency)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
