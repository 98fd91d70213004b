#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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
