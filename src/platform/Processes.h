#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace kestrin::platform {

// A live process and the program it runs, as far as this process may see it.
struct RunningProcess {
  pid_t pid = 0;
  std::string executable;
};

// Every process whose executable this process may read (its own user's, or all for root), from
// /proc. Processes that end while they are listed are simply left out.
std::vector<RunningProcess> runningProcesses();

// The processes whose executable lies inside `folder` (an application bundle).
std::vector<RunningProcess> processesInside(const std::string& folder);

} // namespace kestrin::platform
