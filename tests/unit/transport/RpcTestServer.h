#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/WorkerPool.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"
#include "transport/RpcServer.h"

namespace kestrin::transport {

// The server's root for the transport tests: echoes, raises, keeps and calls back objects.
class TestRoot : public plist::RemoteObject {
public:
  std::string description() const override { return "<TestRoot>"; }
  bool respondsTo(const std::string& selector) override {
    return selector == "echo:" || selector == "raise:" || selector == "keep:" ||
           selector == "callKept:" || selector == "sleep:" || selector == "keptTwiceIsSame" ||
           selector == "callBack:" || selector == "raiseNamed:reason:" || selector == "hold:for:";
  }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> args) override {
    if (selector == "echo:") {
      return args.at(0);
    }
    if (selector == "raise:") {
      throw NamedException("QVTestException", *args.at(0).asString());
    }
    if (selector == "raiseNamed:reason:") {
      throw NamedException(*args.at(0).asString(), *args.at(1).asString());
    }
    if (selector == "keep:") {
      std::lock_guard lock(mutex);
      kept.push_back(args.at(0).asObject());
      return {};
    }
    if (selector == "callKept:") {
      plist::ObjectRef object;
      {
        std::lock_guard lock(mutex);
        object = kept.back();
      }
      return object->invoke(*args.at(0).asString(), {plist::Value("from the server")});
    }
    if (selector == "keptTwiceIsSame") {
      std::lock_guard lock(mutex);
      return kept.size() == 2 && kept[0] == kept[1];
    }
    if (selector == "hold:for:") { // keeps its arguments while it sleeps
      ++running;
      std::this_thread::sleep_for(std::chrono::milliseconds(*args.at(1).asInteger()));
      --running;
      return plist::Value(args.at(0).isNull() ? "held nothing" : "held");
    }
    if (selector == "sleep:") {
      ++running;
      std::this_thread::sleep_for(std::chrono::milliseconds(*args.at(0).asInteger()));
      --running;
      ++sleepsFinished;
      return "slept";
    }
    if (selector == "callBack:") {
      try {
        return args.at(0).asObject()->invoke("ping:", {});
      } catch (const NamedException& e) {
        std::lock_guard lock(mutex);
        bool timeout = dynamic_cast<const PortTimeoutException*>(&e) != nullptr;
        callbackFailures.push_back(timeout ? "PortTimeoutException" : e.name());
        throw;
      }
    }
    throw ArgumentError("TestRoot does not respond to selector " + selector);
  }

  std::vector<std::string> failures() {
    std::lock_guard lock(mutex);
    return callbackFailures;
  }

  std::mutex mutex;
  std::vector<plist::ObjectRef> kept;
  std::vector<std::string> callbackFailures;
  std::atomic<int> sleepsFinished{0};
  std::atomic<int> running{0}; // calls inside sleep: or hold:for: right now
};

inline platform::FileDescriptor listenTcp(int& port) {
  platform::FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(fd.get(), 128), 0);
  socklen_t length = sizeof address;
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

inline sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  return address;
}

inline platform::FileDescriptor listenUnix(const std::string& path) {
  platform::FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = unixAddress(path);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(fd.get(), 128), 0);
  return fd;
}

// Where the test servers' calls run: one pool for the whole test program.
inline WorkerPool& testWorkers() {
  static WorkerPool pool;
  return pool;
}

struct CountingDelegate : RpcServer::Delegate {
  std::atomic<int> accepted{0};
  std::atomic<int> refused{0};
  std::atomic<int> died{0};
  std::atomic<bool> refuseAll{false};
  std::mutex mutex;
  PeerInfo last;
  bool shouldAcceptConnection(const PeerInfo& peer) override {
    std::lock_guard lock(mutex);
    last = peer;
    return !refuseAll;
  }
  void connectionDidInitialize(const PeerInfo&) override { ++accepted; }
  void connectionRefused(const PeerInfo&, const std::string&) override { ++refused; }
  void serverDidDie(const std::string&) override { ++died; }
};

// A server on a loopback TCP port, serving a TestRoot.
class RpcTest : public ::testing::Test {
protected:
  void SetUp() override {
    auto started = RpcServer::start(listenTcp(port), root, &delegate, testWorkers(), limits);
    ASSERT_TRUE(started.ok()) << started.message();
    server = std::move(*started);
  }
  std::unique_ptr<RpcClient> connect() {
    auto client = RpcClient::connectTcp("127.0.0.1", port, std::chrono::seconds(5),
                                        TlsClientOptions::plain());
    EXPECT_TRUE(client.ok()) << client.message();
    return client.ok() ? std::move(*client) : nullptr;
  }
  void expectServing() {
    auto client = connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->root()->invoke("echo:", {plist::Value("still here")}),
              plist::Value("still here"));
  }
  void expectConnectionsGone() {
    for (int i = 0; i < 250 && server->connectionCount() > 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(server->connectionCount(), 0u);
  }

  TransportLimits limits;
  std::shared_ptr<TestRoot> root = std::make_shared<TestRoot>();
  CountingDelegate delegate;
  int port = 0;
  std::unique_ptr<RpcServer> server;
};

} // namespace kestrin::transport
