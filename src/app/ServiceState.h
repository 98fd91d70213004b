#pragma once

// The controller's remote-service state: the listening endpoint, its registered name, and the
// machine-local callback endpoint. Private to the controller's sources; guarded by the
// controller's service lock.

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "app/AppController.h"
#include "app/QVErrorCallbackObj.h"
#include "platform/ServiceAdvertiser.h"
#include "transport/NameRegistry.h"
#include "transport/RpcServer.h"

namespace kestrin {

// Hands the listening endpoint's questions and news to the controller.
class EndpointDelegate : public transport::RpcServer::Delegate {
public:
  explicit EndpointDelegate(AppController& controller) : controller_(controller) {}
  bool shouldAcceptConnection(const transport::PeerInfo& peer) override;
  void connectionDidInitialize(const transport::PeerInfo& peer) override;
  void serverDidDie(const std::string& reason) override;

private:
  AppController& controller_;
};

// Hands the advertiser's news to the controller.
class AdvertiserListener : public platform::ServiceAdvertiser::Listener {
public:
  explicit AdvertiserListener(AppController& controller) : controller_(controller) {}
  void didNotPublish(const plist::Dictionary& error) override;
  void daemonUnavailable(const std::string& reason) override;

private:
  AppController& controller_;
  std::atomic<bool> reported_{false};
};

struct AppController::ServiceState {
  explicit ServiceState(AppController& controller)
      : registry(transport::NameRegistry::defaultDirectory()), endpointDelegate(controller),
        advertiserListener(controller) {}

  transport::NameRegistry registry;

  // ---- listening endpoint
  EndpointDelegate endpointDelegate;
  std::unique_ptr<transport::RpcServer> server;
  std::unique_ptr<transport::NameRegistry::Registration> nameRegistration;
  // Kept across restarts, so that a restarted service registers under the same name.
  std::optional<std::string> pdoName;
  std::optional<std::string> listenIPAddress;
  std::optional<std::string> listenBSDName;
  std::atomic<int> listenPortNumber{0};

  // ---- advertisement
  AdvertiserListener advertiserListener;
  std::unique_ptr<platform::ServiceAdvertiser> advertiser;

  // ---- callback endpoint
  std::shared_ptr<QVErrorCallbackObj> errCallbackObj;
  std::unique_ptr<transport::RpcServer> callbackServer;
  std::unique_ptr<transport::NameRegistry::Registration> callbackRegistration;
  std::string callbackSocketPath;
};

} // namespace kestrin
