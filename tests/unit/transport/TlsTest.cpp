// TLS under the remote-object transport: what each side refuses of the other's certificate,
// how long a handshake may take, and traffic both ways at once.
#include <future>
#include <mutex>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RpcTestServer.h"
#include "fixtures/AgentProcess.h"
#include "support/NamedException.h"
#include "transport/TlsIdentity.h"
#include "transport/TlsStream.h"

namespace kestrin::transport {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

struct HandshakeWatcher : CountingDelegate {
  std::vector<std::string> failures() {
    std::lock_guard lock(mutex);
    return reasons;
  }
  void handshakeFailed(const PeerInfo&, const std::string& reason) override {
    std::lock_guard lock(mutex);
    reasons.push_back(reason);
  }
  std::optional<std::string> lastFingerprint() {
    std::lock_guard lock(mutex);
    return last.fingerprint;
  }
  std::vector<std::string> reasons;
};

class TlsTest : public ::testing::Test {
protected:
  void SetUp() override {
    auto identity = TlsIdentity::generate("agent under test");
    ASSERT_TRUE(identity.ok()) << identity.message();
    agent = *identity;
    auto context = TlsContext::make(TlsContext::Side::Server, agent);
    ASSERT_TRUE(context.ok()) << context.message();
    auto started = RpcServer::start(listenTcp(port), root, &delegate, testWorkers(), {},
                                    TlsServerOptions{*context, 300ms});
    ASSERT_TRUE(started.ok()) << started.message();
    server = std::move(*started);
  }
  Expected<std::unique_ptr<RpcClient>> connect(std::shared_ptr<const TlsIdentity> console) {
    return RpcClient::connectTcp("127.0.0.1", port, 5s, {true, std::move(console)});
  }

  std::shared_ptr<const TlsIdentity> agent;
  std::shared_ptr<TestRoot> root = std::make_shared<TestRoot>();
  HandshakeWatcher delegate;
  int port = 0;
  std::unique_ptr<RpcServer> server;
};

// A certificate for `holder`'s key whose signature is another key's.
std::shared_ptr<const TlsIdentity> forged(const TlsIdentity& holder, const TlsIdentity& signer) {
  X509* certificate = X509_dup(holder.certificate());
  X509_sign(certificate, signer.key(), EVP_sha256());
  BIO* out = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(out, holder.key(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_X509(out, certificate);
  char* data = nullptr;
  long size = BIO_get_mem_data(out, &data);
  auto identity = TlsIdentity::fromPem(std::string_view(data, static_cast<std::size_t>(size)));
  BIO_free(out);
  X509_free(certificate);
  return identity.ok() ? *identity : nullptr;
}

TEST_F(TlsTest, BothSidesSeeEachOthersKeyAndABrokenCertificateIsRefusedWithItsReason) {
  auto console = TlsIdentity::generate("console").value();
  auto client = connect(console);
  ASSERT_TRUE(client.ok()) << client.message();
  EXPECT_EQ((*client)->root()->invoke("echo:", {plist::Value("over TLS")}),
            plist::Value("over TLS"));
  EXPECT_EQ((*client)->peerFingerprint(), agent->fingerprint());
  EXPECT_EQ(delegate.lastFingerprint(), console->fingerprint());

  auto expired = TlsIdentity::generate("console", -1).value();
  auto other = TlsIdentity::generate("someone else").value();
  for (const auto& [identity, reason] :
       {std::pair{expired, "certificate has expired"},
        std::pair{forged(*console, *other), "certificate signature failure"}}) {
    ASSERT_NE(identity, nullptr);
    auto refused = connect(identity);
    // In TLS 1.3 the client learns of the refusal at its first call.
    if (refused.ok()) {
      EXPECT_THROW((*refused)->root()->invoke("echo:", {plist::Value(1)}), NamedException);
    }
    EXPECT_TRUE(kestrin::testing::eventually([&] {
      auto failures = delegate.failures();
      return !failures.empty() && failures.back().find(reason) != std::string::npos;
    })) << reason;
  }

  EXPECT_FALSE(TlsIdentity::fromPem("-----BEGIN CERTIFICATE-----\nnot one\n").ok());
  EXPECT_FALSE(normalizedFingerprint("SHA256:" + agent->fingerprint().substr(1)).has_value());
  std::string upper = agent->fingerprint();
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  EXPECT_EQ(normalizedFingerprint("SHA256:" + upper), agent->fingerprint());
}

TEST_F(TlsTest, APeerThatNeverFinishesItsHandshakeIsDroppedAtItsTimeLimit) {
  platform::FileDescriptor silent(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  ASSERT_EQ(::connect(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // Meanwhile others are served.
  auto client = connect(nullptr);
  ASSERT_TRUE(client.ok()) << client.message();
  EXPECT_TRUE((*client)->root()->invoke("echo:", {plist::Value()}).isNull());
  char byte;
  EXPECT_EQ(::read(silent.get(), &byte, 1), 0); // closed by the agent, not by the test
  EXPECT_TRUE(kestrin::testing::eventually([&] {
    auto failures = delegate.failures();
    return !failures.empty() && failures.back().find("timed out") != std::string::npos;
  }));
}

TEST_F(TlsTest, LargeValuesCrossBothWaysAtOnceFromSeveralClients) {
  plist::Data big(3 * 1024 * 1024);
  for (std::size_t i = 0; i < big.size(); ++i) {
    big[i] = static_cast<std::uint8_t>(i * 7);
  }
  std::vector<std::future<bool>> echoes;
  for (int i = 0; i < 4; ++i) {
    echoes.push_back(std::async(std::launch::async, [&] {
      auto client = connect(nullptr);
      return client.ok() &&
             (*client)->root()->invoke("echo:", {plist::Value(big)}) == plist::Value(big);
    }));
  }
  for (auto& echo : echoes) {
    EXPECT_TRUE(echo.get());
  }
}

} // namespace
} // namespace kestrin::transport
