#pragma once

#include <exception>
#include <string>

#include "support/NamedException.h"

namespace kestrin {

// The two class-level operations of the agent's exception convention. No state.
class QVException {
public:
  // Logs and prints "Exception in %s. %@ - %@." with the method's full name ("-[QVTaskEx
  // launchAsyncTask]"), the exception's name and its reason, and answers that text.
  static std::string logException(const std::exception& exception, const char* method);

  // True exactly when the exception is the transport's own reply time-out
  // (PortTimeoutException). A peer's exception that merely bears the name
  // "NSPortTimeoutException" is not one, so no caller can make the agent restart its service.
  static bool didTimeout(const std::exception& exception);

  // A NamedException's name; for any other exception its demangled type ("std::bad_alloc"),
  // which is what a log reader needs to tell a programming error from a failed call.
  static std::string name(const std::exception& exception);
};

} // namespace kestrin
