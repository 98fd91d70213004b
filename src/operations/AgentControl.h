#pragma once

#include <functional>
#include <optional>
#include <string>

#include "plist/Value.h"

namespace kestrin::operations {

// What operation groups may ask of the agent's controller, and nothing more: its name, its
// connection and maintenance state, what it found at start-up, and the way out.
class AgentControl {
public:
  virtual ~AgentControl() = default;

  // The agent's name for itself ("name.local."), the first argument of most events.
  virtual std::string hostName() const = 0;
  virtual bool isConnected() const = 0;
  virtual bool maintenanceRequested() const = 0;
  // Ends the agent in order (stop the service, leave the main loop).
  virtual void disconnect() = 0;
  // The crash report of the previous run, once: the configuration reports it a single time.
  virtual std::optional<std::string> takeLastCrashLogPath() = 0;
  // The cached software-update count and the date it was taken (null until known).
  virtual plist::Value availableUpdateCount() const = 0;
  virtual plist::Value availableUpdateCountLastUpdate() const = 0;
  virtual void setAvailableUpdateCount(plist::Value count, plist::Value lastUpdate) = 0;
  // Runs `work` on the main thread and waits for it.
  virtual void runOnMainThreadAndWait(const std::function<void()>& work) = 0;
  virtual void setMenuBarItemShown(bool shown) = 0;
};

} // namespace kestrin::operations
