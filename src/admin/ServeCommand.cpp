#include "admin/ServeCommand.h"

#include <csignal>
#include <iostream>

#include <arpa/inet.h>
#include <unistd.h>

#include <fmt/format.h>

#include "admin/CommandLine.h"
#include "admin/FleetTargets.h"
#include "admin/KnownAgents.h"
#include "admin/PasswordPrompt.h"
#include "admin/console/ConsoleAccess.h"
#include "admin/console/ConsoleFleet.h"
#include "admin/console/ConsoleServer.h"

namespace kestrin::admin {

namespace {

using std::chrono::milliseconds;

bool isLoopback(const std::string& host) {
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  return host == "::1" || host == "localhost";
}

} // namespace

int serveCommand(CommandLine& command) {
  std::string listen = command.option("--listen").value_or("127.0.0.1:8750");
  std::optional<std::string> hostsFile = command.option("--hosts");
  milliseconds window{3000};
  if (auto seconds = command.seconds("--browse")) {
    window = milliseconds(static_cast<std::int64_t>(*seconds * 1000));
  }
  bool passwordFromStdin = command.flag("--password-stdin");
  command.operands({});
  // Port 0 lets the system choose, which the first line printed then names.
  bool anyPort = listen.ends_with(":0");
  auto address = parseAgentAddress(anyPort ? listen.substr(0, listen.size() - 1) + "1" : listen);
  if (!address) {
    throw UsageError("--listen: " + address.message());
  }
  if (anyPort) {
    address->port = 0;
  }

  // Beyond this machine the console asks for its own password, and speaks only TLS.
  std::optional<std::string> hash;
  std::shared_ptr<const transport::TlsIdentity> identity;
  if (!isLoopback(address->host)) {
    std::string path = consoleConfigurationFolder() + "/console-password";
    auto stored = ConsoleAccess::loadOrCreatePassword(path, [&]() -> Expected<SecretBuffer> {
      if (passwordFromStdin) {
        return readPasswordLine(STDIN_FILENO);
      }
      auto first = promptForPassword("New console password: ");
      if (!first) {
        return first;
      }
      auto again = promptForPassword("The same again: ");
      if (again && first->view() != again->view()) {
        return Failure{"the two passwords differ"};
      }
      return again;
    });
    if (!stored) {
      throw CommandFailure(kExitUsage, stored.message());
    }
    hash = *stored;
    identity = command.trust().identity;
  }

  // Only the server's loop takes the stop signals: every thread made from here on blocks them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  ConsoleFleet::Options options;
  options.fleet = {32, command.timeout(), command.trust()};
  options.find = [hostsFile, window] {
    auto agents = hostsFile ? readHostsFile(*hostsFile) : discoverAgents(window);
    if (!agents) {
      throw CommandFailure(kExitUnreachable, agents.message());
    }
    return *agents;
  };
  ConsoleFleet fleet(options);
  ConsoleAccess access(hash);
  fleet.setPasswordRejected([&access] { access.forgetAllCredentials(); });
  fleet.start();

  ConsoleServer server(fleet, access, {address->host, address->port, identity});
  auto failed = server.run([&](int port) {
    std::cout << fmt::format("serving the console at {}://{}:{}/", identity ? "https" : "http",
                             address->host.find(':') == std::string::npos
                                 ? address->host
                                 : "[" + address->host + "]",
                             port)
              << std::endl;
  });
  if (failed) {
    throw CommandFailure(kExitUnreachable, *failed);
  }
  return kExitOk;
}

} // namespace kestrin::admin
