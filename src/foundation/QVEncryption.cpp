#include "foundation/QVEncryption.h"

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>
#include <string.h>

namespace kestrin {

namespace {

constexpr std::size_t kBlock = 16;
using Key = std::array<unsigned char, 32>;

Key keyFor(std::string_view passphrase) {
  Key key{};
  std::copy_n(passphrase.begin(), std::min(passphrase.size(), key.size()), key.begin());
  return key;
}

// One cipher context driven a block at a time with padding off, so the block handling above
// it stays the scheme's own.
class BlockCipher {
public:
  BlockCipher(const Key& key, bool encrypt) : context_(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free) {
    if (!context_ ||
        EVP_CipherInit_ex(context_.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr,
                          encrypt ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(context_.get(), 0) != 1) {
      throw std::runtime_error("AES-256 is not available");
    }
  }

  void process(const unsigned char* in, unsigned char* out) {
    int length = 0;
    if (EVP_CipherUpdate(context_.get(), out, &length, in, static_cast<int>(kBlock)) != 1 ||
        length != static_cast<int>(kBlock)) {
      throw std::runtime_error("AES block operation failed");
    }
  }

private:
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context_;
};

bool isSpace(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool isUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    std::size_t length = c < 0x80         ? 1
                         : (c >> 5) == 6  ? 2
                         : (c >> 4) == 14 ? 3
                         : (c >> 3) == 30 ? 4
                                          : 0;
    if (length == 0 || i + length > text.size()) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
        return false;
      }
    }
    i += length;
  }
  return true;
}

} // namespace

plist::Data QVEncryption::AESEncryptData(const plist::Data& data, std::string_view passphrase) {
  BlockCipher cipher(keyFor(passphrase), true);
  plist::Data out;
  out.reserve((data.size() + kBlock - 1) / kBlock * kBlock);
  std::array<unsigned char, kBlock> block{};
  for (std::size_t at = 0; at < data.size(); at += kBlock) {
    std::size_t n = std::min(kBlock, data.size() - at);
    block.fill(' ');
    std::copy_n(data.begin() + static_cast<long>(at), n, block.begin());
    std::array<unsigned char, kBlock> encrypted{};
    cipher.process(block.data(), encrypted.data());
    out.insert(out.end(), encrypted.begin(), encrypted.end());
  }
  ::explicit_bzero(block.data(), block.size()); // a password's last block
  return out;
}

plist::Data QVEncryption::AESDecryptData(const plist::Data& data, std::string_view passphrase) {
  BlockCipher cipher(keyFor(passphrase), false);
  plist::Data out;
  // A short final block keeps the previous block's cipher bytes behind its own, as the
  // original routine's buffer did.
  std::array<unsigned char, kBlock> block{};
  for (std::size_t at = 0; at < data.size(); at += kBlock) {
    std::size_t n = std::min(kBlock, data.size() - at);
    std::copy_n(data.begin() + static_cast<long>(at), n, block.begin());
    std::array<unsigned char, kBlock> decrypted{};
    cipher.process(block.data(), decrypted.data());
    out.insert(out.end(), decrypted.begin(), decrypted.end());
  }
  return out;
}

plist::Data QVEncryption::encryptPassword(std::string_view password) {
  // The plain text passes through a buffer of our own: wiped before it is freed.
  plist::Data plain(password.begin(), password.end());
  plist::Data encrypted = AESEncryptData(plain, kPasscode);
  ::explicit_bzero(plain.data(), plain.size());
  return encrypted;
}

SecretBuffer QVEncryption::decryptPassword(const plist::Data& data) {
  if (data.empty()) {
    return {};
  }
  // Decrypted straight into the buffer: AESDecryptData's answer would leave the plain text in
  // a vector nobody wipes.
  BlockCipher cipher(keyFor(kPasscode), false);
  SecretBuffer plain((data.size() + kBlock - 1) / kBlock * kBlock);
  std::array<unsigned char, kBlock> block{};
  std::array<unsigned char, kBlock> decrypted{};
  for (std::size_t at = 0; at < data.size(); at += kBlock) {
    std::size_t n = std::min(kBlock, data.size() - at);
    std::copy_n(data.begin() + static_cast<long>(at), n, block.begin());
    cipher.process(block.data(), decrypted.data());
    plain.append(decrypted.data(), decrypted.size());
  }
  ::explicit_bzero(decrypted.data(), decrypted.size());
  if (!isUtf8(plain.view())) {
    return {}; // undecodable text counts as no password
  }
  std::string_view text = plain.view();
  std::size_t first = 0;
  std::size_t last = text.size();
  while (first < last && isSpace(static_cast<unsigned char>(text[first]))) {
    ++first;
  }
  while (last > first && isSpace(static_cast<unsigned char>(text[last - 1]))) {
    --last;
  }
  plain.keep(first, last - first);
  return plain;
}

} // namespace kestrin
