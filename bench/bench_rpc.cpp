// Remote calls over loopback: the agent's transport (proxy -> client loop -> server loop ->
// worker thread and back) against a bare Cap'n Proto server and client of the same schema
// that answer on their loop threads, with 1, 8 and 64 clients calling at once. Also the cost
// of delivering one event to 10 registered callbacks.

#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <capnp/ez-rpc.h>

#include "foundation/Timer.h"
#include "foundation/WorkerPool.h"
#include "operations/ErrorChannel.h"
#include "operations/ExceptionGuard.h"
#include "transport/RpcClient.h"
#include "transport/RpcServer.h"
#include "transport/TlsIdentity.h"
#include "transport/TlsStream.h"
#include "transport/remote.capnp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using namespace kestrin;
using Clock = std::chrono::steady_clock;
constexpr int kPingsPerClient = 200;

class PingRoot : public plist::RemoteObject {
public:
  std::string description() const override { return "<ping>"; }
  bool respondsTo(const std::string&) override { return true; }
  plist::Value invoke(const std::string&, std::vector<plist::Value>) override { return {}; }
};

class BareEcho final : public transport::wire::RemoteObject::Server {
protected:
  kj::Promise<void> invoke(InvokeContext context) override {
    context.getResults().initResult().setNull();
    return kj::READY_NOW;
  }
  kj::Promise<void> respondsTo(RespondsToContext context) override {
    context.getResults().setResponds(true);
    return kj::READY_NOW;
  }
};

platform::FileDescriptor loopbackListener(int& port) {
  platform::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(fd.get(), 128);
  socklen_t length = sizeof address;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

// The bare server runs its own loop until told to stop.
struct BareServer {
  int port = 0;
  kj::Own<kj::CrossThreadPromiseFulfiller<void>> stop;
  std::thread thread;

  BareServer() {
    std::promise<int> ready;
    std::promise<kj::Own<kj::CrossThreadPromiseFulfiller<void>>> stopper;
    auto portFuture = ready.get_future();
    auto stopFuture = stopper.get_future();
    thread = std::thread([&ready, &stopper] {
      capnp::EzRpcServer server(kj::heap<BareEcho>(), "127.0.0.1", 0);
      auto& waitScope = server.getWaitScope();
      auto paf = kj::newPromiseAndCrossThreadFulfiller<void>();
      stopper.set_value(kj::mv(paf.fulfiller));
      ready.set_value(static_cast<int>(server.getPort().wait(waitScope)));
      paf.promise.wait(waitScope);
    });
    stop = stopFuture.get();
    port = portFuture.get();
  }
  ~BareServer() {
    stop->fulfill();
    thread.join();
  }
};

void report(benchmark::State& state, std::vector<double>& latencies, std::int64_t pings) {
  std::sort(latencies.begin(), latencies.end());
  state.SetItemsProcessed(pings);
  if (!latencies.empty()) {
    state.counters["median_us"] = latencies[latencies.size() / 2];
    state.counters["p99_us"] = latencies[latencies.size() * 99 / 100];
  }
}

// The agent's transport with TLS (as the agent runs it) or without, for the difference.
std::optional<transport::TlsServerOptions> serverTls(bool tls) {
  if (!tls) {
    return std::nullopt;
  }
  static auto context =
      transport::TlsContext::make(transport::TlsContext::Side::Server,
                                  transport::TlsIdentity::generate("bench agent").value())
          .value();
  return transport::TlsServerOptions{context};
}

transport::TlsClientOptions clientTls(bool tls) {
  static auto identity = transport::TlsIdentity::generate("bench console").value();
  return tls ? transport::TlsClientOptions{true, identity} : transport::TlsClientOptions::plain();
}

void BM_PingAgentTransport(benchmark::State& state) {
  int clients = static_cast<int>(state.range(0));
  bool tls = state.range(1) != 0;
  state.SetLabel(tls ? "tls" : "plain");
  int port = 0;
  WorkerPool workers;
  auto server = transport::RpcServer::start(loopbackListener(port), std::make_shared<PingRoot>(),
                                            nullptr, workers, {}, serverTls(tls));
  std::vector<std::unique_ptr<transport::RpcClient>> connections;
  for (int i = 0; i < clients; ++i) {
    connections.push_back(
        transport::RpcClient::connectTcp("127.0.0.1", port, std::chrono::seconds(5), clientTls(tls))
            .value());
  }
  std::vector<double> latencies;
  std::mutex mutex;
  std::int64_t pings = 0;
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (auto& connection : connections) {
      threads.emplace_back([&, root = connection->root()] {
        std::vector<double> mine;
        for (int i = 0; i < kPingsPerClient; ++i) {
          auto start = Clock::now();
          root->invoke("ping", {});
          mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        std::lock_guard lock(mutex);
        latencies.insert(latencies.end(), mine.begin(), mine.end());
      });
    }
    for (auto& t : threads) {
      t.join();
    }
    pings += static_cast<std::int64_t>(clients) * kPingsPerClient;
  }
  report(state, latencies, pings);
}

void BM_PingBareCapnp(benchmark::State& state) {
  int clients = static_cast<int>(state.range(0));
  BareServer server;
  std::vector<double> latencies;
  std::mutex mutex;
  std::int64_t pings = 0;
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
      threads.emplace_back([&] {
        capnp::EzRpcClient client("127.0.0.1", static_cast<kj::uint>(server.port));
        auto& waitScope = client.getWaitScope();
        auto root = client.getMain<transport::wire::RemoteObject>();
        root.respondsToRequest().send().wait(waitScope); // connected before timing
        std::vector<double> mine;
        for (int i = 0; i < kPingsPerClient; ++i) {
          auto start = Clock::now();
          auto request = root.invokeRequest();
          request.setSelector("ping");
          request.send().wait(waitScope);
          mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        std::lock_guard lock(mutex);
        latencies.insert(latencies.end(), mine.begin(), mine.end());
      });
    }
    for (auto& t : threads) {
      t.join();
    }
    pings += static_cast<std::int64_t>(clients) * kPingsPerClient;
  }
  report(state, latencies, pings);
}

