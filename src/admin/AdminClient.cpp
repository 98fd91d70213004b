#include "admin/AdminClient.h"

#include <charconv>

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::admin {

Expected<AgentAddress> parseAgentAddress(const std::string& text) {
  std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    return Failure{fmt::format("'{}' is not HOST:PORT", text)};
  }
  AgentAddress address;
  address.host = text.substr(0, colon);
  if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']') {
    address.host = address.host.substr(1, address.host.size() - 2);
  }
  const char* first = text.data() + colon + 1;
  const char* last = text.data() + text.size();
  auto [end, error] = std::from_chars(first, last, address.port);
  if (error != std::errc() || end != last || address.port < 1 || address.port > 65535) {
    return Failure{fmt::format("'{}' is not a port number", std::string(first, last))};
  }
  return address;
}

std::string addressText(const AgentAddress& address) {
  return address.host.find(':') == std::string::npos
             ? fmt::format("{}:{}", address.host, address.port)
             : fmt::format("[{}]:{}", address.host, address.port);
}

Expected<std::unique_ptr<AdminClient>> AdminClient::connect(const AgentAddress& address,
                                                            std::chrono::milliseconds timeout,
                                                            QVErrorCallback::Parent* parent,
                                                            const ConsoleTrust& trust) {
  std::string where = addressText(address);
  auto client =
      transport::RpcClient::connectTcp(address.host, address.port, timeout, {true, trust.identity});
  if (!client) {
    return client.failure();
  }
  // The key is judged before anything is sent that an impostor could use.
  const std::optional<std::string>& fingerprint = (*client)->peerFingerprint();
  bool firstContact = false;
  if (trust.known != nullptr && fingerprint) {
    switch (trust.known->standing(where, *fingerprint)) {
    case KnownAgents::Standing::Known:
      break;
    case KnownAgents::Standing::New:
      firstContact = true;
      if (auto recorded = trust.known->record(where, *fingerprint); !recorded) {
        return Failure{fmt::format("cannot record the key of {}: {}", where, recorded.message())};
      }
      break;
    case KnownAgents::Standing::Changed:
      return Failure{fmt::format(
          "the agent at {} presented the key SHA256:{}, but SHA256:{} was recorded for it in {}. "
          "It may be an impostor, or its key was replaced. If you know it was replaced, accept "
          "the new key with: ambrant trust {}",
          where, *fingerprint, trust.known->recorded(where).value_or(""), trust.known->path(),
          where)};
    }
  }
  // Every call has the same limit as the connecting: a port that accepts and then says nothing
  // (another service, a stopped agent) must not hold the admin for ever.
  (*client)->setReplyTimeout(timeout);
  auto callback = std::make_shared<QVErrorCallback>(parent);
  try {
    (*client)->root()->invoke("setErrorCallback:", {plist::Value(plist::ObjectRef(callback))});
  } catch (const NamedException& e) {
    // The first call is the first time the peer has to speak the agent's protocol.
    if (e.name() == kPortTimeoutException) {
      return Failure{fmt::format("{} accepted the connection but did not answer as a Kestrin "
                                 "agent within {} s: it is not an agent, or a stuck one",
                                 where, std::chrono::duration<double>(timeout).count())};
    }
    if (e.name() == kInvalidSendPortException) {
      return Failure{
          fmt::format("{} ended the connection without answering as a Kestrin agent "
                      "(not an agent, or one that does not accept this address or this console: "
                      "\"ambrant id\" prints the console's fingerprint for the "
                      "agent's authorized_admins): {}",
                      where, e.what())};
    }
    return Failure{fmt::format("cannot register the error callback: {} - {}", e.name(), e.what())};
  }
  auto admin =
      std::unique_ptr<AdminClient>(new AdminClient(std::move(*client), std::move(callback)));
  admin->firstContact_ = firstContact;
  return admin;
}

plist::Value AdminClient::call(const std::string& selector, std::vector<plist::Value> arguments) {
  return client_->root()->invoke(selector, std::move(arguments));
}

} // namespace kestrin::admin
