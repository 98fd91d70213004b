#include "transport/TlsStream.h"

#include <algorithm>
#include <array>
#include <climits>

#include <kj/debug.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace kestrin::transport {

namespace {

// What a TLS record may carry, and so what one read from the peer asks for.
constexpr std::size_t kReadChunk = 16 * 1024 + 512;

// Peers present a self-signed certificate and are trusted by its fingerprint, so "no authority
// signed it" is expected; everything else about the certificate must still hold: it is in its
// dates, and its signature is its own key's.
int verifyCertificate(int preverified, X509_STORE_CTX* store) {
  // Only the peer's own certificate counts: its fingerprint is what is trusted.
  if (preverified == 1 || X509_STORE_CTX_get_error_depth(store) != 0) {
    return 1;
  }
  switch (X509_STORE_CTX_get_error(store)) {
  case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
  case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
  case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
  case X509_V_ERR_CERT_UNTRUSTED:
    break;
  default:
    return 0; // expired, not yet valid, unusable for this purpose...
  }
  X509* certificate = X509_STORE_CTX_get_current_cert(store);
  if (X509_verify(certificate, X509_get0_pubkey(certificate)) != 1) {
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_SIGNATURE_FAILURE);
    return 0;
  }
  if (X509_cmp_current_time(X509_get0_notAfter(certificate)) <= 0) {
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_HAS_EXPIRED);
    return 0;
  }
  if (X509_cmp_current_time(X509_get0_notBefore(certificate)) >= 0) {
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_NOT_YET_VALID);
    return 0;
  }
  X509_STORE_CTX_set_error(store, X509_V_OK);
  return 1;
}

kj::Exception failure(kj::Exception::Type type, const std::string& text) {
  return kj::Exception(type, __FILE__, __LINE__, kj::heapString(text.c_str()));
}

std::string openSslErrors() {
  std::string text;
  while (unsigned long code = ERR_get_error()) {
    std::array<char, 256> line{};
    ERR_error_string_n(code, line.data(), line.size());
    text += (text.empty() ? "" : "; ") + std::string(line.data());
  }
  return text;
}

} // namespace

Expected<std::shared_ptr<const TlsContext>>
TlsContext::make(Side side, std::shared_ptr<const TlsIdentity> identity) {
  SSL_CTX* context = SSL_CTX_new(side == Side::Client ? TLS_client_method() : TLS_server_method());
  if (context == nullptr) {
    return Failure{"cannot set up TLS: " + openSslErrors()};
  }
  std::shared_ptr<const TlsContext> made(new TlsContext(side, context, identity));
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  // Connections are long and few: nothing to resume, so no tickets after the handshake.
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  if (identity != nullptr && (SSL_CTX_use_certificate(context, identity->certificate()) != 1 ||
                              SSL_CTX_use_PrivateKey(context, identity->key()) != 1)) {
    return Failure{"cannot use the TLS identity: " + openSslErrors()};
  }
  SSL_CTX_set_verify(context,
                     SSL_VERIFY_PEER | (side == Side::Client ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                     verifyCertificate);
  return made;
}

TlsContext::~TlsContext() {
  SSL_CTX_free(context_);
}

TlsStream::TlsStream(kj::Own<kj::AsyncIoStream> inner, std::shared_ptr<const TlsContext> context)
    : inner_(kj::mv(inner)), context_(std::move(context)),
      writeQueue_(kj::Promise<void>(kj::READY_NOW).fork()),
      incomingBuffer_(kj::heapArray<kj::byte>(kReadChunk)) {
  ssl_ = SSL_new(context_->native());
  incoming_ = BIO_new(BIO_s_mem());
  outgoing_ = BIO_new(BIO_s_mem());
  BIO_set_mem_eof_return(incoming_, -1); // empty means "more to come", not the end
  SSL_set_bio(ssl_, incoming_, outgoing_);
  if (context_->side() == TlsContext::Side::Client) {
    SSL_set_connect_state(ssl_);
  } else {
    SSL_set_accept_state(ssl_);
  }
}

TlsStream::~TlsStream() noexcept(false) {
  SSL_free(ssl_);
}

kj::Promise<kj::Own<TlsStream>> TlsStream::handshake(kj::Own<kj::AsyncIoStream> inner,
                                                     std::shared_ptr<const TlsContext> context) {
  auto stream = kj::heap<TlsStream>(kj::mv(inner), std::move(context));
  TlsStream& started = *stream;
  return started.continueHandshake().then(
      [stream = kj::mv(stream)]() mutable { return kj::mv(stream); });
}

kj::Promise<void> TlsStream::continueHandshake() {
  ERR_clear_error();
  int result = SSL_do_handshake(ssl_);
  if (result == 1) {
    return flush();
  }
  int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_READ) {
    return flush().then([this] { return receive(); }).then([this](bool more) {
      if (!more) {
        return kj::Promise<void>(failure(kj::Exception::Type::DISCONNECTED,
                                         "the peer closed the connection during the TLS "
                                         "handshake"));
      }
      return continueHandshake();
    });
  }
  std::string reason = openSslErrors();
  long verified = SSL_get_verify_result(ssl_);
  if (verified != X509_V_OK) {
    reason = std::string("the peer's certificate was refused: ") +
             X509_verify_cert_error_string(verified);
  } else if (reason.empty()) {
    reason = "TLS error " + std::to_string(error);
  }
  // The alert that says why goes out before the connection is dropped.
  return flush().then([reason]() -> kj::Promise<void> {
    return failure(kj::Exception::Type::FAILED, "TLS handshake failed: " + reason);
  });
}

