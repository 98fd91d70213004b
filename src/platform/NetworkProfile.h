#pragma once

#include "plist/Value.h"

namespace kestrin::platform {

// The machine's network interfaces in the shape of the platform profiler's network data type:
// an array whose first element is {"_dataType": "SPNetworkDataType", "_items": [...]}, each
// item {"_name", "interface", "Ethernet": {"MAC Address"}, "ip_address": [IPv4 ...]}. MAC
// addresses are written as the kernel writes them (lower-case hexadecimal with colons).
plist::Value networkDataType();

} // namespace kestrin::platform
