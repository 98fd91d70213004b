#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "admin/AdminClient.h"
#include "support/Expected.h"

namespace kestrin::admin {

// The agents a fleet command reaches: the lines of a hosts file, for networks without
// multicast, or what DNS-SD finds.
//
// A hosts file holds one HOST:PORT a line; blank lines and text after '#' are ignored, and an
// agent named twice is reached once. A line that is no address fails the whole file, naming the
// line: a typo must not silently leave a workstation out.
Expected<std::vector<AgentAddress>> readHostsFile(const std::string& path);
Expected<std::vector<AgentAddress>> parseHosts(const std::string& text);

// Every agent advertised as _kestrin._tcp. that answers within `window`, at the address the
// responder resolved. A Failure when no DNS-SD responder runs.
Expected<std::vector<AgentAddress>> discoverAgents(std::chrono::milliseconds window);

} // namespace kestrin::admin
