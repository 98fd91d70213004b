#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"
#include "support/SecretBuffer.h"

namespace kestrin::admin {

// Who may use the browser console, and the administrator's credentials each browser gave it.
//
// A browser is known by a random session cookie. Bound to loopback, every session may use the
// console; bound beyond it, a session must first give the console password, which is kept only
// as a salted PBKDF2 hash in the console's configuration folder. Credentials for the agents are
// kept per session in memory, in wiped buffers, and never written anywhere.
//
// Thread-safe.
class ConsoleAccess {
public:
  // `passwordHash` is the stored hash when a console password is required, nullopt on loopback.
  explicit ConsoleAccess(std::optional<std::string> passwordHash);

  // The session a request belongs to: the cookie's when it names a live one, a new one
  // otherwise (`created` says so, and the answer goes in a Set-Cookie).
  std::string session(const std::optional<std::string>& cookie, bool& created);
  bool mayUse(const std::string& session) const;
  // Checks the console password; a wrong one makes the next check of any session wait longer.
  bool logIn(const std::string& session, std::string_view password);

  void setCredentials(const std::string& session, const std::string& user, SecretBuffer password);
  void forgetCredentials(const std::string& session);
  // After an agent refused a password: every session asks again.
  void forgetAllCredentials();
  // The user and the password encrypted for the agents, nullopt when none was given.
  std::optional<std::pair<std::string, plist::Data>> credentials(const std::string& session) const;
  bool hasCredentials(const std::string& session) const;

  // "pbkdf2-sha256$ITERATIONS$SALT$HASH" for a new password, and the check of one.
  static std::string hashPassword(std::string_view password);
  static bool passwordMatches(const std::string& hash, std::string_view password);
  // The stored hash, made from a first password when there is none yet (`ask` gives it).
  static Expected<std::string>
  loadOrCreatePassword(const std::string& path, const std::function<Expected<SecretBuffer>()>& ask);

private:
  struct Session {
    bool loggedIn = false;
    std::optional<std::string> user;
    SecretBuffer password;
    std::chrono::steady_clock::time_point lastUsed;
  };
  void expireLocked();

  std::optional<std::string> passwordHash_;
  mutable std::mutex mutex_;
  std::map<std::string, Session> sessions_;
  int failures_ = 0;
};

} // namespace kestrin::admin
