#include "admin/KnownAgents.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>

#include <fmt/format.h>

#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"
#include "transport/TlsIdentity.h"

namespace kestrin::admin {

namespace {

constexpr std::size_t kMaxFileBytes = 16 * 1024 * 1024;

std::string readAll(const std::string& path) {
  auto bytes = platform::readFileBytes(path, kMaxFileBytes);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

} // namespace

std::string consoleConfigurationFolder() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') {
    return std::string(config) + "/ambrant";
  }
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") + "/.config/ambrant";
}

std::optional<std::string> KnownAgents::recorded(const std::string& where) const {
  std::istringstream lines(readAll(path_));
  std::optional<std::string> found;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string host;
    std::string fingerprint;
    if (words >> host >> fingerprint && host == where) {
      found = transport::normalizedFingerprint(fingerprint);
    }
  }
  return found;
}

KnownAgents::Standing KnownAgents::standing(const std::string& where,
                                            const std::string& fingerprint) const {
  auto known = recorded(where);
  if (!known) {
    return Standing::New;
  }
  return *known == fingerprint ? Standing::Known : Standing::Changed;
}

Expected<void> KnownAgents::record(const std::string& where, const std::string& fingerprint) const {
  // A fleet meets many new agents at once: each record rewrites the file from what it read,
  // so two at a time would lose one of them.
  static std::mutex recording;
  std::lock_guard lock(recording);
  std::istringstream lines(readAll(path_));
  std::string kept;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string host;
    if (words >> host && host == where) {
      continue;
    }
    kept += line + "\n";
  }
  kept += where + " " + fingerprint + "\n";
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), error);
  if (error) {
    return Failure{fmt::format("cannot create the folder of {}: {}", path_, error.message())};
  }
  return platform::writeFileAtomically(path_, kept, 0600);
}

} // namespace kestrin::admin
