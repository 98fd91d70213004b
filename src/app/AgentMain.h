#pragma once

#include <string>
#include <vector>

namespace kestrin {

// The process entry: set-up mode with "-setup", otherwise the agent (after a five-second
// delay with "-wait"). Always answers 0.
int agentMain(const std::vector<std::string>& arguments);

} // namespace kestrin
