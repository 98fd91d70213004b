#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/Timer.h"
#include "plist/Value.h"
#include "transport/NameRegistry.h"
#include "transport/RpcServer.h"

namespace kestrin {

class ExceptionGuard;
class MainLoop;
class QVErrorCallbackObj;
class WorkerPool;

// The machine-local callback endpoint: the error-callback forwarder that the maker's tools on
// this machine reach under the name "QVKestrinCallback", over a Unix-domain socket. When it
// cannot start (another instance holds the name) it retries every 10 seconds on its own; the
// main endpoint is untouched.
//
// Thread-safe.
class CallbackEndpoint {
public:
  static constexpr const char* kCallbackName = "QVKestrinCallback";

  struct Environment {
    MainLoop& mainLoop;
    Timer& timer;
    WorkerPool& workers;
    const ExceptionGuard& guard;
    transport::NameRegistry& registry;
    std::function<bool()> isQuitting;
  };

  // The forwarder passes what the tools post to `delegate` (the controller's root object).
  CallbackEndpoint(Environment environment, std::weak_ptr<plist::RemoteObject> delegate);
  ~CallbackEndpoint();
  CallbackEndpoint(const CallbackEndpoint&) = delete;
  CallbackEndpoint& operator=(const CallbackEndpoint&) = delete;

  void startCallbackVending();
  void stopCallbackVending();
  // Stops, then starts again after the interval on the timer.
  void reconnectCallbackWithTimeInterval(double seconds);

private:
  Environment environment_;
  std::weak_ptr<plist::RemoteObject> delegate_;
  std::recursive_mutex mutex_;
  std::shared_ptr<QVErrorCallbackObj> errCallbackObj_;
  std::unique_ptr<transport::RpcServer> callbackServer_;
  std::unique_ptr<transport::NameRegistry::Registration> callbackRegistration_;
  std::string callbackSocketPath_;
  Timer::Id restart_ = 0;
};

} // namespace kestrin
