#include "transport/HostIdentity.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "platform/NetworkProfile.h"

namespace kestrin::transport {

namespace {

bool endsWith(const std::string& text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool hasCapitals(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isupper(c) != 0; });
}

} // namespace

std::string hostNameFrom(const std::vector<std::string>& names, const std::string& primary) {
  std::string chosen;
  for (const std::string& name : names) {
    if (!endsWith(name, ".local.") && !endsWith(name, ".local")) {
      continue;
    }
    if (hasCapitals(name)) {
      chosen = name;
      break;
    }
    chosen = name;
  }
  if (chosen.empty()) {
    chosen = primary;
  }
  if (chosen.empty() || chosen.back() != '.') {
    chosen += '.';
  }
  return chosen;
}

std::string currentHostName() {
  platform::HostNames host = platform::hostNames();
  return hostNameFrom(host.names, host.primary);
}

std::string generateUUID() {
  std::array<unsigned char, 16> bytes{};
  std::ifstream random("/dev/urandom", std::ios::binary);
  if (!random.read(reinterpret_cast<char*>(bytes.data()), bytes.size())) {
    std::random_device device;
    for (auto& b : bytes) {
      b = static_cast<unsigned char>(device());
    }
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40); // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80); // RFC 4122 variant
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text += '-';
    }
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

} // namespace kestrin::transport
