#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include "platform/FileDescriptor.h"
#include "plist/Value.h"
#include "support/Expected.h"
#include "transport/TransportLimits.h"

namespace kestrin {
class WorkerPool;
}

namespace kestrin::transport {

// Who is knocking: the address of a TCP peer, or the process of a Unix-domain peer.
struct PeerInfo {
  std::string address; // "192.168.1.20", "::1", or "local" for a Unix-domain peer
  int port = 0;
  std::optional<pid_t> pid;
  std::optional<uid_t> uid;
  // Over TLS: the fingerprint of the certificate the peer presented, if it presented one.
  std::optional<std::string> fingerprint;
};

class TlsContext;

// TLS on every connection of a server: its context (identity and checks) and how long a peer
// has to finish its handshake. Handshakes run side by side, so a slow one holds up nobody.
struct TlsServerOptions {
  std::shared_ptr<const TlsContext> context;
  std::chrono::milliseconds handshakeTimeout{10000};
};

// Serves one root object on a listening socket, from a thread of its own with its own event
// loop. Every accepted connection gets the root object; every call runs on a thread of the
// given worker pool (see LocalObjectServer), so slow calls never hold up other callers. What
// the peers send is bounded by TransportLimits before it is decoded; calls to the peers'
// objects wait at most limits.replyTimeout for their answers.
class RpcServer {
public:
  // Called on the server's thread: keep them short and never stop the server from inside.
  class Delegate {
  public:
    virtual ~Delegate() = default;
    // Refusing drops the connection before the peer can call anything. Over TLS it is asked
    // after the handshake, so the peer's fingerprint is known.
    virtual bool shouldAcceptConnection(const PeerInfo& peer) = 0;
    // A TLS handshake that failed or ran out of time; the connection is gone.
    virtual void handshakeFailed(const PeerInfo& /*peer*/, const std::string& /*reason*/) {}
    virtual void connectionDidInitialize(const PeerInfo& /*peer*/) {}
    // A connection dropped unread because the limits of connections were reached.
    virtual void connectionRefused(const PeerInfo& /*peer*/, const std::string& /*reason*/) {}
    // The listening socket failed: the server accepts nothing more. Not called by stop().
    virtual void serverDidDie(const std::string& reason) = 0;
  };

  // Takes over a bound and listening TCP or Unix-domain socket. delegate may be null (every
  // connection accepted); it and workers, where the calls run, must outlive the server. The
  // limits bound what the peers may make it hold and wait for. With `tls`, every connection
  // speaks TLS from its first byte.
  static Expected<std::unique_ptr<RpcServer>> start(platform::FileDescriptor listeningSocket,
                                                    plist::ObjectRef root, Delegate* delegate,
                                                    WorkerPool& workers,
                                                    const TransportLimits& limits = {},
                                                    std::optional<TlsServerOptions> tls = {});
  ~RpcServer();
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Stops accepting, drops every connection and joins the server's thread. Calls that are
  // running finish on their workers, and their answers go nowhere. Safe to call twice, from any
  // thread but the server's.
  void stop();

  std::size_t connectionCount() const;

private:
  struct Impl;
  explicit RpcServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

} // namespace kestrin::transport
