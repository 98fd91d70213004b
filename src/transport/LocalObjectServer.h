#pragma once

#include <memory>

#include "plist/Value.h"
#include "transport/ConnectionState.h"
#include "transport/remote.capnp.h"

namespace kestrin::transport {

// Serves one of our objects to a peer. Each call runs on a worker thread of its own, so that a
// call may block for minutes (a tool run) while the connection keeps serving others, and
// completes on the loop thread through a cross-thread fulfiller.
class LocalObjectServer final : public wire::RemoteObject::Server {
public:
  LocalObjectServer(plist::ObjectRef object, std::weak_ptr<ConnectionState> state)
      : object_(std::move(object)), state_(std::move(state)) {}

protected:
  kj::Promise<void> invoke(InvokeContext context) override;
  kj::Promise<void> respondsTo(RespondsToContext context) override;

private:
  plist::ObjectRef object_;
  std::weak_ptr<ConnectionState> state_;
};

// Threads running calls right now, for tests that check nothing is left behind.
std::size_t runningWorkerCount();

} // namespace kestrin::transport
