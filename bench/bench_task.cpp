// QVTaskEx against the bare system calls it wraps, in one run: the cost of the runnable check,
// descriptor hygiene, the reaping protocol and the two-pipe drain. Compare each QVTaskEx
// benchmark with the Bare one of the same name.

#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/QVTaskEx.h"

namespace {

using kestrin::QVTaskEx;

constexpr const char* kTrue = "/bin/true";
constexpr const char* kHead = "/usr/bin/head";
const std::string kTenMegabytes = std::to_string(10 << 20);

void ExitStatus_QVTaskEx(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(QVTaskEx::terminationCodeFromTask(kTrue));
  }
}
BENCHMARK(ExitStatus_QVTaskEx)->Unit(benchmark::kMicrosecond);

void ExitStatus_Bare(benchmark::State& state) {
  char* argv[] = {const_cast<char*>(kTrue), nullptr};
  for (auto _ : state) {
    pid_t pid;
    if (::posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("posix_spawn failed");
      break;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(ExitStatus_Bare)->Unit(benchmark::kMicrosecond);

void TenMegabytes_QVTaskEx(benchmark::State& state) {
  for (auto _ : state) {
    auto data = QVTaskEx::dataFromTask(kHead, {"-c", kTenMegabytes, "/dev/zero"});
    if (!data || data->size() != (10u << 20)) {
      state.SkipWithError("short output");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * (10 << 20));
}
BENCHMARK(TenMegabytes_QVTaskEx)->Unit(benchmark::kMillisecond);

// One pipe on standard output, read to end of file into a growing buffer, then waitpid.
void TenMegabytes_Bare(benchmark::State& state) {
  std::string count = kTenMegabytes;
  char* argv[] = {const_cast<char*>(kHead), const_cast<char*>("-c"), count.data(),
                  const_cast<char*>("/dev/zero"), nullptr};
  for (auto _ : state) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      state.SkipWithError("pipe2 failed");
      break;
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid;
    int rc = ::posix_spawn(&pid, kHead, &actions, nullptr, argv, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
      ::close(fds[0]);
      state.SkipWithError("posix_spawn failed");
      break;
    }
    std::vector<std::uint8_t> data;
    std::uint8_t buffer[64 * 1024];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
      data.insert(data.end(), buffer, buffer + n);
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (data.size() != (10u << 20)) {
      state.SkipWithError("short output");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * (10 << 20));
}
BENCHMARK(TenMegabytes_Bare)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
