#pragma once

#include <chrono>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "plist/Value.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"

namespace kestrin::testing {

// Selectors with the arguments a careless or hostile admin sends them.
using HostileCalls = std::vector<std::pair<std::string, std::vector<plist::Value>>>;

// Every call sent by `admins` connections at once to the agent at the loopback port, each
// refused or answered as it may be. Answers whether every admin was still served afterwards.
inline bool severalAdminsSend(int port, const HostileCalls& calls, int admins = 4) {
  std::vector<std::future<bool>> running;
  for (int admin = 0; admin < admins; ++admin) {
    running.push_back(std::async(std::launch::async, [&] {
      auto client = transport::RpcClient::connectTcp("127.0.0.1", port, std::chrono::seconds(10));
      if (!client) {
        return false;
      }
      for (const auto& [selector, arguments] : calls) {
        try {
          (*client)->root()->invoke(selector, arguments);
        } catch (const NamedException&) {
          // refused: what a wrong argument gets
        }
      }
      return (*client)->root()->invoke("ping", {}).isNull();
    }));
  }
  bool served = true;
  for (auto& admin : running) {
    served = admin.get() && served;
  }
  return served;
}

} // namespace kestrin::testing
