#pragma once

#include <string>

namespace kestrin::platform {

// "_kestrin._tcp." as Avahi takes it: without the trailing dot of the fully qualified form.
inline std::string avahiType(std::string type) {
  if (!type.empty() && type.back() == '.') {
    type.pop_back();
  }
  return type;
}

} // namespace kestrin::platform
