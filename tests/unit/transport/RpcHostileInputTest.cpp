#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <random>
#include <string>
#include <thread>

#include <capnp/ez-rpc.h>
#include <gtest/gtest.h>

#include "RpcTestServer.h"
#include "fixtures/TempDir.h"
#include "support/NamedException.h"
#include "transport/remote.capnp.h"

namespace kestrin::transport {
namespace {

using namespace std::chrono_literals;
using plist::Value;

void sendJunk(int fd, std::mt19937& random) {
  std::vector<char> junk(1 + random() % 4096);
  for (char& c : junk) {
    c = static_cast<char>(random());
  }
  (void)::send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
}

int connectedTcp(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return fd;
}

// Whether the peer closes fd within a few seconds, whatever it says before it does.
bool closedByPeer(int fd) {
  timeval wait{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  char buffer[4096];
  for (;;) {
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) {
      return true;
    }
    if (n < 0) {
      return false; // timed out
    }
  }
}

TEST_F(RpcTest, RandomBytesAndAbandonedConnectionsLeaveTheServerServing) {
  std::mt19937 random(7);
  for (int i = 0; i < 20; ++i) {
    int fd = connectedTcp(port);
    sendJunk(fd, random);
    ::close(fd);
  }
  for (int i = 0; i < 1000; ++i) {
    ::close(connectedTcp(port));
  }
  expectServing();
  expectConnectionsGone();
  EXPECT_EQ(delegate.died, 0);
}

TEST(RpcHostileUnixSocket, RandomBytesLeaveTheServerServing) {
  testing::TempDir dir;
  std::string path = (dir.path() / "hostile.sock").string();
  CountingDelegate delegate;
  auto server =
      RpcServer::start(listenUnix(path), std::make_shared<TestRoot>(), &delegate, testWorkers());
  ASSERT_TRUE(server.ok()) << server.message();
  std::mt19937 random(11);
  for (int i = 0; i < 20; ++i) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = unixAddress(path);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    sendJunk(fd, random);
    ::close(fd);
  }
  auto client = RpcClient::connectUnix(path, 5s);
  ASSERT_TRUE(client.ok()) << client.message();
  EXPECT_EQ((*client)->root()->invoke("echo:", {Value("fine")}), Value("fine"));
}

TEST_F(RpcTest, ArgumentsTooLargeForAMessageAreRefusedBeforeSending) {
  auto client = connect();
  try {
    client->root()->invoke("echo:", {Value(plist::Data(64u << 20, 0x5a))});
    FAIL() << "a 64 MiB argument was sent";
  } catch (const NamedException& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
    EXPECT_NE(std::string(e.what()).find("do not fit in one message"), std::string::npos);
  }
  EXPECT_TRUE(client->isConnected());
  plist::Data large(16u << 20, 0xa5);
  EXPECT_EQ(client->root()->invoke("echo:", {Value(large)}), Value(large));
}

TEST_F(RpcTest, OverNestedValuesAreRefusedBySenderAndReceiver) {
  auto client = connect();
  Value deep("bottom");
  for (int i = 0; i < 61; ++i) {
    deep = plist::Array{deep};
  }
  EXPECT_THROW(client->root()->invoke("echo:", {deep}), ArgumentError);
  EXPECT_TRUE(client->isConnected());

  // A peer that does not check before sending: the server refuses while decoding, answering
  // under the same name, and keeps the connection.
  capnp::EzRpcClient raw("127.0.0.1", static_cast<capnp::uint>(port));
  auto request = raw.getMain<wire::RemoteObject>().invokeRequest();
  request.setSelector("echo:");
  auto value = request.initArguments(1)[0];
  for (int i = 0; i < 70; ++i) {
    value = value.initArray(1)[0];
  }
  value.setString("bottom");
  auto response = request.send().wait(raw.getWaitScope());
  EXPECT_EQ(std::string(response.getRaised().getName().cStr()), "NSInvalidArgumentException");
  EXPECT_NE(std::string(response.getRaised().getReason().cStr()).find("nested deeper"),
            std::string::npos);
  expectServing();
}

// The server with limits small enough for a test to reach.
class RpcLimitsTest : public RpcTest {
protected:
  RpcLimitsTest() {
    limits.valuesPerCall = 1000;
    limits.bytesPerCall = 1 << 20;
    limits.callsPerConnection = 4;
    limits.valuesPerConnection = 1500;
    limits.bytesPerConnection = 1536 << 10;
    limits.bytesPerServer = 2 << 20;
    limits.replyTimeout = 300ms;
    limits.receivingBytes = 1 << 20;
    limits.messageTime = 2s;
    limits.connections = 8;
    limits.connectionsPerAddress = 6;
  }

