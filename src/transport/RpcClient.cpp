#include "transport/RpcClient.h"

#include <future>
#include <mutex>
#include <thread>

#include <capnp/message.h>
#include <capnp/rpc-twoparty.h>
#include <fmt/format.h>
#include <kj/async-io.h>

#include "foundation/WorkerPool.h"
#include "transport/ConnectionState.h"
#include "transport/TlsStream.h"
#include "transport/ValueCodec.h"

namespace kestrin::transport {

struct RpcClient::Impl : kj::TaskSet::ErrorHandler {
  std::thread thread;
  std::mutex mutex;
  kj::Own<kj::CrossThreadPromiseFulfiller<void>> stopFulfiller; // under mutex
  std::function<void()> disconnectHandler;                      // under mutex
  bool stopped = false;                                         // under mutex
  std::shared_ptr<ConnectionState> state;
  plist::ObjectRef root;
  std::optional<std::string> peerFingerprint;
  // Where the server's calls to objects we passed it (callbacks, delegates) run. Declared
  // before the thread is joined in the destructor, destroyed after it.
  WorkerPool workers;

  void taskFailed(kj::Exception&&) override {}

  void run(const std::string& address, std::chrono::milliseconds timeout,
           const TlsClientOptions& tls, std::promise<Expected<void>>& ready) {
    bool tcpConnected = false;
    try {
      kj::AsyncIoContext io = kj::setupAsyncIo();
      auto paf = kj::newPromiseAndCrossThreadFulfiller<void>();
      {
        std::lock_guard lock(mutex);
        stopFulfiller = kj::mv(paf.fulfiller);
      }
      kj::Timer& timer = io.provider->getTimer();
      std::shared_ptr<const TlsContext> context;
      if (tls.enabled) {
        auto made = TlsContext::make(TlsContext::Side::Client, tls.identity);
        if (!made) {
          ready.set_value(made.failure());
          return;
        }
        context = *made;
      }
      auto connecting =
          io.provider->getNetwork()
              .parseAddress(address)
              .then([](kj::Own<kj::NetworkAddress> resolved) { return resolved->connect(); })
              .then([this, context, &tcpConnected](kj::Own<kj::AsyncIoStream> stream)
                        -> kj::Promise<kj::Own<kj::AsyncIoStream>> {
                tcpConnected = true;
                if (!context) {
                  return kj::mv(stream);
                }
                return TlsStream::handshake(kj::mv(stream), context)
                    .then([this](kj::Own<TlsStream> secured) -> kj::Own<kj::AsyncIoStream> {
                      peerFingerprint = secured->peerFingerprint();
                      return kj::mv(secured);
                    });
              });
      kj::Own<kj::AsyncIoStream> stream =
          timeout.count() == 0
              ? connecting.wait(io.waitScope)
              : timer.timeoutAfter(timeout.count() * kj::MILLISECONDS, kj::mv(connecting))
                    .wait(io.waitScope);

      state = std::make_shared<ConnectionState>(kj::getCurrentThreadExecutor().addRef(), timer,
                                                workers, plist::RemoteObject::Caller{address, 0});
      capnp::TwoPartyVatNetwork network(*stream, capnp::rpc::twoparty::Side::CLIENT,
                                        connectionReaderOptions());
      auto rpcSystem = capnp::makeRpcClient(network);
      capnp::MallocMessageBuilder vatIdMessage;
      auto vatId = vatIdMessage.initRoot<capnp::rpc::twoparty::VatId>();
      vatId.setSide(capnp::rpc::twoparty::Side::SERVER);
      root = importObject(rpcSystem.bootstrap(vatId).castAs<wire::RemoteObject>(), *state);

      kj::TaskSet tasks(*this);
      tasks.add(network.onDisconnect().then([this]() {
        state->drop();
        std::function<void()> handler;
        {
          std::lock_guard lock(mutex);
          handler = disconnectHandler;
        }
        if (handler) {
          handler();
        }
      }));
      ready.set_value({});
      paf.promise.wait(io.waitScope);
      state->drop();
    } catch (const kj::Exception& e) {
      if (state) {
        state->drop();
      }
      try {
        // Past the connecting, the peer had to speak TLS: one that does not is no agent.
        ready.set_value(Failure{
            !tcpConnected
                ? fmt::format("cannot connect to {}: {}", address, e.getDescription().cStr())
            : e.getType() == kj::Exception::Type::OVERLOADED
                ? fmt::format("{} accepted the connection but did not answer as a Kestrin agent "
                              "within {} s: it is not an agent, or a stuck one",
                              address, std::chrono::duration<double>(timeout).count())
                : fmt::format("{} did not answer as a Kestrin agent: {}", address,
                              e.getDescription().cStr())});
      } catch (const std::future_error&) {
        // Connected earlier; the failure came later and ended the connection.
      }
    }
  }
};

RpcClient::RpcClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

RpcClient::~RpcClient() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopped = true;
    impl_->disconnectHandler = nullptr;
    if (impl_->stopFulfiller) {
      impl_->stopFulfiller->fulfill();
    }
  }
  if (impl_->thread.joinable()) {
    impl_->thread.join();
  }
}

Expected<std::unique_ptr<RpcClient>> RpcClient::connectAddress(const std::string& address,
                                                               std::chrono::milliseconds timeout,
                                                               const TlsClientOptions& tls) {
  auto impl = std::make_unique<Impl>();
  std::promise<Expected<void>> ready;
  auto connected = ready.get_future();
  Impl* raw = impl.get();
  // The thread owns the promise: a failure after connecting must not reach a caller long gone.
  raw->thread = std::thread([raw, address, timeout, tls, ready = std::move(ready)]() mutable {
    raw->run(address, timeout, tls, ready);
  });
  Expected<void> outcome = connected.get();
  if (!outcome) {
    raw->thread.join();
    return outcome.failure();
  }
  return std::unique_ptr<RpcClient>(new RpcClient(std::move(impl)));
}

Expected<std::unique_ptr<RpcClient>> RpcClient::connectTcp(const std::string& host, int port,
                                                           std::chrono::milliseconds timeout,
                                                           TlsClientOptions tls) {
  bool ipv6 = host.find(':') != std::string::npos;
  return connectAddress(
      ipv6 ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port), timeout, tls);
}

Expected<std::unique_ptr<RpcClient>> RpcClient::connectUnix(const std::string& path,
                                                            std::chrono::milliseconds timeout) {
  return connectAddress("unix:" + path, timeout, TlsClientOptions::plain());
}

plist::ObjectRef RpcClient::root() const {
  return impl_->root;
}

const std::optional<std::string>& RpcClient::peerFingerprint() const {
  return impl_->peerFingerprint;
}

bool RpcClient::isConnected() const {
  return impl_->state && impl_->state->alive;
}

void RpcClient::setDisconnectHandler(std::function<void()> handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->disconnectHandler = std::move(handler);
}

void RpcClient::setReplyTimeout(std::chrono::milliseconds timeout) {
  impl_->state->replyTimeoutMs = timeout.count();
}

} // namespace kestrin::transport
