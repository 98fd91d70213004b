#include "transport/RpcServer.h"

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <capnp/rpc-twoparty.h>
#include <fmt/format.h>
#include <kj/async-io.h>

#include "transport/ConnectionState.h"
#include "transport/GatedMessageStream.h"
#include "transport/LocalObjectServer.h"
#include "transport/TlsStream.h"
#include "transport/ValueCodec.h"

namespace kestrin::transport {

namespace {

PeerInfo peerOf(kj::AsyncIoStream& stream) {
  PeerInfo peer;
  sockaddr_storage address{};
  kj::uint length = sizeof address;
  try {
    stream.getpeername(reinterpret_cast<sockaddr*>(&address), &length);
  } catch (const kj::Exception&) {
    return peer;
  }
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&address);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    peer.address = text;
    peer.port = ntohs(in->sin_port);
  } else if (address.ss_family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    peer.address = text;
    peer.port = ntohs(in6->sin6_port);
  } else {
    peer.address = "local";
    KJ_IF_MAYBE (fd, stream.getFd()) {
      ucred credentials{};
      socklen_t size = sizeof credentials;
      if (::getsockopt(*fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        peer.pid = credentials.pid;
        peer.uid = credentials.uid;
      }
    }
  }
  return peer;
}

// One accepted connection. Members are destroyed bottom-up: the RPC system before the network
// before the messages it reads before the stream they come from.
struct ServerConnection {
  ServerConnection(kj::Own<kj::AsyncIoStream> s, std::shared_ptr<ConnectionState> st,
                   const plist::ObjectRef& root, ReceiveGate& gate)
      : stream(kj::mv(s)), state(std::move(st)),
        messages(*stream, gate, *state->timer, state->limits),
        network(messages, capnp::rpc::twoparty::Side::SERVER, connectionReaderOptions()),
        rpcSystem(capnp::makeRpcServer(
            network, wire::RemoteObject::Client(kj::heap<LocalObjectServer>(root, state)))) {}
  ~ServerConnection() { state->drop(); }

  kj::Own<kj::AsyncIoStream> stream;
  std::shared_ptr<ConnectionState> state;
  GatedMessageStream messages;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> rpcSystem;
};

// Connections are numbered across every server of the process, so that a number names one
// caller even when the service restarts.
std::uint64_t connectionSerial() {
  static std::atomic<std::uint64_t> next{1};
  return next++;
}

} // namespace

struct RpcServer::Impl : kj::TaskSet::ErrorHandler {
  std::thread thread;
  std::mutex mutex;
  kj::Own<kj::CrossThreadPromiseFulfiller<void>> stopFulfiller; // under mutex
  bool stopped = false;                                         // under mutex
  std::atomic<std::size_t> connectionCount{0};

  // ---- loop thread only
  explicit Impl(const TransportLimits& l) : limits(l), gate(l) {}
  const TransportLimits limits;
  ReceiveGate gate;
  std::shared_ptr<Holdings> held = std::make_shared<Holdings>();
  plist::ObjectRef root;
  Delegate* delegate = nullptr;
  WorkerPool* workers = nullptr;
  kj::AsyncIoContext* io = nullptr;
  std::map<std::uint64_t, kj::Own<ServerConnection>> connections;
  std::map<std::string, std::size_t> connectionsByAddress;
  std::uint64_t nextConnection = 1;
  std::size_t handshaking = 0;
  std::optional<TlsServerOptions> tls;
  kj::Maybe<kj::TaskSet> tasks;

  void taskFailed(kj::Exception&&) override {} // a connection's end is handled where it ends

  kj::Promise<void> acceptLoop(kj::ConnectionReceiver& listener) {
    return listener.accept().then([this, &listener](kj::Own<kj::AsyncIoStream> stream) {
      accept(kj::mv(stream));
      return acceptLoop(listener);
    });
  }

  // Why a connection from peer would pass the limits of connections, if it would. Connections
  // still in their handshake count.
  std::optional<std::string> overLimit(const PeerInfo& peer) const {
    if (connections.size() + handshaking >= limits.connections) {
      return fmt::format("the agent already serves {} connections",
                         connections.size() + handshaking);
    }
    auto from = connectionsByAddress.find(peer.address);
    if (from != connectionsByAddress.end() && from->second >= limits.connectionsPerAddress) {
      return fmt::format("{} connections from that address are open already", from->second);
    }
    return std::nullopt;
  }

  void countIn(const std::string& address) { ++connectionsByAddress[address]; }
  void countOut(const std::string& address) {
    auto from = connectionsByAddress.find(address);
    if (from != connectionsByAddress.end() && --from->second == 0) {
      connectionsByAddress.erase(from);
    }
  }

