#include "transport/TlsIdentity.h"

#include <array>
#include <cctype>
#include <filesystem>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fmt/format.h>

#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"

namespace kestrin::transport {

namespace {

// An identity file holds one key and one certificate: a few kilobytes at most.
constexpr std::size_t kMaxIdentityBytes = 64 * 1024;

std::string openSslError(std::string_view what) {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) {
    return std::string(what);
  }
  std::array<char, 256> text{};
  ERR_error_string_n(code, text.data(), text.size());
  return fmt::format("{}: {}", what, text.data());
}

template <typename T, void (*Free)(T*)> struct Freer {
  void operator()(T* p) const { Free(p); }
};
using BioPtr = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, Freer<X509, X509_free>>;

} // namespace

TlsIdentity::TlsIdentity(EVP_PKEY* key, X509* certificate)
    : key_(key), certificate_(certificate), fingerprint_(fingerprintOf(certificate)) {}

TlsIdentity::~TlsIdentity() {
  EVP_PKEY_free(key_);
  X509_free(certificate_);
}

std::string fingerprintOf(X509* certificate) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1) {
    return {};
  }
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    hex += fmt::format("{:02x}", digest[i]);
  }
  return hex;
}

std::optional<std::string> normalizedFingerprint(std::string_view text) {
  if (text.size() >= 7 && (text.substr(0, 7) == "SHA256:" || text.substr(0, 7) == "sha256:")) {
    text.remove_prefix(7);
  }
  std::string hex;
  for (char c : text) {
    if (c == ':') {
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
      return std::nullopt;
    }
    hex += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (hex.size() != 64) {
    return std::nullopt;
  }
  return hex;
}

Expected<std::shared_ptr<const TlsIdentity>> TlsIdentity::generate(const std::string& commonName,
                                                                   int days) {
  KeyPtr ownedKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  CertificatePtr ownedCertificate(X509_new());
  if (ownedKey == nullptr || ownedCertificate == nullptr) {
    return Failure{openSslError("cannot make a key")};
  }
  EVP_PKEY* key = ownedKey.get();
  X509* certificate = ownedCertificate.get();
  std::array<unsigned char, 16> serial{};
  RAND_bytes(serial.data(), static_cast<int>(serial.size()));
  serial[0] &= 0x7f; // a positive serial number
  BIGNUM* number = BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr);
  bool made = number != nullptr && X509_set_version(certificate, 2) == 1 &&
              BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr &&
              X509_gmtime_adj(X509_getm_notBefore(certificate), -86400) != nullptr &&
              X509_time_adj_ex(X509_getm_notAfter(certificate), days, 0, nullptr) != nullptr &&
              X509_set_pubkey(certificate, key) == 1;
  BN_free(number);
  X509_NAME* name = X509_get_subject_name(certificate);
  made = made &&
         X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                    -1, 0) == 1 &&
         X509_set_issuer_name(certificate, name) == 1;
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  for (auto [id, value] : {std::pair{NID_basic_constraints, "critical,CA:FALSE"},
                           std::pair{NID_key_usage, "critical,digitalSignature"},
                           std::pair{NID_ext_key_usage, "serverAuth,clientAuth"}}) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, id, value);
    made = made && extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
  }
  if (!made || X509_sign(certificate, key, EVP_sha256()) == 0) {
    return Failure{openSslError("cannot make a certificate")};
  }
  return std::shared_ptr<const TlsIdentity>(
      new TlsIdentity(ownedKey.release(), ownedCertificate.release()));
}

Expected<std::shared_ptr<const TlsIdentity>> TlsIdentity::fromPem(std::string_view pem) {
  auto read = [&pem]() {
    return BioPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  };
  BioPtr keyText = read();
  EVP_PKEY* key = PEM_read_bio_PrivateKey(keyText.get(), nullptr, nullptr, nullptr);
  BioPtr certificateText = read();
  X509* certificate = PEM_read_bio_X509(certificateText.get(), nullptr, nullptr, nullptr);
  if (key == nullptr || certificate == nullptr) {
    EVP_PKEY_free(key);
    X509_free(certificate);
    return Failure{openSslError("no key and certificate in PEM form")};
  }
  if (X509_check_private_key(certificate, key) != 1) {
    EVP_PKEY_free(key);
    X509_free(certificate);
    return Failure{openSslError("the certificate is not the key's")};
  }
  ERR_clear_error();
  return std::shared_ptr<const TlsIdentity>(new TlsIdentity(key, certificate));
}

std::string TlsIdentity::pem() const {
  BioPtr out(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(out.get(), key_, nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_X509(out.get(), certificate_);
  char* data = nullptr;
  long size = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

Expected<std::shared_ptr<const TlsIdentity>>
TlsIdentity::loadOrCreate(const std::string& path, const std::string& commonName) {
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
    auto identity = generate(commonName);
    if (!identity) {
      return identity.failure();
    }
    std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(folder, error);
    if (error) {
      return Failure{fmt::format("cannot create {}: {}", folder.string(), error.message())};
    }
    if (auto written = platform::writeFileAtomically(path, (*identity)->pem(), 0600); !written) {
      return written.failure();
    }
    return identity;
  }
  auto bytes = platform::readFileBytes(path, kMaxIdentityBytes);
  if (!bytes) {
    return Failure{fmt::format("cannot read the key in {}: {}", path, bytes.message())};
  }
  auto identity =
      fromPem(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
  if (!identity) {
    return Failure{fmt::format("{} holds no usable key: {}", path, identity.message())};
  }
  return identity;
}

} // namespace kestrin::transport
