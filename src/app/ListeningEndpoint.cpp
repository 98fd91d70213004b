#include "app/ListeningEndpoint.h"

#include <sys/socket.h>

#include <iostream>

#include "foundation/PreferenceFile.h"
#include "foundation/QVLog.h"
#include "foundation/WorkerPool.h"
#include "operations/ExceptionGuard.h"
#include "platform/ListeningSocket.h"
#include "transport/HostIdentity.h"
#include "transport/ServiceAdvertisement.h"
#include "transport/TlsIdentity.h"
#include "transport/TlsStream.h"

namespace kestrin {

namespace {

constexpr const char* kRegistrationFailed = "Failed to register name - make sure there are no "
                                            "other copies of this application running on this "
                                            "computer.";

} // namespace

// Hands the server's questions and news to the endpoint, on the server's thread.
class ListeningEndpoint::ServerDelegate : public transport::RpcServer::Delegate {
public:
  explicit ServerDelegate(ListeningEndpoint& endpoint) : endpoint_(endpoint) {}

  bool shouldAcceptConnection(const transport::PeerInfo& peer) override {
    return endpoint_.shouldAcceptConsole(peer);
  }
  void handshakeFailed(const transport::PeerInfo& peer, const std::string& reason) override {
    QVLog::fastAppendLog("Refused a connection from {}: {}", peer.address, reason);
  }
  void connectionDidInitialize(const transport::PeerInfo& peer) override {
    std::cerr << "initialized" << std::endl;
    QVLog::appendLog("Accepted connection from {}", peer.address);
  }
  void connectionRefused(const transport::PeerInfo& peer, const std::string& reason) override {
    // The server's thread never waits for the log.
    QVLog::fastAppendLog("Refused a connection from {}: {}", peer.address, reason);
  }
  void serverDidDie(const std::string&) override {
    // The server's own thread cannot stop the server it runs.
    ListeningEndpoint& endpoint = endpoint_;
    endpoint.environment_.workers.submit(
        [&endpoint] { endpoint.environment_.delegate.connectionDidDie(); });
  }

private:
  ListeningEndpoint& endpoint_;
};

ListeningEndpoint::ListeningEndpoint(Environment environment, plist::ObjectRef root)
    : environment_(environment), root_(std::move(root)),
      serverDelegate_(std::make_unique<ServerDelegate>(*this)),
      authorizedAdmins_(environment_.authorizedAdminsPath) {}

ListeningEndpoint::~ListeningEndpoint() {
  std::lock_guard lock(mutex_);
  nameRegistration_.reset();
  if (server_) {
    server_->stop();
  }
}

std::string ListeningEndpoint::registeredName(const std::string& name) {
  if (name.size() < 64) {
    return name;
  }
  // Cut at a character boundary: a host name may hold non-ASCII letters.
  std::size_t cut = 63;
  while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) {
    --cut;
  }
  return name.substr(0, cut);
}

std::optional<std::string> ListeningEndpoint::pdoName() const {
  std::lock_guard lock(mutex_);
  return pdoName_;
}

std::optional<std::string> ListeningEndpoint::listenIPAddress() const {
  std::lock_guard lock(mutex_);
  return listenIPAddress_;
}

std::optional<std::string> ListeningEndpoint::fingerprint() const {
  std::lock_guard lock(mutex_);
  return fingerprint_;
}

// The agent's TLS settings, from the key kept in the user's Library. A key that exists but
// cannot be read is not replaced: admins have pinned it, and a new one would look like an
// impostor to every one of them.
std::shared_ptr<const transport::TlsContext> ListeningEndpoint::tlsContext() {
  if (tls_) {
    return tls_;
  }
  auto identity = transport::TlsIdentity::loadOrCreate(
      environment_.identityPath, "Kestrin - " + environment_.delegate.hostName());
  if (!identity) {
    QVLog::appendLogAndPrint("Unable to use the agent's TLS key: {}", identity.message());
    return nullptr;
  }
  auto context = transport::TlsContext::make(transport::TlsContext::Side::Server, *identity);
  if (!context) {
    QVLog::appendLogAndPrint("Unable to use the agent's TLS key: {}", context.message());
    return nullptr;
  }
  fingerprint_ = (*identity)->fingerprint();
  QVLog::appendLog("TLS certificate fingerprint {}", *fingerprint_);
  tls_ = *context;
  return tls_;
}

std::optional<std::string> ListeningEndpoint::listenBSDName() const {
  std::lock_guard lock(mutex_);
  return listenBSDName_;
}

