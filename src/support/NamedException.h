#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kestrin {

// An exception that carries a name besides its reason, as the controller's exception
// convention classifies exceptions by name. what() is the reason.
//
// The transport raises these for remote-object failures: PortTimeoutException (below) when a
// call exceeds its reply time limit, and kInvalidSendPortException when the peer's connection is
// gone (the object is dropped, no restart). A peer's own exceptions arrive under the names it
// gave them, so a name alone never proves where an exception came from.
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

// The transport's own reply time-out: a call to a remote object got no answer within its
// connection's limit. Only this type counts as a time-out of the agent's connections (the
// controller restarts its service on one); an exception that a peer raised under the name
// "NSPortTimeoutException" is a plain NamedException and restarts nothing.
class PortTimeoutException : public NamedException {
public:
  explicit PortTimeoutException(const std::string& reason)
      : NamedException(std::string(kPortTimeoutException), reason) {}
};

// A call refused for want of room: the caller has too many calls running, or what the calls in
// flight hold already fills the agent's allowance. The call itself may succeed later.
inline constexpr std::string_view kBusyException = "KestrinBusyException";

// A remote caller passed the wrong number or kind of arguments. The exception guard of the remote
// operations lets it through to the caller instead of answering a neutral value, so the admin
// side learns what it did wrong.
class ArgumentError : public NamedException {
public:
  explicit ArgumentError(const std::string& reason)
      : NamedException(std::string(kInvalidArgumentException), reason) {}
};

} // namespace kestrin
