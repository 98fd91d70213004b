#include "platform/NetworkProfile.h"

#include <arpa/inet.h>
#include <climits>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace kestrin::platform {

namespace {

std::string firstLine(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// What the profiler calls the interface: its kind, as a user would name it.
std::string displayName(const std::string& interface) {
  std::filesystem::path sys = std::filesystem::path("/sys/class/net") / interface;
  std::error_code ec;
  if (std::filesystem::exists(sys / "wireless", ec)) {
    return "Wi-Fi";
  }
  std::string type = firstLine(sys / "type");
  if (type == "772") {
    return "Loopback";
  }
  if (type == "1") {
    return "Ethernet";
  }
  return interface;
}

} // namespace

plist::Value networkDataType() {
  std::map<std::string, plist::Array> addresses;
  std::vector<std::string> order;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) == 0) {
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      std::string name = entry->ifa_name;
      if (addresses.emplace(name, plist::Array{}).second) {
        order.push_back(name);
      }
      if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
        char text[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
                    sizeof text);
        addresses[name].push_back(std::string(text));
      }
    }
    ::freeifaddrs(list);
  }
  plist::Array items;
  for (const std::string& name : order) {
    std::string mac = firstLine(std::filesystem::path("/sys/class/net") / name / "address");
    plist::Dictionary item{{"_name", displayName(name)}, {"interface", name}};
    if (!mac.empty()) {
      item.set("Ethernet", plist::Dictionary{{"MAC Address", mac}});
    }
    if (!addresses[name].empty()) {
      item.set("ip_address", addresses[name]);
    }
    items.push_back(std::move(item));
  }
  return plist::Array{
      plist::Dictionary{{"_dataType", "SPNetworkDataType"}, {"_items", std::move(items)}}};
}

HostNames hostNames() {
  char buffer[HOST_NAME_MAX + 1] = {};
  ::gethostname(buffer, sizeof buffer - 1);
  HostNames result{buffer, {buffer}};
  if (result.primary.find('.') == std::string::npos) {
    result.names.push_back(result.primary + ".local");
  }
  addrinfo hints{};
  hints.ai_flags = AI_CANONNAME;
  addrinfo* found = nullptr;
  if (::getaddrinfo(result.primary.c_str(), nullptr, &hints, &found) == 0) {
    for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
      if (entry->ai_canonname != nullptr) {
        result.names.emplace_back(entry->ai_canonname);
      }
    }
    ::freeaddrinfo(found);
  }
  return result;
}

} // namespace kestrin::platform
