#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrin::platform {

// What the machine says about itself. A fact the system does not offer is absent, and the
// system-information class answers its documented fallback instead.
struct SystemFacts {
  std::optional<std::string> modelName;    // the hardware's product name
  std::optional<std::string> serialNumber; // readable by root only on most machines
  std::optional<std::uint64_t> cpuHertz;
  int processorCount = 1;
  bool isX86 = false;
  std::optional<std::uint64_t> physicalMemoryMegabytes;
  std::optional<std::array<unsigned, 3>> systemVersion; // the distribution's release
  std::optional<std::string> buildVersion;              // the running kernel's build

  // Read afresh from /sys/class/dmi/id, /proc/cpuinfo, sysconf, uname and /etc.
  static SystemFacts current();
};

} // namespace kestrin::platform
