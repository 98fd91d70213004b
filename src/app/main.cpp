#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "app/AgentMain.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv, argv + argc);
  return kestrin::agentMain(arguments);
}
