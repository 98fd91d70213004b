#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "RpcTestServer.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/TempDir.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"
#include "transport/RpcServer.h"

namespace kestrin::transport {
namespace {

using namespace std::chrono_literals;
using plist::Value;

TEST_F(RpcTest, EveryKindOfValueSurvivesTheRoundTrip) {
  auto client = connect();
  plist::Dictionary nested{{"z", 1}, {"a", plist::Array{Value(), Value(true), Value(2.5)}}};
  std::vector<Value> values = {
      Value(),
      Value(false),
      Value(std::int64_t{-9007199254740993}),
      Value(-0.125),
      Value("Ünïcödé \xe2\x9c\x93"),
      Value(plist::Data{0, 0xff, 0x7f}),
      Value(plist::Date{-12345.5}),
      Value(plist::Array{Value(1), Value(plist::Array{Value("deep")})}),
      Value(nested),
      Value(plist::ErrorRecord{"ambrantDomain", 1006, {{"info", "Tibbet"}}}),
  };
  for (const Value& value : values) {
    EXPECT_EQ(client->root()->invoke("echo:", {value}), value) << plist::describe(value);
  }
  auto echoed = client->root()->invoke("echo:", {Value(nested)});
  EXPECT_EQ(echoed.asDictionary()->keys(), (std::vector<std::string>{"z", "a"}));
}

TEST_F(RpcTest, CalleeExceptionsArriveUnderTheirOwnName) {
  auto client = connect();
  try {
    client->root()->invoke("raise:", {Value("disk on fire")});
    FAIL() << "no exception";
  } catch (const NamedException& e) {
    EXPECT_EQ(e.name(), "QVTestException");
    EXPECT_STREQ(e.what(), "disk on fire");
  }
  try {
    client->root()->invoke("format:", {});
    FAIL() << "no exception";
  } catch (const NamedException& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  EXPECT_TRUE(client->root()->respondsTo("sleep:"));
  EXPECT_FALSE(client->root()->respondsTo("format:"));
}

TEST_F(RpcTest, ACallbackPassedInAnArgumentCanBeCalledLaterAndKeepsItsIdentity) {
  auto client = connect();
  auto callback = std::make_shared<testing::RecordingObject>(std::set<std::string>{"ping:"});
  client->root()->invoke("keep:", {Value(plist::ObjectRef(callback))});
  client->root()->invoke("keep:", {Value(plist::ObjectRef(callback))});
  EXPECT_EQ(client->root()->invoke("keptTwiceIsSame", {}), Value(true));

  client->root()->invoke("callKept:", {Value("ping:")});
  ASSERT_EQ(callback->calls().size(), 1u);
  EXPECT_EQ(callback->calls()[0].arguments.at(0), Value("from the server"));
}

TEST_F(RpcTest, AnObjectOfAVanishedClientRaisesInvalidSendPort) {
  auto client = connect();
  auto callback = std::make_shared<testing::RecordingObject>(std::set<std::string>{"ping:"});
  client->root()->invoke("keep:", {Value(plist::ObjectRef(callback))});
  client.reset();

  plist::ObjectRef kept = root->kept.back();
  for (int attempt = 0; attempt < 50; ++attempt) {
    try {
      kept->invoke("ping:", {});
      std::this_thread::sleep_for(20ms); // the disconnect may not have been seen yet
    } catch (const NamedException& e) {
      EXPECT_EQ(e.name(), "NSInvalidSendPortException");
      return;
    }
  }
  FAIL() << "the call to a vanished client kept succeeding";
}

TEST_F(RpcTest, AnAnswerLaterThanTheReplyLimitRaisesPortTimeoutAndNothingElseDoes) {
  auto client = connect();
  client->setReplyTimeout(100ms);
  try {
    client->root()->invoke("sleep:", {Value(1000)});
    FAIL() << "no time-out";
  } catch (const PortTimeoutException& e) {
    EXPECT_EQ(e.name(), "NSPortTimeoutException");
  }
  // A peer's exception bearing the same name is the peer's, not a time-out of ours.
  try {
    client->root()->invoke("raiseNamed:reason:", {Value("NSPortTimeoutException"), Value("x")});
    FAIL() << "nothing raised";
  } catch (const PortTimeoutException&) {
    FAIL() << "a peer's exception passed for the transport's time-out";
  } catch (const NamedException& e) {
    EXPECT_EQ(e.name(), "NSPortTimeoutException");
  }
  client->setReplyTimeout(0ms);
  EXPECT_EQ(client->root()->invoke("sleep:", {Value(10)}), Value("slept"));
}

TEST_F(RpcTest, SlowCallsDoNotHoldUpOtherCallers) {
  auto slow = connect();
  std::thread sleeper([&] { slow->root()->invoke("sleep:", {Value(1500)}); });
  std::this_thread::sleep_for(50ms);
  auto start = std::chrono::steady_clock::now();
  expectServing();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  sleeper.join();
}

TEST_F(RpcTest, RefusedConnectionsCannotCallAnything) {
  delegate.refuseAll = true;
  auto client = RpcClient::connectTcp("127.0.0.1", port, 5s, TlsClientOptions::plain());
  if (client.ok()) {
    EXPECT_THROW((*client)->root()->invoke("echo:", {Value(1)}), NamedException);
  }
  EXPECT_EQ(delegate.last.address, "127.0.0.1");
  delegate.refuseAll = false;
  expectServing();
}

TEST_F(RpcTest, ValuesNestedUpToTheLimitArriveWhole) {
  auto client = connect();
  // Each kind of container costs the reader a different number of pointer hops.
  Value arrays("bottom");
  Value dictionaries("bottom");
  Value mixed("bottom");
  for (int i = 0; i < 60; ++i) {
    arrays = plist::Array{arrays};
    dictionaries = plist::Dictionary{{"k", dictionaries}};
    mixed = i % 2 == 0 ? Value(plist::Array{mixed}) : Value(plist::Dictionary{{"k", mixed}});
  }
  Value errors("bottom");
  for (int i = 0; i < 30; ++i) {
    errors = plist::ErrorRecord{"d", i, {{"k", errors}}};
  }
  for (const Value& value : {arrays, dictionaries, mixed, errors}) {
    EXPECT_EQ(client->root()->invoke("echo:", {value}), value);
  }
}

TEST_F(RpcTest, StoppingTheServerDoesNotWaitForABlockedCall) {
  auto client = connect();
  std::atomic<bool> toldOfDisconnect{false};
  client->setDisconnectHandler([&] { toldOfDisconnect = true; });
  std::string raised;
  std::thread caller([&] {
    try {
      client->root()->invoke("sleep:", {Value(3000)});
    } catch (const NamedException& e) {
      raised = e.name();
    }
  });
  for (int i = 0; i < 100 && server->connectionCount() == 0; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  std::this_thread::sleep_for(100ms); // the call is on its worker by now
  server->stop();
  EXPECT_EQ(root->sleepsFinished, 0) << "stop() waited for the blocked call";
  caller.join();
  EXPECT_EQ(raised, "NSInvalidSendPortException");
  for (int i = 0; i < 100 && !toldOfDisconnect; ++i) {
    std::this_thread::sleep_for(10ms); // the failed call may arrive before the disconnect
  }
  EXPECT_TRUE(toldOfDisconnect);
  EXPECT_FALSE(client->isConnected());
}

TEST(RpcUnixSocket, ServesLocalPeersAndKnowsTheirProcess) {
  testing::TempDir dir;
  std::string path = (dir.path() / "callback.sock").string();
  CountingDelegate delegate;
  auto server =
      RpcServer::start(listenUnix(path), std::make_shared<TestRoot>(), &delegate, testWorkers());
  ASSERT_TRUE(server.ok());

  auto client = RpcClient::connectUnix(path, 5s);
  ASSERT_TRUE(client.ok()) << client.message();
  EXPECT_EQ((*client)->root()->invoke("echo:", {Value(42)}), Value(42));
  EXPECT_EQ(delegate.last.pid, ::getpid());

  EXPECT_FALSE(RpcClient::connectUnix((dir.path() / "nobody.sock").string(), 1s).ok());
}

TEST(RpcClientTest, ConnectingToAClosedPortFailsWithAReason) {
  int port = 0;
  { listenTcp(port); } // bound and closed again: nobody listens there now
  auto client = RpcClient::connectTcp("127.0.0.1", port, 2s, TlsClientOptions::plain());
  ASSERT_FALSE(client.ok());
  EXPECT_NE(client.message().find("cannot connect"), std::string::npos);
}

} // namespace
} // namespace kestrin::transport
