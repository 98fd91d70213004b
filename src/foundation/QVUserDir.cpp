#include "foundation/QVUserDir.h"

#include "foundation/QVLocalPaths.h"

namespace kestrin {

QVUserDir::QVUserDir() : userDir_(QVLocalPaths::shared().machine().home + "/") {}

QVUserDir& QVUserDir::sharedController() {
  static QVUserDir instance;
  return instance;
}

std::string QVUserDir::userDir() const {
  std::lock_guard lock(mutex_);
  return userDir_;
}

void QVUserDir::setUserDir(std::string userDir) {
  std::lock_guard lock(mutex_);
  userDir_ = std::move(userDir);
}

} // namespace kestrin
