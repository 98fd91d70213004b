#pragma once

#include <cerrno>
#include <cstring>
#include <string>

namespace kestrin {

// Runs a system call, repeating it while it fails with EINTR. Answers the call's result;
// errno is left as the failing call set it.
template <typename F> auto retryOnEintr(F&& call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

// "what: strerror(errno)" for Failure messages.
inline std::string errnoMessage(const std::string& what, int error = errno) {
  return what + ": " + std::strerror(error);
}

} // namespace kestrin
