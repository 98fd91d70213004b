#include "platform/SystemFacts.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include <sys/utsname.h>
#include <unistd.h>

namespace kestrin::platform {

namespace {

namespace fs = std::filesystem;

std::string_view trimmed(std::string_view text) {
  // NUL is there because device-tree strings end in one.
  constexpr std::string_view kSpace = " \t\r\n\v\f";
  constexpr std::string_view kSpaceOrNul{" \t\r\n\v\f\0", 7};
  std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) {
    return {};
  }
  std::size_t last = text.find_last_not_of(kSpaceOrNul);
  return text.substr(first, last == std::string_view::npos ? 0 : last - first + 1);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// Firmware fills the fields that nobody set with such texts; they are as good as absent.
bool isPlaceholder(std::string_view value) {
  static constexpr std::array<std::string_view, 10> kPlaceholders = {"To Be Filled By O.E.M.",
                                                                     "Default string",
                                                                     "System Product Name",
                                                                     "System Serial Number",
                                                                     "Not Specified",
                                                                     "Not Applicable",
                                                                     "None",
                                                                     "Unknown",
                                                                     "0",
                                                                     "0123456789"};
  return std::any_of(kPlaceholders.begin(), kPlaceholders.end(),
                     [&](std::string_view p) { return equalsIgnoringCase(value, p); });
}

std::optional<std::string> readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The first line of a one-value file, trimmed; absent when empty or a placeholder.
std::optional<std::string> valueIn(const fs::path& path) {
  auto text = readText(path);
  if (!text) {
    return std::nullopt;
  }
  std::string_view line = trimmed(std::string_view(*text).substr(0, text->find('\n')));
  if (line.empty() || isPlaceholder(line)) {
    return std::nullopt;
  }
  return std::string(line);
}

template <typename Number> std::optional<Number> numberIn(std::string_view text) {
  text = trimmed(text);
  Number value{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end == text.data()) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::uint64_t> hertzFromKilohertzFile(const fs::path& path) {
  auto text = readText(path);
  auto kilohertz = text ? numberIn<std::uint64_t>(*text) : std::nullopt;
  if (!kilohertz || *kilohertz == 0) {
    return std::nullopt;
  }
  return *kilohertz * 1000;
}

std::optional<std::uint64_t> hertzFromMegahertz(double megahertz) {
  if (!std::isfinite(megahertz) || megahertz <= 0 || megahertz > 1e7) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(std::llround(megahertz * 1e6));
}

// The value of the first "key : value" line of /proc/cpuinfo with that key.
std::optional<std::string_view> cpuinfoField(std::string_view cpuinfo, std::string_view key) {
  std::size_t at = 0;
  while (at < cpuinfo.size()) {
    std::size_t end = cpuinfo.find('\n', at);
    std::string_view line = cpuinfo.substr(at, end == std::string_view::npos ? end : end - at);
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && trimmed(line.substr(0, colon)) == key) {
      return trimmed(line.substr(colon + 1));
    }
    if (end == std::string_view::npos) {
      break;
    }
    at = end + 1;
  }
  return std::nullopt;
}

// "Intel(R) Xeon(R) CPU X5650 @ 2.67GHz" names the nominal speed, which "cpu MHz" (the speed
// of the moment under frequency scaling) does not.
std::optional<std::uint64_t> hertzFromModelName(std::string_view model) {
  std::size_t at = model.rfind('@');
  std::size_t unit = model.rfind("GHz");
  if (at == std::string_view::npos || unit == std::string_view::npos || unit < at) {
    return std::nullopt;
  }
  auto gigahertz = numberIn<double>(model.substr(at + 1, unit - at - 1));
  return gigahertz ? hertzFromMegahertz(*gigahertz * 1000) : std::nullopt;
}

std::optional<std::uint64_t> processorHertz(const fs::path& root) {
  const fs::path cpufreq = root / "sys/devices/system/cpu/cpu0/cpufreq";
  if (auto base = hertzFromKilohertzFile(cpufreq / "base_frequency")) {
    return base;
  }
  auto cpuinfo = readText(root / "proc/cpuinfo");
  if (cpuinfo) {
    if (auto model = cpuinfoField(*cpuinfo, "model name")) {
      if (auto hertz = hertzFromModelName(*model)) {
        return hertz;
      }
    }
  }
  if (auto maximum = hertzFromKilohertzFile(cpufreq / "cpuinfo_max_freq")) {
    return maximum;
  }
  if (cpuinfo) {
    if (auto megahertz = cpuinfoField(*cpuinfo, "cpu MHz")) {
      if (auto value = numberIn<double>(*megahertz)) {
        return hertzFromMegahertz(*value);
      }
    }
  }
  return std::nullopt;
}

// "12.11" -> 12, 11, 0; "22.04" -> 22, 4, 0; "bookworm/sid" -> absent.
std::optional<std::array<unsigned, 3>> versionNumbers(std::string_view text) {
  std::array<unsigned, 3> parts{0, 0, 0};
  const char* at = text.data();
  const char* end = text.data() + text.size();
  std::size_t found = 0;
  while (found < parts.size()) {
    auto [next, error] = std::from_chars(at, end, parts[found]);
    if (error != std::errc()) {
      break;
    }
    ++found;
    if (next == end || *next != '.') {
      break;
    }
    at = next + 1;
  }
  if (found == 0) {
    return std::nullopt;
  }
  return parts;
}

std::optional<std::array<unsigned, 3>> releaseVersion(const fs::path& root) {
  // Debian's point release ("12.11") is only here; os-release says "12".
  if (auto debian = valueIn(root / "etc/debian_version")) {
    if (auto version = versionNumbers(*debian)) {
      return version;
    }
  }
  for (const char* candidate : {"etc/os-release", "usr/lib/os-release"}) {
    auto text = readText(root / candidate);
    if (!text) {
      continue;
    }
    std::string_view rest(*text);
    while (!rest.empty()) {
      std::size_t end = rest.find('\n');
      std::string_view line = trimmed(rest.substr(0, end));
      rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
      if (line.starts_with("VERSION_ID=")) {
        std::string_view value = line.substr(11);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
          value = value.substr(1, value.size() - 2);
        }
        return versionNumbers(value);
      }
    }
    return std::nullopt;
  }
  return std::nullopt;
}

} // namespace

SystemFacts SystemFacts::fromFiles(const std::string& root) {
  const fs::path base(root);
  SystemFacts facts;
  facts.modelName = valueIn(base / "sys/class/dmi/id/product_name");
  if (!facts.modelName) {
    // Boards without firmware tables (most ARM machines) name themselves in the device tree.
    facts.modelName = valueIn(base / "proc/device-tree/model");
  }
  facts.serialNumber = valueIn(base / "sys/class/dmi/id/product_serial");
  facts.cpuHertz = processorHertz(base);
  facts.systemVersion = releaseVersion(base);
  return facts;
}

SystemFacts SystemFacts::current() {
  SystemFacts facts = fromFiles("/");
  facts.processorCount = static_cast<int>(std::max(1L, ::sysconf(_SC_NPROCESSORS_CONF)));
  long pages = ::sysconf(_SC_PHYS_PAGES);
  long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages > 0 && pageSize > 0) {
    facts.physicalMemoryMegabytes =
        static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize) / (1024ULL * 1024);
  }
  utsname names{};
  if (::uname(&names) == 0) {
    std::string_view machine = names.machine;
    facts.isX86 = machine == "x86_64" ||
                  (machine.size() == 4 && machine[0] == 'i' && machine.substr(2) == "86");
    facts.buildVersion = std::string(names.version);
  }
  return facts;
}

} // namespace kestrin::platform
