#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <sys/prctl.h>

#include "app/AgentMain.h"

int main(int argc, char** argv) {
  // First of all: the agent runs as the console user and holds administrators' passwords, so
  // that user must not read them out of its memory or environment (ptrace, /proc/<pid>/mem,
  // /proc/<pid>/environ, a core file). A process that is not dumpable is closed to its own user;
  // its /proc/<pid>/ entries then belong to root.
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  std::vector<std::string> arguments(argv, argv + argc);
  return kestrin::agentMain(arguments);
}
