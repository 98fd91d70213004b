#pragma once

#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::platform {

// The machine's network interfaces in the shape of the platform profiler's network data type:
// an array whose first element is {"_dataType": "SPNetworkDataType", "_items": [...]}, each
// item {"_name", "interface", "Ethernet": {"MAC Address"}, "ip_address": [IPv4 ...]}. MAC
// addresses are written as the kernel writes them (lower-case hexadecimal with colons).
plist::Value networkDataType();

// The names this host goes by: its own name (gethostname), that name's ".local" form when it
// has no domain, and the canonical names the resolver gives for it, in that order.
struct HostNames {
  std::string primary;
  std::vector<std::string> names;
};
HostNames hostNames();

} // namespace kestrin::platform
