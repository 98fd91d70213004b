#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::admin {

// A one-shot callback record that an admin hands to an agent (setupCallbackListener:withName:);
// the agent posts the user information of the notification it waited for to it.
class QVCallback : public plist::RemoteObject {
public:
  // Receives objectDidPostCallback: with the record; called on the agent connection's worker
  // thread (the platform moved it to the main thread without waiting; a command-line admin has
  // no main thread to move it to).
  using Delegate = std::function<void(QVCallback&)>;

  static std::shared_ptr<QVCallback> callbackWithName(std::string name, Delegate delegate,
                                                      std::optional<std::string> hostname = {});

  const std::string& name() const { return name_; }
  std::optional<std::string> hostname() const { return hostname_; }
  plist::Dictionary info() const;
  // Stores the information, then tells the delegate if there is one.
  void postCallback(const plist::Dictionary& info);

  std::string description() const override { return "<QVCallback " + name_ + ">"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

private:
  QVCallback(std::string name, Delegate delegate, std::optional<std::string> hostname)
      : name_(std::move(name)), hostname_(std::move(hostname)), delegate_(std::move(delegate)) {}

  std::string name_;
  std::optional<std::string> hostname_;
  Delegate delegate_;
  mutable std::mutex mutex_;
  plist::Dictionary info_;
};

} // namespace kestrin::admin