  void accept(kj::Own<kj::AsyncIoStream> stream) {
    PeerInfo peer = peerOf(*stream);
    if (auto refusal = overLimit(peer)) {
      if (delegate != nullptr) {
        delegate->connectionRefused(peer, *refusal);
      }
      return; // dropping the stream closes it before anything was read
    }
    if (!tls) {
      establish(kj::mv(stream), peer);
      return;
    }
    ++handshaking;
    countIn(peer.address);
    auto handshake =
        io->provider->getTimer().timeoutAfter(tls->handshakeTimeout.count() * kj::MILLISECONDS,
                                              TlsStream::handshake(kj::mv(stream), tls->context));
    KJ_ASSERT_NONNULL(tasks).add(handshake.then(
        [this, peer](kj::Own<TlsStream> secured) mutable {
          --handshaking;
          countOut(peer.address);
          peer.fingerprint = secured->peerFingerprint();
          establish(kj::mv(secured), peer);
        },
        [this, peer](kj::Exception&& e) {
          --handshaking;
          countOut(peer.address);
          if (delegate != nullptr) {
            delegate->handshakeFailed(peer, e.getDescription().cStr());
          }
        }));
  }

  void establish(kj::Own<kj::AsyncIoStream> stream, const PeerInfo& peer) {
    if (delegate != nullptr && !delegate->shouldAcceptConnection(peer)) {
      return;
    }
    std::uint64_t id = nextConnection++;
    auto state = std::make_shared<ConnectionState>(
        kj::getCurrentThreadExecutor().addRef(), io->provider->getTimer(), *workers,
        plist::RemoteObject::Caller{peer.address, connectionSerial(),
                                    std::make_shared<std::atomic<bool>>(true)},
        limits, held);
    state->replyTimeoutMs = limits.replyTimeout.count();
    auto connection = kj::heap<ServerConnection>(kj::mv(stream), state, root, gate);
    auto& network = connection->network;
    connections.emplace(id, kj::mv(connection));
    countIn(peer.address);
    ++connectionCount;
    if (delegate != nullptr) {
      delegate->connectionDidInitialize(peer);
    }
    KJ_ASSERT_NONNULL(tasks).add(network.onDisconnect().then([this, id, address = peer.address]() {
      // Not from inside the network's own callback: a turn later.
      return kj::evalLater([this, id, address]() {
        if (connections.erase(id) > 0) {
          --connectionCount;
          countOut(address);
        }
      });
    }));
  }

  void run(int fd, std::promise<Expected<void>>& ready) {
    try {
      kj::AsyncIoContext context = kj::setupAsyncIo();
      io = &context;
      auto paf = kj::newPromiseAndCrossThreadFulfiller<void>();
      {
        std::lock_guard lock(mutex);
        stopFulfiller = kj::mv(paf.fulfiller);
      }
      auto listener = context.lowLevelProvider->wrapListenSocketFd(
          fd, kj::LowLevelAsyncIoProvider::TAKE_OWNERSHIP);
      tasks.emplace(*this);
      KJ_ASSERT_NONNULL(tasks).add(acceptLoop(*listener).catch_([this](kj::Exception&& e) {
        if (delegate != nullptr) {
          delegate->serverDidDie(e.getDescription().cStr());
        }
      }));
      ready.set_value({});
      paf.promise.wait(context.waitScope);
      connections.clear();
      connectionsByAddress.clear();
      connectionCount = 0;
      tasks = nullptr;
      listener = nullptr;
      io = nullptr;
    } catch (const kj::Exception& e) {
      try {
        ready.set_value(Failure{e.getDescription().cStr()});
      } catch (const std::future_error&) {
        // Started earlier; the loop failed later and the server simply ends.
      }
    }
  }
};

RpcServer::RpcServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

RpcServer::~RpcServer() {
  stop();
}

Expected<std::unique_ptr<RpcServer>> RpcServer::start(platform::FileDescriptor listeningSocket,
                                                      plist::ObjectRef root, Delegate* delegate,
                                                      WorkerPool& workers,
                                                      const TransportLimits& limits,
                                                      std::optional<TlsServerOptions> tls) {
  if (!listeningSocket.valid()) {
    return Failure{"no listening socket"};
  }
  auto impl = std::make_unique<Impl>(limits);
  impl->root = std::move(root);
  impl->delegate = delegate;
  impl->workers = &workers;
  impl->tls = std::move(tls);
  std::promise<Expected<void>> ready;
  std::future<Expected<void>> started = ready.get_future();
  Impl* raw = impl.get();
  int fd = listeningSocket.release();
  // The thread owns the promise: a failure after start-up must not reach a caller long gone.
  raw->thread = std::thread([raw, fd, ready = std::move(ready)]() mutable { raw->run(fd, ready); });
  Expected<void> outcome = started.get();
  if (!outcome) {
    raw->thread.join();
    return outcome.failure();
  }
  return std::unique_ptr<RpcServer>(new RpcServer(std::move(impl)));
}

void RpcServer::stop() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->stopped) {
      return;
    }
    impl_->stopped = true;
    if (impl_->stopFulfiller) {
      impl_->stopFulfiller->fulfill();
    }
  }
  if (impl_->thread.joinable()) {
    impl_->thread.join();
  }
}

std::size_t RpcServer::connectionCount() const {
  return impl_->connectionCount;
}

} // namespace kestrin::transport
