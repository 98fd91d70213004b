#include "admin/ConfigurationReceiver.h"

#include "support/NamedException.h"

namespace kestrin::admin {

std::optional<plist::Dictionary>
ConfigurationReceiver::waitForConfiguration(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, timeout, [this] { return configuration_.has_value(); });
  return configuration_;
}

bool ConfigurationReceiver::respondsTo(const std::string& selector) {
  return selector == "processConfiguration:";
}

plist::Value ConfigurationReceiver::invoke(const std::string& selector,
                                           std::vector<plist::Value> arguments) {
  if (selector != "processConfiguration:") {
    throw ArgumentError("ConfigurationReceiver does not respond to selector " + selector);
  }
  const plist::Dictionary* configuration =
      arguments.size() == 1 ? arguments[0].asDictionary() : nullptr;
  if (configuration == nullptr) {
    throw ArgumentError("processConfiguration: takes one dictionary");
  }
  {
    std::lock_guard lock(mutex_);
    configuration_ = *configuration;
  }
  arrived_.notify_all();
  return {};
}

} // namespace kestrin::admin
