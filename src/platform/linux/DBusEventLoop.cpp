#include "platform/linux/DBusEventLoop.h"

#include <sdbus-c++/Error.h>

namespace kestrin::platform {

DBusEventLoop::DBusEventLoop(sdbus::IConnection& connection, LostHandler lost)
    : connection_(connection), lost_(std::move(lost)), thread_([this] { run(); }) {}

DBusEventLoop::~DBusEventLoop() {
  leaving_ = true;
  // Leaving writes to the loop's own wake-up descriptor, never to the bus: safe on a lost one,
  // and remembered when the loop has not begun yet.
  connection_.leaveEventLoop();
  thread_.join();
}

void DBusEventLoop::run() {
  std::string reason;
  try {
    connection_.enterEventLoop();
    if (leaving_) {
      return;
    }
    reason = "the bus's event loop ended";
  } catch (const sdbus::Error& e) {
    reason = e.getName() + ": " + e.getMessage();
  }
  running_ = false;
  if (lost_) {
    lost_(reason);
  }
}

} // namespace kestrin::platform
