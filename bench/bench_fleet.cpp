// ambrant fleet across a facility's worth of idle agents on this machine (200 unless
// KESTRIN_BENCH_FLEET says otherwise): the wall time of "fleet ping" (first contact, when every
// key is recorded, and again) and of "fleet ambrantAppInfo", against the same number of
// sequential "ambrant call"s in the same run; the agents' total memory and ambrant's peak.
//
//   ./build-rel/bench/bench_fleet

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "ScratchDir.h"
#include "SpawnedAgent.h"

namespace {

using Clock = std::chrono::steady_clock;

long rssKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::strtol(line.c_str() + 6, nullptr, 10);
    }
  }
  return 0;
}

// Runs a shell command with its output dropped; answers the seconds it took and its status.
std::pair<double, int> timed(const std::string& command) {
  auto start = Clock::now();
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  return {std::chrono::duration<double>(Clock::now() - start).count(), status};
}

} // namespace

int main() {
  using namespace kestrin::bench;
  const char* given = std::getenv("KESTRIN_BENCH_FLEET");
  int count = given != nullptr ? std::atoi(given) : 200;
  ScratchDir console;
  std::string hosts = (console.path() / "hosts").string();

  auto startedAt = Clock::now();
  std::vector<std::unique_ptr<AgentOnMachine>> agents;
  std::ofstream list(hosts);
  for (int i = 0; i < count; ++i) {
    agents.push_back(
        std::make_unique<AgentOnMachine>(KESTRIN_AGENT_PATH, [](const std::filesystem::path&) {
          return std::vector<std::string>{};
        }));
    if (agents.back()->agent().port() == 0) {
      std::cerr << "agent " << i << " did not start\n";
      return 1;
    }
    list << "127.0.0.1:" << agents.back()->agent().port() << "\n";
  }
  list.close();
  double startup = std::chrono::duration<double>(Clock::now() - startedAt).count();
  std::this_thread::sleep_for(std::chrono::seconds(2)); // their start-up work settles

  long totalKb = 0;
  for (const auto& agent : agents) {
    totalKb += rssKb(agent->agent().pid());
  }
  std::string ambrant =
      std::string("XDG_CONFIG_HOME='") + console.path().string() + "' " + KESTRIN_AMBRANT_PATH;
  std::string fleet = ambrant + " fleet --hosts '" + hosts + "' --timeout 20 ";
  auto [first, firstStatus] = timed(fleet + "ping");
  auto [ping, pingStatus] = timed(fleet + "ping");
  auto [info, infoStatus] = timed(fleet + "ambrantAppInfo");
  rusage children{};
  ::getrusage(RUSAGE_CHILDREN, &children);
  double sequential = 0;
  int sequentialFailures = 0;
  std::ifstream addresses(hosts);
  for (std::string address; std::getline(addresses, address);) {
    auto [took, status] = timed(ambrant + " call " + address + " ping --timeout 20");
    sequential += took;
    sequentialFailures += status != 0 ? 1 : 0;
  }

  std::printf("agents: %d, started in %.1f s, total RSS %.0f MB (%.1f MB each)\n", count, startup,
              totalKb / 1024.0, totalKb / 1024.0 / count);
  std::printf("fleet ping, first contact:  %.2f s (status %d)\n", first, firstStatus);
  std::printf("fleet ping:                 %.2f s (status %d)\n", ping, pingStatus);
  std::printf("fleet ambrantAppInfo:       %.2f s (status %d)\n", info, infoStatus);
  std::printf("%d sequential ambrant call ping: %.2f s (%d failed)\n", count, sequential,
              sequentialFailures);
  std::printf("ambrant peak RSS: %.1f MB\n", children.ru_maxrss / 1024.0);
  return firstStatus == 0 && pingStatus == 0 && infoStatus == 0 ? 0 : 1;
}
