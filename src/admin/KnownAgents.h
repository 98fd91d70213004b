#pragma once

#include <optional>
#include <string>

#include "support/Expected.h"

namespace kestrin::admin {

// The agents this console has met, the way SSH knows hosts: "HOST:PORT FINGERPRINT" a line, in
// the console's configuration folder. The first contact with an agent records its certificate's
// fingerprint; a later contact that presents another one is refused until the administrator
// says the change is expected (ambrant trust).
class KnownAgents {
public:
  explicit KnownAgents(std::string path) : path_(std::move(path)) {}

  enum class Standing { Known, New, Changed };
  Standing standing(const std::string& where, const std::string& fingerprint) const;
  // The fingerprint recorded for the agent at `where`.
  std::optional<std::string> recorded(const std::string& where) const;
  // Records `fingerprint` for `where`, replacing what was recorded before.
  Expected<void> record(const std::string& where, const std::string& fingerprint) const;

  const std::string& path() const { return path_; }

private:
  std::string path_;
};

// Where the console keeps what it knows: $XDG_CONFIG_HOME/ambrant, or ~/.config/ambrant.
std::string consoleConfigurationFolder();

} // namespace kestrin::admin
