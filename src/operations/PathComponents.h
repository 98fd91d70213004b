#pragma once

#include <string>
#include <vector>

namespace kestrin::operations {

// The path's components without those of a base: none leaves them as they are; one removes
// every occurrence of it; more remove the run from the first occurrence of the base's first
// component to the first occurrence of its last, when both occur in that order.
std::vector<std::string> stripComponents(const std::vector<std::string>& base,
                                         const std::vector<std::string>& path);

} // namespace kestrin::operations
