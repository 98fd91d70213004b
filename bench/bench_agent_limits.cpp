// What the transport's limits cost on the common path and what they bound, on a real agent
// process: its resident memory when idle, the latency of `ping` from one admin, and its peak
// resident memory while N peers at once each send the largest call the limits allow (one data
// argument of 64 MiB less the message's envelope, to a selector the agent refuses only after
// decoding, so every byte is read and decoded).
//
// KESTRIN_BENCH_BASELINE_AGENT names the agent of an earlier build to compare with in the same
// run: both run side by side and the pings alternate between them, so that both see the same
// load on the machine.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>

#include "ScratchDir.h"
#include "SpawnedAgent.h"
#include "transport/RpcClient.h"
#include "transport/remote.capnp.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// One agent on a throwaway machine for the whole run; ended at exit.
class BenchAgent {
public:
  // The agent built with this benchmark.
  static BenchAgent& current() {
    static BenchAgent agent(KESTRIN_AGENT_PATH);
    return agent;
  }
  // The agent to compare with, when KESTRIN_BENCH_BASELINE_AGENT names one.
  static BenchAgent* baseline() {
    static std::unique_ptr<BenchAgent> agent = [] {
      const char* path = std::getenv("KESTRIN_BENCH_BASELINE_AGENT");
      return path != nullptr ? std::unique_ptr<BenchAgent>(new BenchAgent(path)) : nullptr;
    }();
    return agent.get();
  }
  pid_t pid() const { return agent_->pid(); }
  int port() const { return agent_->port(); }

  // A field of the agent's /proc status in kB ("VmRSS", "VmHWM").
  long statusKb(const std::string& field) const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind(field + ":", 0) == 0) {
        return std::stol(line.substr(field.size() + 1));
      }
    }
    return -1;
  }
  void resetPeak() const { std::ofstream("/proc/" + std::to_string(pid()) + "/clear_refs") << "5"; }

private:
  explicit BenchAgent(const std::string& program) {
    const auto& dir = scratch_.path();
    std::filesystem::create_directories(dir / "home");
    std::filesystem::create_directories(dir / "root");
    agent_ = std::make_unique<kestrin::bench::SpawnedAgent>(
        program,
        kestrin::bench::SpawnedAgent::Folders{dir / "home", dir / "root", dir, dir / "agent.out"});
    std::this_thread::sleep_for(2s); // start-up work (application scan, settings) settles
  }

  kestrin::bench::ScratchDir scratch_;
  std::unique_ptr<kestrin::bench::SpawnedAgent> agent_; // ended before the folders go
};

std::unique_ptr<kestrin::transport::RpcClient> connectTo(const BenchAgent& agent) {
  if (agent.port() == 0) {
    return nullptr;
  }
  auto client = kestrin::transport::RpcClient::connectTcp("127.0.0.1", agent.port(), 10s);
  return client.ok() ? std::move(*client) : nullptr;
}

// Resident memory of the idle agent, with one admin connected: what the budgets cost at rest.
void BM_AgentIdleResident(benchmark::State& state) {
  BenchAgent* baseline = BenchAgent::baseline();
  auto client = connectTo(BenchAgent::current());
  auto baselineClient = baseline != nullptr ? connectTo(*baseline) : nullptr;
  if (!client || (baseline != nullptr && !baselineClient)) {
    state.SkipWithError("an agent did not start");
    return;
  }
  client->root()->invoke("ping", {});
  if (baselineClient) {
    baselineClient->root()->invoke("ping", {});
  }
  for (auto _ : state) {
    std::this_thread::sleep_for(100ms);
  }
  state.counters["rss_mb"] = static_cast<double>(BenchAgent::current().statusKb("VmRSS")) / 1024;
  if (baseline != nullptr) {
    state.counters["baseline_rss_mb"] = static_cast<double>(baseline->statusKb("VmRSS")) / 1024;
  }
}
BENCHMARK(BM_AgentIdleResident)->Iterations(5)->Unit(benchmark::kMillisecond);

double percentile(std::vector<double>& values, int percent) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() * static_cast<std::size_t>(percent) / 100];
}

// One admin's `ping`, round trip: the common path that every budget check sits on. With a
// baseline, each iteration pings both agents in turn.
void BM_AgentPing(benchmark::State& state) {
  BenchAgent* baseline = BenchAgent::baseline();
  auto client = connectTo(BenchAgent::current());
  auto baselineClient = baseline != nullptr ? connectTo(*baseline) : nullptr;
  if (!client || (baseline != nullptr && !baselineClient)) {
    state.SkipWithError("an agent did not start");
    return;
  }
  auto timed = [](const kestrin::plist::ObjectRef& root, std::vector<double>& latencies) {
    auto start = Clock::now();
    root->invoke("ping", {});
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  };
  std::vector<double> latencies;
  std::vector<double> baselineLatencies;
  for (auto _ : state) {
    timed(client->root(), latencies);
    if (baselineClient) {
      timed(baselineClient->root(), baselineLatencies);
    }
  }
  state.counters["median_us"] = percentile(latencies, 50);
  state.counters["p99_us"] = percentile(latencies, 99);
  if (baselineClient) {
    state.counters["baseline_median_us"] = percentile(baselineLatencies, 50);
    state.counters["baseline_p99_us"] = percentile(baselineLatencies, 99);
  }
}
BENCHMARK(BM_AgentPing)->Iterations(20000)->Unit(benchmark::kMicrosecond);

