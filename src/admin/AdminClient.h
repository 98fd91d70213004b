#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "admin/KnownAgents.h"
#include "admin/QVErrorCallback.h"
#include "plist/Value.h"
#include "support/Expected.h"
#include "transport/RpcClient.h"

namespace kestrin::admin {

// "host:port", "[v6 address]:port".
struct AgentAddress {
  std::string host;
  int port = 0;
};
Expected<AgentAddress> parseAgentAddress(const std::string& text);
// "host:port", "[v6 address]:port": how the address is written back, and how agents are known.
std::string addressText(const AgentAddress& address);

// How a console trusts agents: the identity it presents to every one (the agent may accept
// only listed consoles), and the agents it has met, whose keys it pins. Without `known` any
// key the agent presents is taken.
struct ConsoleTrust {
  std::shared_ptr<const transport::TlsIdentity> identity;
  const KnownAgents* known = nullptr;
};

// An administrator's connection to one agent, with an error callback registered so that the
// agent's errors, progress and task-finished events reach this process.
class AdminClient {
public:
  // Connects over TLS, checks the agent's key against what `trust` knows (recording it at the
  // first contact), and registers the callback; events go to parent (may be null). `timeout`
  // limits the connecting and every call after it; zero is no limit.
  static Expected<std::unique_ptr<AdminClient>> connect(const AgentAddress& address,
                                                        std::chrono::milliseconds timeout,
                                                        QVErrorCallback::Parent* parent,
                                                        const ConsoleTrust& trust = {});

  // Calls one of the agent's operations. Throws NamedException as RemoteObject::invoke does.
  plist::Value call(const std::string& selector, std::vector<plist::Value> arguments = {});
  const std::shared_ptr<QVErrorCallback>& callback() const { return callback_; }
  transport::RpcClient& connection() { return *client_; }
  // Whether this connection met the agent's key for the first time (and recorded it).
  bool firstContact() const { return firstContact_; }

private:
  AdminClient(std::unique_ptr<transport::RpcClient> client,
              std::shared_ptr<QVErrorCallback> callback)
      : client_(std::move(client)), callback_(std::move(callback)) {}

  std::unique_ptr<transport::RpcClient> client_;
  std::shared_ptr<QVErrorCallback> callback_;
  bool firstContact_ = false;
};

} // namespace kestrin::admin
