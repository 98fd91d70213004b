#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include <sdbus-c++/IConnection.h>

namespace kestrin::platform {

// Runs a bus connection's event loop on a thread of its own, and survives the end of the bus.
// sdbus-c++'s own asynchronous loop throws from its thread when the bus goes away, which ends
// the whole process; here the loop's error is caught, the loop ends, and `lost` is told why.
// Nothing on a lost connection recovers: its owner builds a new one.
class DBusEventLoop {
public:
  using LostHandler = std::function<void(const std::string& reason)>;

  // Starts the loop. lost runs on the loop's thread, once, after the loop has ended; it must
  // not destroy this object.
  DBusEventLoop(sdbus::IConnection& connection, LostHandler lost);
  // Leaves the loop (if it still runs) and joins its thread. Not from a handler on that thread.
  ~DBusEventLoop();
  DBusEventLoop(const DBusEventLoop&) = delete;
  DBusEventLoop& operator=(const DBusEventLoop&) = delete;

  // False once the bus went away.
  bool running() const { return running_; }

private:
  void run();

  sdbus::IConnection& connection_;
  LostHandler lost_;
  std::atomic<bool> running_{true};
  std::atomic<bool> leaving_{false};
  std::thread thread_; // last: started once the members above exist
};

} // namespace kestrin::platform
