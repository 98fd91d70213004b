#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "support/Expected.h"

using EVP_PKEY = struct evp_pkey_st;
using X509 = struct x509_st;

namespace kestrin::transport {

// A key and its self-signed certificate: what an agent, and each admin console, presents on
// every connection. Peers know each other by the certificate's SHA-256 fingerprint, the way SSH
// knows hosts by their keys: no authority signs anything.
//
// Immutable once made, so one identity may serve every connection of every thread.
class TlsIdentity {
public:
  ~TlsIdentity();
  TlsIdentity(const TlsIdentity&) = delete;
  TlsIdentity& operator=(const TlsIdentity&) = delete;

  // A new P-256 key and a certificate for it, valid from a day ago for `days` days. The
  // certificate says it is no authority (basicConstraints critical, CA:FALSE): a trusted
  // self-signed certificate must never be able to sign another one.
  static Expected<std::shared_ptr<const TlsIdentity>> generate(const std::string& commonName,
                                                               int days = 36500);
  // The key and certificate, in PEM, in either order.
  static Expected<std::shared_ptr<const TlsIdentity>> fromPem(std::string_view pem);
  // The identity kept at `path` (PEM, 0600), made and written there when the file does not
  // exist. A file that exists but cannot be read or holds no identity is a Failure: a key that
  // peers have pinned is never replaced silently.
  static Expected<std::shared_ptr<const TlsIdentity>> loadOrCreate(const std::string& path,
                                                                   const std::string& commonName);

  std::string pem() const;
  // 64 lower-case hex digits of the SHA-256 of the certificate's DER form.
  const std::string& fingerprint() const { return fingerprint_; }
  EVP_PKEY* key() const { return key_; }
  X509* certificate() const { return certificate_; }

private:
  TlsIdentity(EVP_PKEY* key, X509* certificate);

  EVP_PKEY* key_;
  X509* certificate_;
  std::string fingerprint_;
};

// The SHA-256 fingerprint of a certificate, 64 lower-case hex digits.
std::string fingerprintOf(X509* certificate);

// A fingerprint as people write it ("SHA256:AB:CD...", upper or lower case, with or without
// colons) in the form fingerprint() answers; nullopt when it is not one.
std::optional<std::string> normalizedFingerprint(std::string_view text);

} // namespace kestrin::transport
