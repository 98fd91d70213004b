#include "admin/console/ConsoleAccess.h"

#include <filesystem>
#include <thread>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <fmt/format.h>

#include "foundation/QVEncryption.h"
#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"

namespace kestrin::admin {

namespace {

constexpr int kIterations = 200000;
constexpr std::size_t kSessionLimit = 1000;
constexpr auto kSessionLife = std::chrono::hours(12);

std::string hex(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += fmt::format("{:02x}", bytes[i]);
  }
  return text;
}

std::optional<std::string> unhex(std::string_view text) {
  if (text.size() % 2 != 0) {
    return std::nullopt;
  }
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned value = 0;
    for (char c : text.substr(i, 2)) {
      value <<= 4;
      if (c >= '0' && c <= '9') {
        value |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        value |= static_cast<unsigned>(c - 'a' + 10);
      } else {
        return std::nullopt;
      }
    }
    bytes += static_cast<char>(value);
  }
  return bytes;
}

std::string derive(std::string_view password, const std::string& salt, int iterations) {
  unsigned char key[32];
  PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                    reinterpret_cast<const unsigned char*>(salt.data()),
                    static_cast<int>(salt.size()), iterations, EVP_sha256(), sizeof key, key);
  return std::string(reinterpret_cast<const char*>(key), sizeof key);
}

std::string randomHex(std::size_t bytes) {
  std::string random(bytes, '\0');
  RAND_bytes(reinterpret_cast<unsigned char*>(random.data()), static_cast<int>(bytes));
  return hex(reinterpret_cast<const unsigned char*>(random.data()), bytes);
}

} // namespace

ConsoleAccess::ConsoleAccess(std::optional<std::string> passwordHash)
    : passwordHash_(std::move(passwordHash)) {}

std::string ConsoleAccess::hashPassword(std::string_view password) {
  std::string salt(16, '\0');
  RAND_bytes(reinterpret_cast<unsigned char*>(salt.data()), static_cast<int>(salt.size()));
  std::string key = derive(password, salt, kIterations);
  return fmt::format("pbkdf2-sha256${}${}${}", kIterations,
                     hex(reinterpret_cast<const unsigned char*>(salt.data()), salt.size()),
                     hex(reinterpret_cast<const unsigned char*>(key.data()), key.size()));
}

bool ConsoleAccess::passwordMatches(const std::string& hash, std::string_view password) {
  // pbkdf2-sha256$ITERATIONS$SALT$KEY
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t at = hash.find('$'); parts.size() < 3 && at != std::string::npos;
       at = hash.find('$', start)) {
    parts.push_back(hash.substr(start, at - start));
    start = at + 1;
  }
  parts.push_back(hash.substr(start));
  if (parts.size() != 4 || parts[0] != "pbkdf2-sha256") {
    return false;
  }
  int iterations = 0;
  try {
    iterations = std::stoi(parts[1]);
  } catch (const std::exception&) {
    return false;
  }
  auto salt = unhex(parts[2]);
  auto key = unhex(parts[3]);
  if (iterations < 1000 || iterations > 10000000 || !salt || !key || key->size() != 32) {
    return false;
  }
  std::string derived = derive(password, *salt, iterations);
  return CRYPTO_memcmp(derived.data(), key->data(), key->size()) == 0;
}

Expected<std::string>
ConsoleAccess::loadOrCreatePassword(const std::string& path,
                                    const std::function<Expected<SecretBuffer>()>& ask) {
  if (auto stored = platform::readFileBytes(path, 4096)) {
    std::string hash(stored->begin(), stored->end());
    while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) {
      hash.pop_back();
    }
    return hash;
  }
  auto password = ask();
  if (!password) {
    return password.failure();
  }
  if (password->size() < 8) {
    return Failure{"the console password needs at least 8 characters"};
  }
  std::string hash = hashPassword(password->view());
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  if (auto written = platform::writeFileAtomically(path, hash + "\n", 0600); !written) {
    return Failure{
        fmt::format("cannot keep the console password in {}: {}", path, written.message())};
  }
  return hash;
}

std::string ConsoleAccess::session(const std::optional<std::string>& cookie, bool& created) {
  std::lock_guard lock(mutex_);
  expireLocked();
  created = false;
  if (cookie) {
    auto it = sessions_.find(*cookie);
    if (it != sessions_.end()) {
      it->second.lastUsed = std::chrono::steady_clock::now();
      return *cookie;
    }
  }
  std::string token = randomHex(32);
  Session& made = sessions_[token];
  made.lastUsed = std::chrono::steady_clock::now();
  created = true;
  return token;
}

void ConsoleAccess::expireLocked() {
  auto now = std::chrono::steady_clock::now();
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    it = now - it->second.lastUsed > kSessionLife ? sessions_.erase(it) : std::next(it);
  }
  // A flood of new sessions must not grow without end: the oldest go first.
  while (sessions_.size() >= kSessionLimit) {
    auto oldest = sessions_.begin();
    for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
      if (it->second.lastUsed < oldest->second.lastUsed) {
        oldest = it;
      }
    }
    sessions_.erase(oldest);
  }
}

bool ConsoleAccess::mayUse(const std::string& session) const {
  if (!passwordHash_) {
    return true;
  }
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(session);
  return it != sessions_.end() && it->second.loggedIn;
}

bool ConsoleAccess::logIn(const std::string& session, std::string_view password) {
  if (!passwordHash_) {
    return true;
  }
  int waited = 0;
  {
    std::lock_guard lock(mutex_);
    waited = failures_;
  }
  // Guessing costs time: each wrong password adds a quarter second, up to five.
  std::this_thread::sleep_for(std::chrono::milliseconds(std::min(waited, 20) * 250));
  bool right = passwordMatches(*passwordHash_, password);
  std::lock_guard lock(mutex_);
  failures_ = right ? 0 : failures_ + 1;
  auto it = sessions_.find(session);
  if (right && it != sessions_.end()) {
    it->second.loggedIn = true;
  }
  return right && it != sessions_.end();
}

void ConsoleAccess::setCredentials(const std::string& session, const std::string& user,
                                   SecretBuffer password) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(session);
  if (it != sessions_.end()) {
    it->second.user = user;
    it->second.password = std::move(password);
  }
}

void ConsoleAccess::forgetCredentials(const std::string& session) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(session);
  if (it != sessions_.end()) {
    it->second.user.reset();
    it->second.password = SecretBuffer();
  }
}

void ConsoleAccess::forgetAllCredentials() {
  std::lock_guard lock(mutex_);
  for (auto& [token, session] : sessions_) {
    session.user.reset();
    session.password = SecretBuffer();
  }
}

std::optional<std::pair<std::string, plist::Data>>
ConsoleAccess::credentials(const std::string& session) const {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(session);
  if (it == sessions_.end() || !it->second.user) {
    return std::nullopt;
  }
  return std::pair{*it->second.user, QVEncryption::encryptPassword(it->second.password.view())};
}

bool ConsoleAccess::hasCredentials(const std::string& session) const {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(session);
  return it != sessions_.end() && it->second.user.has_value();
}

} // namespace kestrin::admin
