// How quickly the agent lets the machine sleep and serves again after waking: from
// PrepareForSleep(true) to the release of its delay lock (its service stopped first), and from
// PrepareForSleep(false) to its port taking connections again. The baseline is the least any
// program can do on the same bus: a bare client that only closes its lock on sleep, and on
// waking only opens a listening socket. The difference is the agent's own stop and start.
//
// Needs its own /run/systemd and root:
//   tests/scripts/with-private-login build/bench/bench_system_events

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <thread>

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/socket.h>
#include <unistd.h>

#include "RunningAgent.h"
#include "fixtures/FakeLogind.h"
#include "fixtures/PrivateBus.h"
#include "platform/FileDescriptor.h"
#include "plist/PropertyList.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::platform::FileDescriptor;
using kestrin::testing::FakeLogind;
using kestrin::testing::PrivateBus;
using Clock = std::chrono::steady_clock;

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

using kestrin::testing::accepting;

void waitUntilAccepting(int port) {
  while (!accepting(port)) {
    std::this_thread::sleep_for(200us);
  }
}

// The least a program holding a delay lock does: close it on sleep; on waking, take a new one
// and listen again.
class BareClient {
public:
  explicit BareClient(int port)
      : port_(port), connection_(sdbus::createSystemBusConnection()),
        manager_(
            sdbus::createProxy(*connection_, "org.freedesktop.login1", "/org/freedesktop/login1")) {
    awake();
    slot_ = connection_->addMatch(
        "type='signal',interface='org.freedesktop.login1.Manager',member='PrepareForSleep'",
        [this](sdbus::Message& message) {
          bool starting = false;
          message >> starting;
          if (starting) {
            listening_.reset();
            lock_ = {};
          } else {
            awake();
          }
        });
    connection_->enterEventLoopAsync();
  }
  ~BareClient() { connection_->leaveEventLoop(); }

private:
  void awake() {
    manager_->callMethod("Inhibit")
        .onInterface("org.freedesktop.login1.Manager")
        .withArguments(std::string("sleep:shutdown"), std::string("bench"), std::string("bench"),
                       std::string("delay"))
        .storeResultsTo(lock_);
    listening_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    ::setsockopt(listening_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(port_);
    ::bind(listening_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listening_.get(), 16);
  }

  int port_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> manager_;
  sdbus::Slot slot_;
  sdbus::UnixFd lock_;
  FileDescriptor listening_;
};

// A private system bus and login manager, with the agent (or the bare client) on them.
struct Machine {
  explicit Machine(bool withAgent) : logind(::getuid()) {
    if (withAgent) {
      fs::path settings = "/root/Library/Preferences/com.quorvane.Kestrin.plist";
      fs::create_directories(settings.parent_path());
      (void)kestrin::plist::writeFile(settings, kestrin::plist::Value(kestrin::plist::Dictionary{
                                                    {"customPortSet", 1}, {"customPort", port}}));
      agent.emplace(fs::path{},
                    std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()}});
    } else {
      client.emplace(port);
    }
    logind.waitForLocksHeld(1, 30s);
    waitUntilAccepting(port);
  }

  int port = kestrin::testing::freePort();
  PrivateBus bus{PrivateBus::Kind::System};
  FakeLogind logind;
  std::optional<kestrin::testing::RunningAgent> agent;
  std::optional<BareClient> client;
};

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void sleepToLockReleased(benchmark::State& state, bool withAgent) {
  Machine machine(withAgent);
  for (auto _ : state) {
    auto start = Clock::now();
    machine.logind.prepareForSleep(true);
    if (!machine.logind.waitForLocksHeld(0, 10s)) {
      state.SkipWithError("the lock was not released");
      break;
    }
    state.SetIterationTime(since(start));
    machine.logind.prepareForSleep(false);
    machine.logind.waitForLocksHeld(1, 10s);
    waitUntilAccepting(machine.port);
  }
}

void wakeToPortAccepting(benchmark::State& state, bool withAgent) {
  Machine machine(withAgent);
  for (auto _ : state) {
    machine.logind.prepareForSleep(true);
    machine.logind.waitForLocksHeld(0, 10s);
    while (accepting(machine.port)) {
      std::this_thread::sleep_for(200us);
    }
    auto start = Clock::now();
    machine.logind.prepareForSleep(false);
    waitUntilAccepting(machine.port);
    state.SetIterationTime(since(start));
    machine.logind.waitForLocksHeld(1, 10s);
  }
}

void BM_Agent_SleepToLockReleased(benchmark::State& state) {
  sleepToLockReleased(state, true);
}
void BM_BareClient_SleepToLockReleased(benchmark::State& state) {
  sleepToLockReleased(state, false);
}
void BM_Agent_WakeToPortAccepting(benchmark::State& state) {
  wakeToPortAccepting(state, true);
}
void BM_BareClient_WakeToPortAccepting(benchmark::State& state) {
  wakeToPortAccepting(state, false);
}

BENCHMARK(BM_Agent_SleepToLockReleased)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareClient_SleepToLockReleased)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Agent_WakeToPortAccepting)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareClient_WakeToPortAccepting)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  if (std::getenv("KESTRIN_PRIVATE_LOGIN") == nullptr) {
    std::fputs("run it through tests/scripts/with-private-login\n", stderr);
    return 77;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
