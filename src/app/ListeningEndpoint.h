#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/AuthorizedAdmins.h"
#include "plist/Value.h"
#include "transport/NameRegistry.h"
#include "transport/RpcServer.h"

namespace kestrin {

class ExceptionGuard;
class PreferenceFile;
class WorkerPool;

// The TCP endpoint that admins connect to: its socket (on every address, or on the interface
// the settings chose), the server of the controller's root object, the name registered for
// it on this machine, and what happens when it dies. The texts are what admins and support read
// in the agent's log.
//
// Thread-safe: start and stop exclude each other.
class ListeningEndpoint {
public:
  // The controller's side of the endpoint.
  class Delegate {
  public:
    virtual ~Delegate() = default;
    virtual void updateStatus(const std::string& status) = 0;
    virtual void reconnectWithTimeInterval(double seconds) = 0;
    virtual std::string hostName() const = 0;
    // The listening socket failed; called on a worker, never on the server's own thread.
    virtual void connectionDidDie() = 0;
  };

  struct Environment {
    PreferenceFile& settings;
    WorkerPool& workers;
    const ExceptionGuard& guard;
    transport::NameRegistry& registry;
    Delegate& delegate;
    // The agent's TLS key and certificate, made there at the first start.
    std::string identityPath;
    // The admin consoles the facility accepts, when that file exists.
    std::string authorizedAdminsPath;
  };

  ListeningEndpoint(Environment environment, plist::ObjectRef root);
  ~ListeningEndpoint();
  ListeningEndpoint(const ListeningEndpoint&) = delete;
  ListeningEndpoint& operator=(const ListeningEndpoint&) = delete;

  void startVendingOnPort(int port);
  void stopVending();

  bool isConnected() const { return isConnected_; }
  int listenPortNumber() const { return listenPortNumber_; }
  std::optional<std::string> pdoName() const;
  std::optional<std::string> listenIPAddress() const;
  std::optional<std::string> listenBSDName() const;

  // Every connection is accepted unless the "allowedAdminAddresses" preference lists the
  // addresses that may connect.
  bool shouldMakeNewConnection(const std::string& peerAddress);
  // The same, and the console's certificate against the facility's list of admin consoles.
  bool shouldAcceptConsole(const transport::PeerInfo& peer);

  // The SHA-256 fingerprint of the agent's certificate, once the endpoint has loaded it.
  std::optional<std::string> fingerprint() const;

  // "Kestrin - <host>" cut to 63 characters, as names are registered.
  static std::string registeredName(const std::string& name);

private:
  class ServerDelegate;
  std::shared_ptr<const transport::TlsContext> tlsContext();

  Environment environment_;
  plist::ObjectRef root_;
  std::unique_ptr<ServerDelegate> serverDelegate_;
  AuthorizedAdmins authorizedAdmins_;

  mutable std::recursive_mutex mutex_;
  std::unique_ptr<transport::RpcServer> server_;
  std::shared_ptr<const transport::TlsContext>
      tls_; // made once: the key never changes while running
  std::unique_ptr<transport::NameRegistry::Registration> nameRegistration_;
  // Kept across restarts, so that a restarted service registers under the same name.
  std::optional<std::string> pdoName_;
  std::optional<std::string> listenIPAddress_;
  std::optional<std::string> listenBSDName_;
  std::optional<std::string> fingerprint_;
  std::atomic<int> listenPortNumber_{0};
  std::atomic<bool> isConnected_{false};
};

} // namespace kestrin
