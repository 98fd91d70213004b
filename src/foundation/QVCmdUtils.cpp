#include "foundation/QVCmdUtils.h"

#include <unistd.h>

namespace kestrin {

QVCmdUtils& QVCmdUtils::sharedController() {
  static QVCmdUtils instance;
  return instance;
}

std::string QVCmdUtils::applicationPath() {
  char buffer[1024];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    return {};
  }
  return buffer;
}

} // namespace kestrin
