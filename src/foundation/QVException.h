#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kestrin {

// An exception that carries a name besides its reason, as the controller's exception
// convention classifies exceptions by name. what() is the reason.
//
// The transport raises these for remote-object failures: kPortTimeoutException when a call
// exceeds its reply time limit (the one name that makes the agent restart its service), and
// kInvalidSendPortException when the peer's connection is gone (the object is dropped, no
// restart).
class NamedException : public std::runtime_error {
public:
  NamedException(std::string name, const std::string& reason)
      : std::runtime_error(reason), name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  std::string_view reason() const { return what(); }

private:
  std::string name_;
};

inline constexpr std::string_view kPortTimeoutException = "NSPortTimeoutException";
inline constexpr std::string_view kInvalidSendPortException = "NSInvalidSendPortException";
// What a failed tool launch is called in logs, as the platform's task launcher named it.
inline constexpr std::string_view kInvalidArgumentException = "NSInvalidArgumentException";

// The two class-level operations of the agent's exception convention. No state.
class QVException {
public:
  // Logs and prints "Exception in %s. %@ - %@." with the method's full name ("-[QVTaskEx
  // launchAsyncTask]"), the exception's name and its reason, and answers that text.
  static std::string logException(const std::exception& exception, const char* method);

  // True exactly when the exception's name is "NSPortTimeoutException".
  static bool didTimeout(const std::exception& exception);

  // A NamedException's name; for any other exception its demangled type ("std::bad_alloc"),
  // which is what a log reader needs to tell a programming error from a failed call.
  static std::string name(const std::exception& exception);
};

} // namespace kestrin
