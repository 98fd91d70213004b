// The machine-local callback endpoint: the error-callback forwarder that the maker's tools on
// this machine reach under the name "QVKestrinCallback", over a Unix-domain socket.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "app/AppController.h"
#include "app/MainLoop.h"
#include "app/ServiceState.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

constexpr const char* kCallbackRetry = "Unable to create callback connection. Retrying in 10 "
                                       "seconds...";
constexpr const char* kCallbackNameTaken =
    "Failed to register callback name - make sure there are no other copies of this "
    "application running on this computer.";

platform::FileDescriptor listenOnSocketPath(const std::string& path) {
  platform::FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  if (!fd || path.size() >= sizeof address.sun_path) {
    return {};
  }
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  ::unlink(path.c_str()); // a leftover of an earlier run of this very process id
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd.get(), 16) != 0) {
    return {};
  }
  ::chmod(path.c_str(), 0600); // tools of the same user only
  return fd;
}

} // namespace

void AppController::startCallbackVending() {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  exceptionGuard_.run("-[AppController startCallbackVending]", [&] {
    s.callbackRegistration.reset();
    s.errCallbackObj = std::make_shared<QVErrorCallbackObj>(rootObject_, environment_.mainLoop);

    QVLog::appendLog("Starting vending callback...");
    QVLog::appendLog("Creating callback port...");
    std::error_code ec;
    std::filesystem::create_directories(s.registry.pathForName(kCallbackName) + ".d", ec);
    s.callbackSocketPath =
        s.registry.pathForName(kCallbackName) + ".d/" + std::to_string(::getpid()) + ".sock";
    platform::FileDescriptor socket = listenOnSocketPath(s.callbackSocketPath);
    QVLog::appendLog("Creating callback connection...");
    if (s.callbackServer) {
      s.callbackServer->stop();
      s.callbackServer.reset();
    }
    auto server = socket ? transport::RpcServer::start(std::move(socket), s.errCallbackObj, nullptr)
                         : Expected<std::unique_ptr<transport::RpcServer>>(Failure{"no socket"});
    if (!server) {
      QVLog::appendLogAndPrint("{}", kCallbackRetry);
      reconnectCallbackWithTimeInterval(10.0);
      return;
    }
    s.callbackServer = std::move(*server);

    QVLog::appendLog("Registering callback name...");
    auto registered = s.registry.registerName(kCallbackName, {{"path", s.callbackSocketPath}});
    if (!registered) {
      QVLog::appendLogAndPrint("{}", kCallbackNameTaken);
      auto holder = s.registry.lookup(kCallbackName);
      QVLog::console("Name occupied by {}",
                     holder ? transport::NameRegistry::describeHolder(*holder) : "(null)");
      reconnectCallbackWithTimeInterval(10.0);
      return;
    }
    s.callbackRegistration = std::move(*registered);
  });
}

void AppController::stopCallbackVending() {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  try {
    QVLog::appendLog("Stopping callback vending...");
    if (s.callbackServer) {
      s.callbackServer->stop();
      s.callbackServer.reset();
    }
    if (!s.callbackSocketPath.empty()) {
      ::unlink(s.callbackSocketPath.c_str());
      s.callbackSocketPath.clear();
    }
    s.errCallbackObj.reset();
    s.callbackRegistration.reset();
  } catch (const std::exception& e) {
    std::cerr << "Exception in -[AppController stopCallbackVending]: " << e.what() << std::endl;
  }
}

void AppController::reconnectCallbackWithTimeInterval(double seconds) {
  stopCallbackVending();
  // Only the callback endpoint restarts; the main endpoint is untouched.
  environment_.mainLoop.runAfter(
      std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)), [this] {
        if (!isQuitting_) {
          startCallbackVending();
        }
      });
}

void AppController::setupCallbackListener(const plist::ObjectRef& callback,
                                          const std::string& name) {
  QVLog::appendLog("Setting up callback listener");
  std::lock_guard lock(relayMutex_);
  theCallback_ = callback;
  if (notificationCenter_ && relays_.count(name) == 0) {
    relays_[name] = notificationCenter_->observe(name, [this, name](const plist::Dictionary& info) {
      startThread([this, name, info] { executeCallback(name, info); });
    });
  }
}

void AppController::executeCallback(const std::string& name, const plist::Dictionary& userInfo) {
  QVLog::appendLog("Posting callback");
  plist::ObjectRef callback;
  platform::NotificationCenter::Observation finished;
  {
    std::lock_guard lock(relayMutex_);
    auto relay = relays_.find(name);
    if (relay != relays_.end()) {
      finished = std::move(relay->second); // dropped outside the lock
      relays_.erase(relay);
    }
    callback = std::exchange(theCallback_, nullptr);
  }
  if (!callback) {
    QVLog::appendLog("Error: callback object not found.");
    return;
  }
  exceptionGuard_.run("-[AppController executeCallback:]",
                      [&] { callback->invoke("postCallback:", {plist::Value(userInfo)}); });
}

} // namespace kestrin
