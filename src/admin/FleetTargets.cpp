#include "admin/FleetTargets.h"

#include <set>

#include <fmt/format.h>

#include "platform/FileBytes.h"
#include "platform/ServiceBrowser.h"

namespace kestrin::admin {

namespace {

// Ten thousand workstations' lines are far below this; anything larger is no hosts file.
constexpr std::size_t kMaxHostsFileBytes = 1 << 20;

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

} // namespace

Expected<std::vector<AgentAddress>> parseHosts(const std::string& text) {
  std::vector<AgentAddress> agents;
  std::set<std::string> seen;
  std::size_t number = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    std::string_view line(text.data() + start, end - start);
    start = end + 1;
    ++number;
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty()) {
      continue;
    }
    auto address = parseAgentAddress(std::string(line));
    if (!address) {
      return Failure{fmt::format("line {}: {}", number, address.message())};
    }
    if (seen.insert(addressText(*address)).second) {
      agents.push_back(*address);
    }
  }
  return agents;
}

Expected<std::vector<AgentAddress>> readHostsFile(const std::string& path) {
  auto bytes = platform::readFileBytes(path, kMaxHostsFileBytes);
  if (!bytes) {
    return Failure{fmt::format("cannot read {}: {}", path, bytes.message())};
  }
  auto agents = parseHosts(std::string(bytes->begin(), bytes->end()));
  if (!agents) {
    return Failure{fmt::format("{}, {}", path, agents.message())};
  }
  return agents;
}

Expected<std::vector<AgentAddress>> discoverAgents(std::chrono::milliseconds window) {
  auto found = platform::browseServices("_kestrin._tcp.", window);
  if (!found) {
    return found.failure();
  }
  std::vector<AgentAddress> agents;
  std::set<std::string> seen;
  for (const platform::FoundService& service : *found) {
    // The resolved address: a host's .local name may be one that only DNS-SD knows.
    AgentAddress address{service.address.empty() ? service.host : service.address, service.port};
    if (seen.insert(addressText(address)).second) {
      agents.push_back(address);
    }
  }
  return agents;
}

} // namespace kestrin::admin
