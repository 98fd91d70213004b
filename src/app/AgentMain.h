#pragma once

#include <string>
#include <vector>

namespace kestrin {

// The process entry: set-up mode with "-setup", otherwise the agent (after a five-second
// delay with "-wait"); "--help" and "--version" print and answer 0; an unknown option prints
// what is wrong and the usage and answers 64 without starting anything.
int agentMain(const std::vector<std::string>& arguments);

} // namespace kestrin
