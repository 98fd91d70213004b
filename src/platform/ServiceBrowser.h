#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/Expected.h"

namespace kestrin::platform {

struct FoundService {
  std::string name;
  std::string host;
  std::string address;
  int port = 0;
  std::vector<std::pair<std::string, std::string>> txt; // in the record's order
};

// Every service of the type that answers within the time limit, resolved. A Failure when no
// DNS-SD responder runs.
Expected<std::vector<FoundService>> browseServices(const std::string& type,
                                                   std::chrono::milliseconds limit);

} // namespace kestrin::platform
