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
#include "transport/NameRegistry.h"
#include "transport/RpcServer.h"
#include "transport/ServiceAdvertisement.h"

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

// Hands a failed publication to the controller.
class AdvertisementDelegate : public transport::ServiceAdvertisement::Delegate {
public:
  explicit AdvertisementDelegate(AppController& controller) : controller_(controller) {}
  void netServiceDidNotPublish(const plist::Dictionary& error) override;

private:
  AppController& controller_;
};

struct AppController::ServiceState {
  explicit ServiceState(AppController& controller)
      : registry(transport::NameRegistry::defaultDirectory()), endpointDelegate(controller),
        advertisementDelegate(controller), advertisement(advertisementDelegate) {}

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
  AdvertisementDelegate advertisementDelegate;
  // Kept across restarts of the service, with its connection to the responder.
  transport::ServiceAdvertisement advertisement;

  // ---- callback endpoint
  std::shared_ptr<QVErrorCallbackObj> errCallbackObj;
  std::unique_ptr<transport::RpcServer> callbackServer;
  std::unique_ptr<transport::NameRegistry::Registration> callbackRegistration;
  std::string callbackSocketPath;
};

} // namespace kestrin
