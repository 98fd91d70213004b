#include "operations/PathComponents.h"

#include <algorithm>

namespace kestrin::operations {

std::vector<std::string> stripComponents(const std::vector<std::string>& base,
                                         const std::vector<std::string>& path) {
  std::vector<std::string> result = path;
  if (base.empty()) {
    return result;
  }
  if (base.size() == 1) {
    std::erase(result, base.front());
    return result;
  }
  auto first = std::find(result.begin(), result.end(), base.front());
  auto last = std::find(result.begin(), result.end(), base.back());
  if (first != result.end() && last != result.end() && first <= last) {
    result.erase(first, last + 1);
  }
  return result;
}

} // namespace kestrin::operations
