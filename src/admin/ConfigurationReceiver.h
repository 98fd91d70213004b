#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::admin {

// The object an admin hands to fetchInitialConfiguration:; the agent sends it the full
// configuration dictionary through processConfiguration:.
class ConfigurationReceiver : public plist::RemoteObject {
public:
  // The configuration once it has arrived, waiting at most `timeout` for it.
  std::optional<plist::Dictionary> waitForConfiguration(std::chrono::milliseconds timeout);

  std::string description() const override { return "<ConfigurationReceiver>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<plist::Dictionary> configuration_;
};

} // namespace kestrin::admin
