#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::transport {

class TlsIdentity;

// How a TCP connection is made: TLS unless told otherwise (the agent speaks nothing else), with
// this side's identity presented when there is one. The agent's fingerprint is answered by
// peerFingerprint(); deciding whether to trust it is the caller's.
struct TlsClientOptions {
  bool enabled = true;
  std::shared_ptr<const TlsIdentity> identity;
  static TlsClientOptions plain() { return {false, nullptr}; }
};

// A connection to a server's root object, with its own thread and event loop. The root is a
// proxy (callable from any thread but the connection's own); local objects passed in arguments
// are served to the peer, their calls running on worker threads of this process.
class RpcClient {
public:
  // `timeout` limits the connecting and the handshake; zero leaves it to the system.
  static Expected<std::unique_ptr<RpcClient>> connectTcp(const std::string& host, int port,
                                                         std::chrono::milliseconds timeout,
                                                         TlsClientOptions tls = {});
  static Expected<std::unique_ptr<RpcClient>> connectUnix(const std::string& path,
                                                          std::chrono::milliseconds timeout);
  // Disconnects and joins the connection's thread.
  ~RpcClient();
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  plist::ObjectRef root() const;
  // The fingerprint of the certificate the server presented over TLS.
  const std::optional<std::string>& peerFingerprint() const;
  bool isConnected() const;
  // Runs on the connection's thread once the connection has ended (never after the client is
  // destroyed): keep it short.
  void setDisconnectHandler(std::function<void()> handler);
  // A call that waits longer for its answer throws PortTimeoutException. Zero: no limit.
  void setReplyTimeout(std::chrono::milliseconds timeout);

private:
  struct Impl;
  static Expected<std::unique_ptr<RpcClient>> connectAddress(const std::string& address,
                                                             std::chrono::milliseconds timeout,
                                                             const TlsClientOptions& tls);
  explicit RpcClient(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

} // namespace kestrin::transport
