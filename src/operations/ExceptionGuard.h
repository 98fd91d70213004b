#pragma once

#include <functional>
#include <utility>

#include "support/NamedException.h"

namespace kestrin {

// The controller's exception convention for remote operations and the work they start: an
// exception of the named family is logged with the method's full name ("-[AppController
// setErrorCallback:]") and the operation answers its neutral value; a reply time-out on a
// remote object also restarts the service after 5 seconds unless the agent is quitting.
// Argument errors and exceptions of other kinds (our own bugs) go on to the caller.
class ExceptionGuard {
public:
  ExceptionGuard(std::function<bool()> isQuitting, std::function<void(double)> reconnect)
      : isQuitting_(std::move(isQuitting)), reconnect_(std::move(reconnect)) {}

  static constexpr double kTimeoutReconnectInterval = 5.0;

  void handle(const NamedException& exception, const char* method) const;

  template <typename T, typename Body> T run(const char* method, T neutral, Body&& body) const {
    try {
      return body();
    } catch (const ArgumentError&) {
      throw;
    } catch (const NamedException& exception) {
      handle(exception, method);
      return neutral;
    }
  }

  template <typename Body> void run(const char* method, Body&& body) const {
    try {
      body();
    } catch (const ArgumentError&) {
      throw;
    } catch (const NamedException& exception) {
      handle(exception, method);
    }
  }

private:
  std::function<bool()> isQuitting_;
  std::function<void(double)> reconnect_;
};

} // namespace kestrin
