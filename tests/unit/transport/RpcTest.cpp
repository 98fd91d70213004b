#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/RecordingObject.h"
#include "fixtures/TempDir.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"
#include "transport/RpcServer.h"

namespace kestrin::transport {
namespace {

using namespace std::chrono_literals;
using plist::Value;

// The server's root for these tests: echoes, raises, keeps and calls back objects.
class TestRoot : public plist::RemoteObject {
public:
  std::string description() const override { return "<TestRoot>"; }
  bool respondsTo(const std::string& selector) override {
    return selector == "echo:" || selector == "raise:" || selector == "keep:" ||
           selector == "callKept:" || selector == "sleep:" || selector == "keptTwiceIsSame";
  }
  Value invoke(const std::string& selector, std::vector<Value> args) override {
    if (selector == "echo:") {
      return args.at(0);
    }
    if (selector == "raise:") {
      throw NamedException("QVTestException", *args.at(0).asString());
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
      return object->invoke(*args.at(0).asString(), {Value("from the server")});
    }
    if (selector == "keptTwiceIsSame") {
      std::lock_guard lock(mutex);
      return kept.size() == 2 && kept[0] == kept[1];
    }
    if (selector == "sleep:") {
      std::this_thread::sleep_for(std::chrono::milliseconds(*args.at(0).asInteger()));
      return "slept";
    }
    throw ArgumentError("TestRoot does not respond to selector " + selector);
  }

  std::mutex mutex;
  std::vector<plist::ObjectRef> kept;
};

platform::FileDescriptor listenTcp(int& port) {
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

struct Counting : RpcServer::Delegate {
  std::atomic<int> accepted{0};
  std::atomic<bool> refuseAll{false};
  std::mutex mutex;
  PeerInfo last;
  bool shouldAcceptConnection(const PeerInfo& peer) override {
    std::lock_guard lock(mutex);
    last = peer;
    return !refuseAll;
  }
  void connectionDidInitialize(const PeerInfo&) override { ++accepted; }
  void serverDidDie(const std::string&) override {}
};

class RpcTest : public ::testing::Test {
protected:
  void SetUp() override {
    auto started = RpcServer::start(listenTcp(port), root, &delegate);
    ASSERT_TRUE(started.ok()) << started.message();
    server = std::move(*started);
  }
  std::unique_ptr<RpcClient> connect() {
    auto client = RpcClient::connectTcp("127.0.0.1", port, 5s);
    EXPECT_TRUE(client.ok()) << client.message();
    return client.ok() ? std::move(*client) : nullptr;
  }
  void expectServing() {
    auto client = connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->root()->invoke("echo:", {Value("still here")}), Value("still here"));
  }

  std::shared_ptr<TestRoot> root = std::make_shared<TestRoot>();
  Counting delegate;
  int port = 0;
  std::unique_ptr<RpcServer> server;
};

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

TEST_F(RpcTest, AnAnswerLaterThanTheReplyLimitRaisesPortTimeout) {
  auto client = connect();
  client->setReplyTimeout(100ms);
  try {
    client->root()->invoke("sleep:", {Value(1000)});
    FAIL() << "no time-out";
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
  auto client = RpcClient::connectTcp("127.0.0.1", port, 5s);
  if (client.ok()) {
    EXPECT_THROW((*client)->root()->invoke("echo:", {Value(1)}), NamedException);
  }
  EXPECT_EQ(delegate.last.address, "127.0.0.1");
  delegate.refuseAll = false;
  expectServing();
}

TEST_F(RpcTest, GarbageAndAbandonedConnectionsLeaveTheServerServing) {
  std::mt19937 random(7);
  for (int i = 0; i < 20; ++i) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    std::vector<char> junk(1 + random() % 4096);
    for (char& c : junk) {
      c = static_cast<char>(random());
    }
    (void)::send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
    ::close(fd);
  }
  for (int i = 0; i < 1000; ++i) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  }
  expectServing();
  for (int i = 0; i < 100 && server->connectionCount() > 0; ++i) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(server->connectionCount(), 0u);
}

TEST_F(RpcTest, OversizedAndOverNestedArgumentsFailCleanly) {
  auto client = connect();
  plist::Value deep("bottom");
  for (int i = 0; i < 100; ++i) {
    deep = plist::Array{deep};
  }
  EXPECT_THROW(client->root()->invoke("echo:", {deep}), ArgumentError);

  try {
    client->root()->invoke("echo:", {Value(plist::Data(64u << 20, 0x5a))});
  } catch (const NamedException&) {
    // Refused or the connection dropped: both are fine, as long as others are still served.
  }
  expectServing();
}

TEST(RpcUnixSocket, ServesLocalPeersAndKnowsTheirProcess) {
  testing::TempDir dir;
  std::string path = (dir.path() / "callback.sock").string();
  platform::FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  ASSERT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd.get(), 16), 0);
  Counting delegate;
  auto server = RpcServer::start(std::move(fd), std::make_shared<TestRoot>(), &delegate);
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
  auto client = RpcClient::connectTcp("127.0.0.1", port, 2s);
  ASSERT_FALSE(client.ok());
  EXPECT_NE(client.message().find("cannot connect"), std::string::npos);
}

} // namespace
} // namespace kestrin::transport