std::optional<std::string> TlsStream::peerFingerprint() const {
  X509* certificate = SSL_get1_peer_certificate(ssl_);
  if (certificate == nullptr) {
    return std::nullopt;
  }
  std::string fingerprint = fingerprintOf(certificate);
  X509_free(certificate);
  return fingerprint;
}

void TlsStream::queueOutgoing() {
  std::size_t pending = BIO_ctrl_pending(outgoing_);
  if (pending == 0) {
    return;
  }
  auto bytes = kj::heapArray<kj::byte>(pending);
  BIO_read(outgoing_, bytes.begin(), static_cast<int>(pending));
  writeQueue_ = writeQueue_.addBranch()
                    .then([this, bytes = kj::mv(bytes)]() mutable {
                      auto written = inner_->write(bytes.begin(), bytes.size());
                      return written.attach(kj::mv(bytes));
                    })
                    .fork();
}

kj::Promise<void> TlsStream::flush() {
  queueOutgoing();
  return writeQueue_.addBranch();
}

kj::Promise<bool> TlsStream::receive() {
  // One read at a time, so one buffer serves them all.
  return inner_->tryRead(incomingBuffer_.begin(), 1, incomingBuffer_.size())
      .then([this](size_t count) {
        if (count == 0) {
          return false;
        }
        BIO_write(incoming_, incomingBuffer_.begin(), static_cast<int>(count));
        return true;
      });
}

kj::Promise<size_t> TlsStream::tryRead(void* buffer, size_t minBytes, size_t maxBytes) {
  return readInto(static_cast<kj::byte*>(buffer), minBytes, maxBytes, 0);
}

kj::Promise<size_t> TlsStream::readInto(kj::byte* buffer, size_t minBytes, size_t maxBytes,
                                        size_t done) {
  while (!readEnded_ && done < maxBytes) {
    ERR_clear_error();
    int wanted = static_cast<int>(std::min<size_t>(maxBytes - done, INT_MAX));
    int result = SSL_read(ssl_, buffer + done, wanted);
    if (result > 0) {
      done += static_cast<size_t>(result);
      if (done >= minBytes && SSL_pending(ssl_) == 0) {
        break;
      }
      continue;
    }
    int error = SSL_get_error(ssl_, result);
    if (error == SSL_ERROR_ZERO_RETURN) {
      readEnded_ = true; // the peer's close_notify
      break;
    }
    if (error != SSL_ERROR_WANT_READ) {
      std::string reason = openSslErrors();
      return failure(kj::Exception::Type::DISCONNECTED,
                     "TLS read failed: " + (reason.empty() ? std::to_string(error) : reason));
    }
    if (done >= minBytes) {
      break;
    }
    // A reply OpenSSL owes the peer (a key update) goes out without this read waiting for it:
    // a read that waited on its own side's writes could deadlock with a peer doing the same.
    queueOutgoing();
    return receive().then([this, buffer, minBytes, maxBytes, done](bool more) {
      if (!more) {
        readEnded_ = true;
        return kj::Promise<size_t>(done);
      }
      return readInto(buffer, minBytes, maxBytes, done);
    });
  }
  return done;
}

kj::Promise<void> TlsStream::write(const void* buffer, size_t size) {
  const auto* bytes = static_cast<const kj::byte*>(buffer);
  while (size > 0) {
    ERR_clear_error();
    int chunk = static_cast<int>(std::min<size_t>(size, INT_MAX));
    int result = SSL_write(ssl_, bytes, chunk);
    if (result <= 0) {
      std::string reason = openSslErrors();
      return failure(kj::Exception::Type::DISCONNECTED, "TLS write failed: " + reason);
    }
    bytes += result;
    size -= static_cast<size_t>(result);
  }
  return flush();
}

kj::Promise<void> TlsStream::write(kj::ArrayPtr<const kj::ArrayPtr<const kj::byte>> pieces) {
  // A message comes in pieces (its segment table, its segments): one record for all of them
  // costs less than a record each.
  size_t total = 0;
  for (const auto& piece : pieces) {
    total += piece.size();
  }
  auto joined = kj::heapArray<kj::byte>(total);
  kj::byte* at = joined.begin();
  for (const auto& piece : pieces) {
    std::copy(piece.begin(), piece.end(), at);
    at += piece.size();
  }
  return write(joined.begin(), joined.size());
}

kj::Promise<void> TlsStream::whenWriteDisconnected() {
  return inner_->whenWriteDisconnected();
}

void TlsStream::shutdownWrite() {
  SSL_shutdown(ssl_);
  queueOutgoing();
  writeQueue_ = writeQueue_.addBranch().then([this] { inner_->shutdownWrite(); }).fork();
}

void TlsStream::abortRead() {
  inner_->abortRead();
}

void TlsStream::getsockopt(int level, int option, void* value, kj::uint* length) {
  inner_->getsockopt(level, option, value, length);
}

void TlsStream::setsockopt(int level, int option, const void* value, kj::uint length) {
  inner_->setsockopt(level, option, value, length);
}

void TlsStream::getsockname(struct sockaddr* addr, kj::uint* length) {
  inner_->getsockname(addr, length);
}

void TlsStream::getpeername(struct sockaddr* addr, kj::uint* length) {
  inner_->getpeername(addr, length);
}

} // namespace kestrin::transport
