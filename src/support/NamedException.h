#pragma once

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

// A remote caller passed the wrong number or kind of arguments. The exception guard of the remote
// operations lets it through to the caller instead of answering a neutral value, so the admin
// side learns what it did wrong.
class ArgumentError : public NamedException {
public:
  explicit ArgumentError(const std::string& reason)
      : NamedException(std::string(kInvalidArgumentException), reason) {}
};

} // namespace kestrin
