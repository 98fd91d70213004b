// The listening endpoint: the TCP socket that admins connect to, its registered name, and its
// death. The texts are what admins and support read in the agent's log.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

#include "app/AppController.h"
#include "app/ServiceState.h"
#include "foundation/QVLog.h"
#include "transport/HostIdentity.h"
#include "transport/ServiceAdvertisement.h"

namespace kestrin {

namespace {

constexpr const char* kRegistrationFailed = "Failed to register name - make sure there are no "
                                            "other copies of this application running on this "
                                            "computer.";

void setOption(int fd, int option, const char* failure) {
  int on = 1;
  if (::setsockopt(fd, SOL_SOCKET, option, &on, sizeof on) != 0) {
    QVLog::appendLog("{}", failure);
  }
}

// A listening socket on all IPv4 addresses; port 0 lets the system choose. Unlike the
// interface-bound socket this one fails visibly, as the platform's socket port did.
platform::FileDescriptor listenOnAnyAddress(int port) {
  platform::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!fd) {
    return fd;
  }
  // Set before binding so that a restart can take the port back at once.
  int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd.get(), SOMAXCONN) != 0) {
    return {};
  }
  return fd;
}

// The interface-bound socket. Its results go unchecked: a failure shows up when the port
// cannot be read back or the connection cannot be made.
platform::FileDescriptor listenOnAddress(const std::string& ip, int port) {
  platform::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM, 0));
  if (!fd) {
    return fd;
  }
  ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  (void)::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  (void)::listen(fd.get(), 10);
  return fd;
}

} // namespace

std::string AppController::registeredName(const std::string& name) {
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

int AppController::listenPortNumber() const {
  return service_->listenPortNumber;
}

std::optional<std::string> AppController::pdoName() const {
  std::lock_guard lock(serviceMutex_);
  return service_->pdoName;
}

void AppController::startVendingOnPort(int port) {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  try {
    QVLog::appendLog("Starting vending...");
    QVLog::appendLog("Creating port...");

    plist::Value selected = objectForPreferenceDictionaryKey("selectedMACAddress");
    std::optional<plist::Dictionary> interface = transport::networkInterfaceWithMACAddress(
        selected.asString() ? std::optional<std::string>(*selected.asString()) : std::nullopt);
    s.listenBSDName.reset();
    const std::string* ip = nullptr;
    if (interface) {
      const plist::Value* bsdName = interface->find("bsdName");
      if (bsdName && bsdName->asString()) {
        s.listenBSDName = *bsdName->asString();
      }
      const plist::Value* address = interface->find("ip4Address");
      ip = address ? address->asString() : nullptr;
    }

    platform::FileDescriptor socket;
    bool interfaceBound = ip != nullptr;
    if (interfaceBound) {
      s.listenIPAddress = *ip;
      const plist::Value* name = interface->find("name");
      QVLog::appendLog("Attempting to listen on address {}:{} with interface {}", *ip, port,
                       name && name->asString() ? *name->asString() : "(null)");
      socket = listenOnAddress(*ip, port);
    } else {
      QVLog::appendLog("Listening on any address.");
      if (port != 0) {
        QVLog::appendLog("Listening on port {}.", port);
      }
      socket = listenOnAnyAddress(port);
    }
    if (!socket) {
      QVLog::appendLog("Error - unable to create socket port.");
    }

    s.listenPortNumber = port;
    if (socket.get() <= 0) {
      QVLog::appendLog("Error: unable to get socket.");
    } else {
      if (port == 0) {
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&bound), &length) == 0) {
          s.listenPortNumber = ntohs(bound.sin_port);
          QVLog::appendLog("Listening on port {}.", s.listenPortNumber.load());
        } else {
          QVLog::appendLog("Error: unable to determine port number");
        }
      }
      setOption(socket.get(), SO_REUSEADDR, "Error setting reuse address flag");
      setOption(socket.get(), SO_REUSEPORT, "Error setting reuse port flag");
      // Linux has no per-socket SIGPIPE switch; the agent ignores SIGPIPE process-wide and
      // its transport writes with MSG_NOSIGNAL, which is the same protection.
    }

    QVLog::appendLog("Creating connection...");
    s.nameRegistration.reset();
    if (s.server) {
      s.server->stop();
      s.server.reset();
    }
    auto server =
        socket ? transport::RpcServer::start(std::move(socket), rootObject_, &s.endpointDelegate)
               : Expected<std::unique_ptr<transport::RpcServer>>(Failure{"no socket"});
    if (!server) {
      updateStatus("Unable to connect. Retrying in 10 seconds...");
      QVLog::console("Unable to create connection. Retrying in 10 seconds...");
      reconnectWithTimeInterval(10.0);
      return;
    }
    s.server = std::move(*server);

    if (!s.pdoName) {
      s.pdoName = registeredName("Kestrin - " + hostName());
    }
    plist::Dictionary contact{{"address", s.listenIPAddress.value_or("0.0.0.0")},
                              {"port", s.listenPortNumber.load()}};
    QVLog::appendLog("Registering name {}", *s.pdoName);
    auto registered = s.registry.registerName(*s.pdoName, contact);
    if (!registered) {
      QVLog::appendLogAndPrint("{}", kRegistrationFailed);
      s.pdoName = registeredName(transport::generateUUID() + "Kestrin - " + hostName());
      QVLog::appendLog("Registering name {}", *s.pdoName);
      registered = s.registry.registerName(*s.pdoName, contact);
      if (!registered) {
        QVLog::appendLogAndPrint("{}", kRegistrationFailed);
        reconnectWithTimeInterval(10.0);
        return;
      }
    }
    s.nameRegistration = std::move(*registered);

    if (interfaceBound) {
      updateStatus(
          fmt::format("Listening on {}:{}", *s.listenIPAddress, s.listenPortNumber.load()));
    } else {
      updateStatus(fmt::format("Listening on port {}", s.listenPortNumber.load()));
    }
    isConnected_ = true;
  } catch (const NamedException& e) {
    exceptionGuard_.handle(e, "-[AppController startVendingOnPort:]");
  }
}

void AppController::stopVending() {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  try {
    QVLog::appendLog("Stopping vending...");
    s.nameRegistration.reset();
    if (s.server) {
      s.server->stop();
      s.server.reset();
    }
    isConnected_ = false;
  } catch (const std::exception& e) {
    std::cerr << "Exception in -[AppController stopVending]: " << e.what() << std::endl;
  }
}

void AppController::connectionDidDie() {
  QVLog::appendLogAndPrint("Connection died. Cleaning up...");
  if (isQuitting_) {
    stopService();
  } else {
    reconnectWithTimeInterval(10.0);
  }
}

bool AppController::shouldMakeNewConnection(const std::string& peerAddress) {
  plist::Value allowed = objectForPreferenceDictionaryKey("allowedAdminAddresses");
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

// ---- endpoint delegate

bool EndpointDelegate::shouldAcceptConnection(const transport::PeerInfo& peer) {
  return controller_.shouldMakeNewConnection(peer.address);
}

void EndpointDelegate::connectionDidInitialize(const transport::PeerInfo&) {
  std::cerr << "initialized" << std::endl;
}

void EndpointDelegate::serverDidDie(const std::string&) {
  // The server's own thread cannot stop the server it runs.
  controller_.startThread([this] { controller_.connectionDidDie(); });
}

} // namespace kestrin