void ListeningEndpoint::startVendingOnPort(int port) {
  std::lock_guard lock(mutex_);
  Delegate& delegate = environment_.delegate;
  try {
    QVLog::appendLog("Starting vending...");
    QVLog::appendLog("Creating port...");

    plist::Value selected = environment_.settings.object("selectedMACAddress");
    std::optional<plist::Dictionary> interface = transport::networkInterfaceWithMACAddress(
        selected.asString() ? std::optional<std::string>(*selected.asString()) : std::nullopt);
    listenBSDName_.reset();
    const std::string* ip = nullptr;
    if (interface) {
      const plist::Value* bsdName = interface->find("bsdName");
      if (bsdName && bsdName->asString()) {
        listenBSDName_ = *bsdName->asString();
      }
      const plist::Value* address = interface->find("ip4Address");
      ip = address ? address->asString() : nullptr;
    }

    platform::FileDescriptor socket;
    bool interfaceBound = ip != nullptr;
    if (interfaceBound) {
      listenIPAddress_ = *ip;
      const plist::Value* name = interface->find("name");
      QVLog::appendLog("Attempting to listen on address {}:{} with interface {}", *ip, port,
                       name && name->asString() ? *name->asString() : "(null)");
      socket = platform::listenOnAddress(*ip, port);
    } else {
      QVLog::appendLog("Listening on any address.");
      if (port != 0) {
        QVLog::appendLog("Listening on port {}.", port);
      }
      socket = platform::listenOnAnyAddress(port);
    }
    if (!socket) {
      QVLog::appendLog("Error - unable to create socket port.");
    }

    listenPortNumber_ = port;
    if (socket.get() <= 0) {
      QVLog::appendLog("Error: unable to get socket.");
    } else {
      if (port == 0) {
        if (auto bound = platform::boundPort(socket)) {
          listenPortNumber_ = *bound;
          QVLog::appendLog("Listening on port {}.", *bound);
        } else {
          QVLog::appendLog("Error: unable to determine port number");
        }
      }
      if (!platform::enableSocketOption(socket, SO_REUSEADDR)) {
        QVLog::appendLog("Error setting reuse address flag");
      }
      if (!platform::enableSocketOption(socket, SO_REUSEPORT)) {
        QVLog::appendLog("Error setting reuse port flag");
      }
      // Linux has no per-socket SIGPIPE switch; the agent ignores SIGPIPE process-wide and
      // its transport writes with MSG_NOSIGNAL, which is the same protection.
    }

    auto tls = tlsContext();
    if (!tls) {
      delegate.updateStatus("Unable to start: the TLS key cannot be used");
      return;
    }

    QVLog::appendLog("Creating connection...");
    nameRegistration_.reset();
    if (server_) {
      server_->stop();
      server_.reset();
    }
    auto server = socket ? transport::RpcServer::start(std::move(socket), root_,
                                                       serverDelegate_.get(), environment_.workers,
                                                       {}, transport::TlsServerOptions{tls})
                         : Expected<std::unique_ptr<transport::RpcServer>>(Failure{"no socket"});
    if (!server) {
      delegate.updateStatus("Unable to connect. Retrying in 10 seconds...");
      QVLog::console("Unable to create connection. Retrying in 10 seconds...");
      delegate.reconnectWithTimeInterval(10.0);
      return;
    }
    server_ = std::move(*server);

    if (!pdoName_) {
      pdoName_ = registeredName("Kestrin - " + delegate.hostName());
    }
    plist::Dictionary contact{{"address", listenIPAddress_.value_or("0.0.0.0")},
                              {"port", listenPortNumber_.load()}};
    QVLog::appendLog("Registering name {}", *pdoName_);
    auto registered = environment_.registry.registerName(*pdoName_, contact);
    if (!registered) {
      QVLog::appendLogAndPrint("{}", kRegistrationFailed);
      pdoName_ = registeredName(transport::generateUUID() + "Kestrin - " + delegate.hostName());
      QVLog::appendLog("Registering name {}", *pdoName_);
      registered = environment_.registry.registerName(*pdoName_, contact);
      if (!registered) {
        QVLog::appendLogAndPrint("{}", kRegistrationFailed);
        delegate.reconnectWithTimeInterval(10.0);
        return;
      }
    }
    nameRegistration_ = std::move(*registered);

    if (interfaceBound) {
      delegate.updateStatus(
          fmt::format("Listening on {}:{}", *listenIPAddress_, listenPortNumber_.load()));
    } else {
      delegate.updateStatus(fmt::format("Listening on port {}", listenPortNumber_.load()));
    }
    isConnected_ = true;
  } catch (const NamedException& e) {
    environment_.guard.handle(e, "-[AppController startVendingOnPort:]");
  }
}

void ListeningEndpoint::stopVending() {
  std::lock_guard lock(mutex_);
  try {
    QVLog::appendLog("Stopping vending...");
    nameRegistration_.reset();
    if (server_) {
      server_->stop();
      server_.reset();
    }
    isConnected_ = false;
  } catch (const std::exception& e) {
    std::cerr << "Exception in -[AppController stopVending]: " << e.what() << std::endl;
  }
}

bool ListeningEndpoint::shouldAcceptConsole(const transport::PeerInfo& peer) {
  if (!shouldMakeNewConnection(peer.address)) {
    return false;
  }
  auto verdict = authorizedAdmins_.judge(peer.fingerprint);
  if (!verdict.accepted) {
    // The server's thread never waits for the log.
    QVLog::fastAppendLog("Refused admin console at {} with fingerprint {}: {}", peer.address,
                         peer.fingerprint.value_or("(none)"), verdict.reason);
  }
  return verdict.accepted;
}

bool ListeningEndpoint::shouldMakeNewConnection(const std::string& peerAddress) {
  plist::Value allowed = environment_.settings.object("allowedAdminAddresses");
  const plist::Array* addresses = allowed.asArray();
  if (addresses == nullptr) {
    return true;
  }
  for (const plist::Value& address : *addresses) {
    if (address.asString() && *address.asString() == peerAddress) {
      return true;
    }
  }
  QVLog::appendLog("Refused connection from {}: not in allowedAdminAddresses", peerAddress);
  return false;
}

} // namespace kestrin
