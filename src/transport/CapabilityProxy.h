#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::transport {

struct ConnectionState;

// An object on the other side of a connection. Calls block the calling thread until the peer
// answers; they are made on the connection's loop thread, so they may come from any other
// thread but never from that one.
class CapabilityProxy : public plist::RemoteObject {
public:
  CapabilityProxy(std::shared_ptr<ConnectionState> state, std::uint64_t id, const void* hook)
      : state_(std::move(state)), id_(id), hook_(hook) {}
  ~CapabilityProxy() override;

  std::string description() const override;
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

  // The connection this proxy belongs to and its entry there.
  const ConnectionState* connection() const { return state_.get(); }
  std::uint64_t id() const { return id_; }

private:
  void checkCallable() const;

  std::shared_ptr<ConnectionState> state_;
  // What the peer answered to respondsTo: an object's selectors do not change while it lives.
  std::mutex respondsMutex_;
  std::map<std::string, bool> responds_;
  std::uint64_t id_;
  const void* hook_;
};

} // namespace kestrin::transport
