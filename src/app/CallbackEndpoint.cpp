#include "app/CallbackEndpoint.h"

#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "app/QVErrorCallbackObj.h"
#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"
#include "operations/ExceptionGuard.h"
#include "platform/ListeningSocket.h"

namespace kestrin {

namespace {

constexpr const char* kCallbackRetry = "Unable to create callback connection. Retrying in 10 "
                                       "seconds...";
constexpr const char* kCallbackNameTaken =
    "Failed to register callback name - make sure there are no other copies of this "
    "application running on this computer.";

} // namespace

CallbackEndpoint::CallbackEndpoint(Environment environment,
                                   std::weak_ptr<plist::RemoteObject> delegate)
    : environment_(std::move(environment)), delegate_(std::move(delegate)) {}

CallbackEndpoint::~CallbackEndpoint() {
  environment_.timer.cancel(restart_);
  stopCallbackVending();
}

void CallbackEndpoint::startCallbackVending() {
  std::lock_guard lock(mutex_);
  environment_.guard.run("-[AppController startCallbackVending]", [&] {
    callbackRegistration_.reset();
    errCallbackObj_ = std::make_shared<QVErrorCallbackObj>(delegate_, environment_.mainLoop);

    QVLog::appendLog("Starting vending callback...");
    QVLog::appendLog("Creating callback port...");
    transport::NameRegistry& registry = environment_.registry;
    std::error_code ec;
    std::filesystem::create_directories(registry.pathForName(kCallbackName) + ".d", ec);
    callbackSocketPath_ =
        registry.pathForName(kCallbackName) + ".d/" + std::to_string(::getpid()) + ".sock";
    platform::FileDescriptor socket = platform::listenOnSocketPath(callbackSocketPath_);
    QVLog::appendLog("Creating callback connection...");
    if (callbackServer_) {
      callbackServer_->stop();
      callbackServer_.reset();
    }
    auto server = socket ? transport::RpcServer::start(std::move(socket), errCallbackObj_, nullptr,
                                                       environment_.workers)
                         : Expected<std::unique_ptr<transport::RpcServer>>(Failure{"no socket"});
    if (!server) {
      QVLog::appendLogAndPrint("{}", kCallbackRetry);
      reconnectCallbackWithTimeInterval(10.0);
      return;
    }
    callbackServer_ = std::move(*server);

    QVLog::appendLog("Registering callback name...");
    auto registered = registry.registerName(kCallbackName, {{"path", callbackSocketPath_}});
    if (!registered) {
      QVLog::appendLogAndPrint("{}", kCallbackNameTaken);
      auto holder = registry.lookup(kCallbackName);
      QVLog::console("Name occupied by {}",
                     holder ? transport::NameRegistry::describeHolder(*holder) : "(null)");
      reconnectCallbackWithTimeInterval(10.0);
      return;
    }
    callbackRegistration_ = std::move(*registered);
  });
}

void CallbackEndpoint::stopCallbackVending() {
  std::lock_guard lock(mutex_);
  try {
    QVLog::appendLog("Stopping callback vending...");
    if (callbackServer_) {
      callbackServer_->stop();
      callbackServer_.reset();
    }
    if (!callbackSocketPath_.empty()) {
      ::unlink(callbackSocketPath_.c_str());
      callbackSocketPath_.clear();
    }
    errCallbackObj_.reset();
    callbackRegistration_.reset();
  } catch (const std::exception& e) {
    std::cerr << "Exception in -[AppController stopCallbackVending]: " << e.what() << std::endl;
  }
}

void CallbackEndpoint::reconnectCallbackWithTimeInterval(double seconds) {
  stopCallbackVending();
  std::lock_guard lock(mutex_);
  environment_.timer.cancel(restart_);
  // The restart stops and binds sockets: a worker does it, not the timer's thread.
  restart_ = environment_.timer.runAfter(platform::Clock::seconds(seconds), [this] {
    environment_.workers.submit([this] {
      if (!environment_.isQuitting()) {
        startCallbackVending();
      }
    });
  });
}

} // namespace kestrin
