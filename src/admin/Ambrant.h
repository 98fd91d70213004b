#pragma once

#include <string>
#include <vector>

namespace kestrin::admin {

// The ambrant command line (arguments without the program name). Answers the exit status:
// 0 success, 1 the agent answered an error, 2 no agent could be reached or bad usage.
int ambrantMain(const std::vector<std::string>& arguments);

} // namespace kestrin::admin
