#include "platform/SystemFacts.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <sys/utsname.h>
#include <unistd.h>

namespace kestrin::platform {

namespace {

std::optional<std::string> firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!std::getline(in, line)) {
    return std::nullopt;
  }
  line.erase(line.find_last_not_of(" \t\r\n") + 1);
  line.erase(0, line.find_first_not_of(" \t"));
  // Firmware fills unset fields with placeholders; they are as good as absent.
  if (line.empty() || line == "To Be Filled By O.E.M." || line == "Default string" ||
      line == "System Product Name") {
    return std::nullopt;
  }
  return line;
}

// "12.8" -> 12, 8, 0; "6.1.0-28-amd64" -> 6, 1, 0.
std::optional<std::array<unsigned, 3>> versionNumbers(const std::string& text) {
  std::array<unsigned, 3> parts{0, 0, 0};
  std::size_t at = 0;
  int found = 0;
  while (found < 3 && at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
    std::size_t end = at;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) {
      ++end;
    }
    parts[static_cast<std::size_t>(found++)] =
        static_cast<unsigned>(std::stoul(text.substr(at, end - at)));
    if (end >= text.size() || text[end] != '.') {
      break;
    }
    at = end + 1;
  }
  if (found == 0) {
    return std::nullopt;
  }
  return parts;
}

} // namespace

SystemFacts SystemFacts::current() {
  SystemFacts facts;
  facts.modelName = firstLine("/sys/class/dmi/id/product_name");
  facts.serialNumber = firstLine("/sys/class/dmi/id/product_serial");

  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("cpu MHz", 0) == 0) {
      auto colon = line.find(':');
      if (colon != std::string::npos) {
        facts.cpuHertz = static_cast<std::uint64_t>(std::stod(line.substr(colon + 1)) * 1e6);
      }
      break;
    }
  }
  facts.processorCount = static_cast<int>(std::max(1L, ::sysconf(_SC_NPROCESSORS_CONF)));
  long pages = ::sysconf(_SC_PHYS_PAGES);
  long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages > 0 && pageSize > 0) {
    facts.physicalMemoryMegabytes =
        static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize) / (1024 * 1024);
  }
  utsname names{};
  if (::uname(&names) == 0) {
    std::string machine = names.machine;
    facts.isX86 = machine == "x86_64" ||
                  (machine.size() == 4 && machine[0] == 'i' && machine.substr(2) == "86");
    facts.buildVersion = std::string(names.version);
  }
  if (auto debian = firstLine("/etc/debian_version")) {
    facts.systemVersion = versionNumbers(*debian);
  }
  if (!facts.systemVersion) {
    std::ifstream release("/etc/os-release");
    while (std::getline(release, line)) {
      if (line.rfind("VERSION_ID=", 0) == 0) {
        std::string value = line.substr(11);
        value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
        facts.systemVersion = versionNumbers(value);
      }
    }
  }
  return facts;
}

} // namespace kestrin::platform