  bool runningReaches(int calls) {
    for (int i = 0; i < 500 && root->running < calls; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    return root->running == calls;
  }

  // The name a call was refused under, or "" when it was answered.
  static std::string refusal(RpcClient& client, const std::string& selector,
                             std::vector<Value> arguments) {
    try {
      client.root()->invoke(selector, std::move(arguments));
      return "";
    } catch (const NamedException& e) {
      return e.name();
    }
  }
};

Value bytes(std::size_t count) {
  return Value(plist::Data(count, 0x5a));
}

TEST_F(RpcLimitsTest, ArgumentsPastTheBudgetsAreRefusedByNameAndHeldOnlyWhileTheirCallRuns) {
  auto client = connect();
  // One call: values and bytes.
  EXPECT_EQ(refusal(*client, "echo:", {Value(plist::Array(1000, Value(1)))}),
            "NSInvalidArgumentException");
  EXPECT_EQ(refusal(*client, "echo:", {bytes((1 << 20) + 1)}), "NSInvalidArgumentException");
  EXPECT_EQ(refusal(*client, "echo:", {Value(plist::Array(998, Value(1)))}), "");

  // One connection holds 0.9 MiB in a running call: another 0.9 MiB is too much for it, not
  // for a second connection; a third one finds the server's budget spent.
  auto second = connect();
  auto third = connect();
  std::thread holding([&] {
    client->root()->invoke("hold:for:", {bytes(900 << 10), Value(1500)});
  });
  std::thread alsoHolding([&] {
    second->root()->invoke("hold:for:", {bytes(900 << 10), Value(1500)});
  });
  ASSERT_TRUE(runningReaches(2));
  EXPECT_EQ(refusal(*client, "hold:for:", {bytes(900 << 10), Value(0)}), "KestrinBusyException");
  EXPECT_EQ(refusal(*third, "hold:for:", {bytes(300 << 10), Value(0)}), "KestrinBusyException");
  holding.join();
  alsoHolding.join();
  EXPECT_EQ(refusal(*client, "hold:for:", {bytes(900 << 10), Value(0)}), "");
  EXPECT_EQ(refusal(*third, "hold:for:", {bytes(900 << 10), Value(0)}), "");
}

TEST_F(RpcLimitsTest, ACallerGetsAtMostItsShareOfCallsRunningAtOnce) {
  auto greedy = connect();
  std::vector<std::thread> sleepers;
  for (int i = 0; i < 4; ++i) {
    sleepers.emplace_back([&] { greedy->root()->invoke("sleep:", {Value(1500)}); });
  }
  ASSERT_TRUE(runningReaches(4));
  EXPECT_EQ(refusal(*greedy, "echo:", {Value("one more")}), "KestrinBusyException");
  EXPECT_THROW(greedy->root()->respondsTo("echo:"), NamedException);
  expectServing(); // another connection is not held up
  for (auto& sleeper : sleepers) {
    sleeper.join();
  }
  EXPECT_EQ(refusal(*greedy, "echo:", {Value("one more")}), "");
}

// A client's object that never answers: the server's call to it gives up at the reply limit
// with the transport's own time-out, and the server goes on serving.
TEST_F(RpcLimitsTest, ACallbackThatNeverAnswersTimesOutAtTheReplyLimit) {
  struct Hung : plist::RemoteObject {
    std::string description() const override { return "<hung>"; }
    bool respondsTo(const std::string&) override { return true; }
    Value invoke(const std::string&, std::vector<Value>) override {
      std::unique_lock lock(mutex);
      released.wait(lock, [this] { return release; });
      return {};
    }
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
  };
  auto hung = std::make_shared<Hung>();
  auto client = connect();
  EXPECT_EQ(refusal(*client, "callBack:", {Value(plist::ObjectRef(hung))}),
            "NSPortTimeoutException");
  EXPECT_EQ(root->failures(), std::vector<std::string>{"PortTimeoutException"});
  expectServing();
  {
    std::lock_guard lock(hung->mutex);
    hung->release = true;
  }
  hung->released.notify_all();
}

// A peer that announces a large message and then trickles holds the room it was given only
// until the message's time is up; large messages behind it wait their turn meanwhile, small
// ones never do.
TEST_F(RpcLimitsTest, ALargeMessageThatTricklesLosesItsConnectionAndTheNextIsRead) {
  int trickler = connectedTcp(port);
  std::uint32_t frame[2] = {0, (900u << 10) / 8}; // one segment of 900 KiB
  ASSERT_EQ(::send(trickler, frame, sizeof frame, MSG_NOSIGNAL), 8);
  ASSERT_EQ(::send(trickler, std::string(100, 'x').data(), 100, MSG_NOSIGNAL), 100);
  std::this_thread::sleep_for(200ms); // read as far as it goes

  auto large = connect();
  std::atomic<bool> largeDone{false};
  std::thread uploading([&] {
    EXPECT_EQ(refusal(*large, "echo:", {bytes(900 << 10)}), "");
    largeDone = true;
  });
  auto small = connect();
  EXPECT_EQ(small->root()->invoke("echo:", {Value("small")}), Value("small"));
  EXPECT_FALSE(largeDone) << "a large message was read while the gate was full";
  uploading.join();
  EXPECT_TRUE(closedByPeer(trickler)) << "the trickler is still connected";
  ::close(trickler);
}

TEST_F(RpcLimitsTest, ConnectionsPastTheLimitsAreRefusedAtTheDoor) {
  std::vector<int> open;
  for (int i = 0; i < 6; ++i) {
    open.push_back(connectedTcp(port));
  }
  for (int i = 0; i < 250 && server->connectionCount() < 6; ++i) {
    std::this_thread::sleep_for(20ms);
  }
  ASSERT_EQ(server->connectionCount(), 6u);
  int seventh = connectedTcp(port);
  EXPECT_TRUE(closedByPeer(seventh));
  EXPECT_EQ(delegate.refused, 1);
  ::close(seventh);
  ::close(open.back());
  open.pop_back();
  for (int i = 0; i < 250 && server->connectionCount() > 5; ++i) {
    std::this_thread::sleep_for(20ms);
  }
  expectServing(); // room again once one has gone
  for (int fd : open) {
    ::close(fd);
  }
}

// The child hands the server a callback and is killed while a server worker is inside a call
// to it; that call must fail as a vanished peer and nothing else may suffer.
TEST_F(RpcTest, AClientKilledWhileCalledBackLeavesTheServerServing) {
  int output[2];
  ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(output[1], STDOUT_FILENO);
    std::string portText = std::to_string(port);
    ::execl(KESTRIN_RPC_CALLBACK_CHILD, KESTRIN_RPC_CALLBACK_CHILD, portText.c_str(), nullptr);
    ::_exit(127);
  }
  ::close(output[1]);
  char signal = 0;
  ASSERT_EQ(::read(output[0], &signal, 1), 1) << "the child never got the server's call";
  ::close(output[0]);
  ASSERT_EQ(::kill(child, SIGKILL), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);

  for (int i = 0; i < 250 && root->failures().empty(); ++i) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(root->failures(), std::vector<std::string>{"NSInvalidSendPortException"});
  expectServing();
  expectConnectionsGone();
}

} // namespace
} // namespace kestrin::transport
