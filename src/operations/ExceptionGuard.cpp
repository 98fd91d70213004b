#include "operations/ExceptionGuard.h"

#include "foundation/QVException.h"

namespace kestrin {

void ExceptionGuard::handle(const NamedException& exception, const char* method) const {
  QVException::logException(exception, method);
  if (QVException::didTimeout(exception) && !(isQuitting_ && isQuitting_()) && reconnect_) {
    reconnect_(kTimeoutReconnectInterval);
  }
}

} // namespace kestrin