// One event sent to 10 admins' callbacks, each behind its own connection.
void BM_EventToTenCallbacks(benchmark::State& state) {
  Timer timer(platform::Clock::system());
  WorkerPool channelWorkers;
  ExceptionGuard guard([] { return false; }, [](double) {});
  operations::ErrorChannel channel(
      {timer, channelWorkers, guard, [] { return std::string("bench.local."); }});

  int port = 0;
  struct Keeper : plist::RemoteObject {
    std::string description() const override { return "<keeper>"; }
    bool respondsTo(const std::string&) override { return true; }
    plist::Value invoke(const std::string&, std::vector<plist::Value> args) override {
      std::lock_guard lock(mutex);
      kept.push_back(args.at(0).asObject());
      return {};
    }
    std::mutex mutex;
    std::vector<plist::ObjectRef> kept;
  };
  auto keeper = std::make_shared<Keeper>();
  WorkerPool workers;
  auto server = transport::RpcServer::start(loopbackListener(port), keeper, nullptr, workers);
  std::vector<std::unique_ptr<transport::RpcClient>> admins;
  for (int i = 0; i < 10; ++i) {
    admins.push_back(transport::RpcClient::connectTcp("127.0.0.1", port, std::chrono::seconds(5),
                                                      transport::TlsClientOptions::plain())
                         .value());
    admins.back()->root()->invoke("keep:",
                                  {plist::Value(plist::ObjectRef(std::make_shared<PingRoot>()))});
  }
  std::uint64_t admin = 0;
  for (const auto& callback : keeper->kept) {
    channel.setErrorCallback(callback, ++admin);
  }
  for (auto _ : state) {
    channel.postErrorString("Render node offline");
  }
  state.SetItemsProcessed(state.iterations());
}

// Connecting, TLS handshake included, up to the first answer.
void BM_ConnectAgentTransport(benchmark::State& state) {
  bool tls = state.range(0) != 0;
  state.SetLabel(tls ? "tls" : "plain");
  int port = 0;
  WorkerPool workers;
  auto server = transport::RpcServer::start(loopbackListener(port), std::make_shared<PingRoot>(),
                                            nullptr, workers, {}, serverTls(tls));
  for (auto _ : state) {
    auto client =
        transport::RpcClient::connectTcp("127.0.0.1", port, std::chrono::seconds(5), clientTls(tls))
            .value();
    client->root()->invoke("ping", {});
  }
}

BENCHMARK(BM_PingAgentTransport)
    ->ArgsProduct({{1, 8, 64}, {0, 1}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConnectAgentTransport)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PingBareCapnp)->Arg(1)->Arg(8)->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EventToTenCallbacks)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
