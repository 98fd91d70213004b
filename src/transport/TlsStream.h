#pragma once

#include <memory>
#include <optional>
#include <string>

#include <kj/async-io.h>

#include "support/Expected.h"
#include "transport/TlsIdentity.h"

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;
using BIO = struct bio_st;

namespace kestrin::transport {

// The TLS settings of one side of the agent's connections: TLS 1.3 only, this side's identity,
// and a certificate from the other side checked for itself (dates, its own signature) but not
// against any authority: peers are known by their fingerprints, which the caller compares with
// what it trusts after the handshake. A server asks for a client certificate without requiring
// one; a client requires the server's.
class TlsContext {
public:
  enum class Side { Client, Server };
  // `identity` may be null for a client that presents no certificate.
  static Expected<std::shared_ptr<const TlsContext>>
  make(Side side, std::shared_ptr<const TlsIdentity> identity);
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  Side side() const { return side_; }
  SSL_CTX* native() const { return context_; }

private:
  TlsContext(Side side, SSL_CTX* context, std::shared_ptr<const TlsIdentity> identity)
      : side_(side), context_(context), identity_(std::move(identity)) {}
  Side side_;
  SSL_CTX* context_;
  std::shared_ptr<const TlsIdentity> identity_;
};

// TLS over another stream of the event loop, with OpenSSL working on memory buffers so that
// the loop, not OpenSSL, does the reading and writing. Writes to the inner stream are queued,
// since reading may have to answer the peer (a key update) while a write is under way.
class TlsStream final : public kj::AsyncIoStream {
public:
  // The handshake over `inner`; fails with a kj::Exception that says why (a peer that speaks
  // no TLS, a refused certificate, a closed connection).
  static kj::Promise<kj::Own<TlsStream>> handshake(kj::Own<kj::AsyncIoStream> inner,
                                                   std::shared_ptr<const TlsContext> context);
  ~TlsStream() noexcept(false);

  // The SHA-256 fingerprint of the certificate the peer presented, if it presented one.
  std::optional<std::string> peerFingerprint() const;

  kj::Promise<size_t> tryRead(void* buffer, size_t minBytes, size_t maxBytes) override;
  kj::Promise<void> write(const void* buffer, size_t size) override;
  kj::Promise<void> write(kj::ArrayPtr<const kj::ArrayPtr<const kj::byte>> pieces) override;
  kj::Promise<void> whenWriteDisconnected() override;
  void shutdownWrite() override;
  void abortRead() override;
  void getsockopt(int level, int option, void* value, kj::uint* length) override;
  void setsockopt(int level, int option, const void* value, kj::uint length) override;
  void getsockname(struct sockaddr* addr, kj::uint* length) override;
  void getpeername(struct sockaddr* addr, kj::uint* length) override;

  TlsStream(kj::Own<kj::AsyncIoStream> inner, std::shared_ptr<const TlsContext> context);

private:
  kj::Promise<void> continueHandshake();
  kj::Promise<size_t> readInto(kj::byte* buffer, size_t minBytes, size_t maxBytes, size_t done);
  // Queues whatever OpenSSL has written for the peer, after everything queued before it.
  void queueOutgoing();
  // The same, answering when all of it has gone.
  kj::Promise<void> flush();
  // More of the peer's bytes for OpenSSL; false at the end of the stream.
  kj::Promise<bool> receive();

  kj::Own<kj::AsyncIoStream> inner_;
  std::shared_ptr<const TlsContext> context_;
  SSL* ssl_ = nullptr;
  BIO* incoming_ = nullptr; // owned by ssl_
  BIO* outgoing_ = nullptr; // owned by ssl_
  kj::ForkedPromise<void> writeQueue_;
  kj::Array<kj::byte> incomingBuffer_;
  bool readEnded_ = false;
};

} // namespace kestrin::transport
