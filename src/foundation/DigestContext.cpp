#include "foundation/DigestContext.h"

#include <stdexcept>

#include <openssl/evp.h>

namespace kestrin {

namespace {

std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> copyOf(const EVP_MD_CTX* context) {
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> copy(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!copy || EVP_MD_CTX_copy_ex(copy.get(), context) != 1) {
    throw std::runtime_error("cannot copy a digest context");
  }
  return copy;
}

} // namespace

void DigestContext::Free::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

DigestContext::DigestContext(Algorithm algorithm) : context_(EVP_MD_CTX_new()) {
  const EVP_MD* type = algorithm == Algorithm::MD5    ? EVP_md5()
                       : algorithm == Algorithm::SHA1 ? EVP_sha1()
                                                      : EVP_sha256();
  if (!context_ || EVP_DigestInit_ex(context_.get(), type, nullptr) != 1) {
    throw std::runtime_error("MD5 and SHA-1 are not available");
  }
}

DigestContext::DigestContext(const DigestContext& other)
    : context_(copyOf(other.context_.get()).release()) {}

DigestContext& DigestContext::operator=(const DigestContext& other) {
  if (this != &other) {
    context_.reset(copyOf(other.context_.get()).release());
  }
  return *this;
}

DigestContext::~DigestContext() = default;

void DigestContext::update(std::span<const std::uint8_t> bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

void DigestContext::update(std::string_view text) {
  EVP_DigestUpdate(context_.get(), text.data(), text.size());
}

plist::Data DigestContext::digest() const {
  auto copy = copyOf(context_.get());
  plist::Data out(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  if (EVP_DigestFinal_ex(copy.get(), out.data(), &length) != 1) {
    throw std::runtime_error("cannot finish a digest");
  }
  out.resize(length);
  return out;
}

} // namespace kestrin
