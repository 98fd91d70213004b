#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrin::platform {

// What the machine says about itself. A fact the system does not offer is absent, and the
// system-information class answers its documented fallback instead. Tests build one by hand to
// stand in for a machine.
struct SystemFacts {
  std::optional<std::string> modelName;    // the hardware's product name
  std::optional<std::string> serialNumber; // readable by root only on most machines
  std::optional<std::uint64_t> cpuHertz;   // nominal speed of one processor
  int processorCount = 1;
  bool isX86 = false;
  std::optional<std::uint64_t> physicalMemoryMegabytes;
  std::optional<std::array<unsigned, 3>> systemVersion; // the distribution's release
  std::optional<std::string> buildVersion;              // the running kernel's build

  // This machine, read afresh: fromFiles("/") plus the processor count and memory (sysconf)
  // and the architecture and kernel build (uname).
  static SystemFacts current();

  // The facts that live in files below root: the model and serial number (/sys/class/dmi/id,
  // or the device tree's model), the processor speed (cpufreq, then /proc/cpuinfo) and the
  // release (/etc/debian_version, then /etc/os-release). Missing, unreadable, placeholder or
  // malformed entries leave the fact absent; nothing throws.
  static SystemFacts fromFiles(const std::string& root);
};

} // namespace kestrin::platform