// The largest call, framed once and sent by every peer from the same bytes, so that the
// benchmark's own memory does not grow with the number of peers.
struct LargestCall {
  kj::Array<capnp::word> bootstrap;
  kj::Array<capnp::word> call;

  static const LargestCall& shared() {
    static LargestCall messages;
    return messages;
  }

private:
  LargestCall() {
    capnp::MallocMessageBuilder boot;
    boot.initRoot<capnp::rpc::Message>().initBootstrap().setQuestionId(0);
    bootstrap = capnp::messageToFlatArray(boot);

    constexpr std::size_t kData = (std::size_t{64} << 20) - (8 << 10);
    capnp::MallocMessageBuilder message(kData / sizeof(capnp::word) + 1024);
    auto call = message.initRoot<capnp::rpc::Message>().initCall();
    call.setQuestionId(1);
    call.getTarget().initPromisedAnswer().setQuestionId(0);
    call.setInterfaceId(capnp::typeId<kestrin::transport::wire::RemoteObject>());
    call.setMethodId(0);
    auto params = call.initParams()
                      .getContent()
                      .initAs<kestrin::transport::wire::RemoteObject::InvokeParams>();
    params.setSelector("benchmarkTakeData:");
    params.initArguments(1)[0].initData(kData);
    this->call = capnp::messageToFlatArray(message);
  }
};

bool sendAll(int fd, kj::ArrayPtr<const kj::byte> bytes) {
  while (bytes.size() > 0) {
    ssize_t n = ::send(fd, bytes.begin(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) {
      return false;
    }
    bytes = bytes.slice(static_cast<std::size_t>(n), bytes.size());
  }
  return true;
}

// Sends the largest call on a connection of its own; answers the name the agent raised ("" for
// a plain answer, "failed" when the connection broke).
std::string sendLargestCall(int port) {
  const LargestCall& messages = LargestCall::shared();
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  std::string outcome = "failed";
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      sendAll(fd, messages.bootstrap.asBytes()) && sendAll(fd, messages.call.asBytes())) {
    try {
      for (;;) {
        capnp::StreamFdMessageReader reader(fd);
        auto message = reader.getRoot<capnp::rpc::Message>();
        if (message.isReturn() && message.getReturn().getAnswerId() == 1) {
          auto answer = message.getReturn();
          if (answer.isResults()) {
            auto results = answer.getResults()
                               .getContent()
                               .getAs<kestrin::transport::wire::RemoteObject::InvokeResults>();
            outcome = results.getRaised().getName().cStr();
          }
          break;
        }
      }
    } catch (const kj::Exception&) {
      outcome = "failed";
    }
  }
  ::close(fd);
  return outcome;
}

// N peers at once, each with the largest call: the agent's peak resident memory, and how many
// calls it served or refused. The second argument picks the baseline agent (1) instead.
void BM_AgentPeakResidentUnderLargestCalls(benchmark::State& state) {
  BenchAgent* chosen = state.range(1) == 0 ? &BenchAgent::current() : BenchAgent::baseline();
  if (chosen == nullptr || chosen->port() == 0) {
    state.SkipWithError("no such agent");
    return;
  }
  BenchAgent& agent = *chosen;
  int peers = static_cast<int>(state.range(0));
  LargestCall::shared();
  std::mutex mutex;
  int served = 0;
  int busy = 0;
  int failed = 0;
  long idleKb = agent.statusKb("VmRSS");
  long peakKb = 0;
  for (auto _ : state) {
    agent.resetPeak();
    std::vector<std::thread> threads;
    for (int i = 0; i < peers; ++i) {
      threads.emplace_back([&] {
        std::string outcome = sendLargestCall(agent.port());
        std::lock_guard lock(mutex);
        if (outcome == "NSInvalidArgumentException") {
          ++served; // decoded, then refused as an unknown selector
        } else if (outcome == "KestrinBusyException") {
          ++busy;
        } else {
          ++failed;
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
    peakKb = std::max(peakKb, agent.statusKb("VmHWM"));
  }
  state.counters["idle_rss_mb"] = static_cast<double>(idleKb) / 1024.0;
  state.counters["peak_rss_mb"] = static_cast<double>(peakKb) / 1024.0;
  state.counters["served"] = served;
  state.counters["busy"] = busy;
  state.counters["failed"] = failed;
}
BENCHMARK(BM_AgentPeakResidentUnderLargestCalls)
    ->Args({8, 0})
    ->Args({64, 0})
    ->Args({8, 1})
    ->Args({64, 1})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
