#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "plist/Value.h"

struct evp_md_ctx_st;

namespace kestrin {

// A running MD5, SHA-1 or SHA-256 digest, fed piece by piece while a file streams past (the
// verified copy feeds one per destination). Copying a context copies its state, so a copy can be
// finished while the original goes on. The two algorithms are separate types, so a finisher
// cannot be handed the wrong one.
class DigestContext {
public:
  DigestContext(const DigestContext& other);
  DigestContext& operator=(const DigestContext& other);
  DigestContext(DigestContext&&) noexcept = default;
  DigestContext& operator=(DigestContext&&) noexcept = default;
  ~DigestContext();

  void update(std::span<const std::uint8_t> bytes);
  void update(std::string_view text);

  // The digest of everything fed so far; the context stays as it was.
  plist::Data digest() const;

protected:
  enum class Algorithm { MD5, SHA1, SHA256 };
  explicit DigestContext(Algorithm algorithm);

private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

class Md5Context final : public DigestContext {
public:
  Md5Context() : DigestContext(Algorithm::MD5) {}
};

class Sha1Context final : public DigestContext {
public:
  Sha1Context() : DigestContext(Algorithm::SHA1) {}
};

class Sha256Context final : public DigestContext {
public:
  Sha256Context() : DigestContext(Algorithm::SHA256) {}
};

} // namespace kestrin
