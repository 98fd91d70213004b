// A client for RpcHostileInputTest that is killed while the server calls back into it: it
// hands the server a callback, reports on stdout when the server's call arrives, and keeps
// that call waiting until the test kills the process.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "transport/RpcClient.h"

namespace {

class StallingCallback : public kestrin::plist::RemoteObject {
public:
  std::string description() const override { return "<stalling callback>"; }
  bool respondsTo(const std::string& selector) override { return selector == "ping:"; }
  kestrin::plist::Value invoke(const std::string&, std::vector<kestrin::plist::Value>) override {
    if (::write(STDOUT_FILENO, "!", 1) != 1) {
      std::_Exit(1);
    }
    for (;;) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
};

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  auto client = kestrin::transport::RpcClient::connectTcp(
      "127.0.0.1", std::atoi(argv[1]), std::chrono::seconds(5),
      kestrin::transport::TlsClientOptions::plain());
  if (!client.ok()) {
    return 1;
  }
  kestrin::plist::ObjectRef callback = std::make_shared<StallingCallback>();
  (*client)->root()->invoke("callBack:", {kestrin::plist::Value(callback)});
  return 0;
}
