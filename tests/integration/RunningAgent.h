#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/TempDir.h"
#include "platform/FileDescriptor.h"

namespace kestrin::testing {

// The real agent, started in a throwaway machine of its own, listening on a port the system
// chose. Several agents may share one runtime folder to meet each other's names.
class RunningAgent {
public:
  // prepare runs before the agent starts, with the machine's local root (KESTRIN_ROOT).
  explicit RunningAgent(std::filesystem::path runtime = {},
                        std::map<std::string, std::string> extraEnvironment = {},
                        const std::function<void(const std::filesystem::path&)>& prepare = {}) {
    std::filesystem::create_directories(home());
    if (prepare) {
      prepare(dir_.path() / "root");
    }
    runtime_ = runtime.empty() ? dir_.path() / "run" : runtime;
    std::filesystem::create_directories(runtime_);
    std::map<std::string, std::string> environment = {
        {"HOME", home().string()},
        {"KESTRIN_ROOT", (dir_.path() / "root").string()},
        {"XDG_RUNTIME_DIR", runtime_.string()},
        {"PATH", "/usr/bin:/bin"}};
    // A sanitized build's agent reports the way the test run asked.
    for (const char* variable : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      if (const char* value = std::getenv(variable)) {
        environment[variable] = value;
      }
    }
    if (const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
      environment["DBUS_SESSION_BUS_ADDRESS"] = bus; // a test's private bus, when it has one
    }
    for (auto& [key, value] : extraEnvironment) {
      environment[key] = value;
    }
    process_ = std::make_unique<AgentProcess>(KESTRIN_AGENT_PATH, std::vector<std::string>{},
                                              environment, output());
  }

  std::filesystem::path home() const { return dir_.path() / "home"; }
  std::filesystem::path output() const { return dir_.path() / "agent.out"; }
  std::filesystem::path runtime() const { return runtime_; }
  std::filesystem::path log() const {
    return (::getuid() == 0 ? dir_.path() / "root" : home()) /
           "Library/Logs/Quorvane/Kestrin.1.log";
  }
  std::string logText() const { return readText(log()); }
  bool logContains(const std::string& text) const {
    return logText().find(text) != std::string::npos;
  }
  AgentProcess& process() { return *process_; }

  // The port of the agent's last "Listening on port N" status, once it is listening and its
  // start-up update check (whose "updateConfig:" would reach an admin registered meanwhile)
  // is over, so tests that count events see only their own.
  int waitForPort(std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
    int port = listeningPort(limit);
    if (port != 0) {
      eventually([&] { return logContains("Start-up software update check finished."); }, limit);
    }
    return port;
  }
  int listeningPort(std::chrono::milliseconds limit) const {
    int port = 0;
    eventually(
        [&] {
          static const std::regex listening("Listening on port ([0-9]+)\n");
          std::string text = readText(output());
          for (std::sregex_iterator it(text.begin(), text.end(), listening), end; it != end; ++it) {
            port = std::stoi((*it)[1]);
          }
          return port != 0;
        },
        limit);
    return port;
  }

private:
  TempDir dir_;
  std::filesystem::path runtime_;
  std::unique_ptr<AgentProcess> process_;
};

// A socket listening on a loopback port the system chose, which goes in `port`; nothing is
// accepted until the caller does.
inline platform::FileDescriptor listeningOnLoopback(int& port, int backlog = 16) {
  platform::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(socket.get(), backlog);
  ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return socket;
}

// A loopback port nobody listens on now (the socket that held it is closed again), for an
// agent's custom port.
inline int freePort() {
  int port = 0;
  listeningOnLoopback(port);
  return port;
}

// Whether something takes connections on the loopback port now.
inline bool accepting(int port) {
  platform::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

#ifdef KESTRIN_AMBRANT_PATH
// Runs ambrant with a command line's arguments and `redirection` for its standard error;
// answers its exit status and standard output.
// The console is a new one each time (its own key, no agent met before) unless `console` names
// its configuration folder: loopback ports come round again with other agents behind them.
inline std::pair<int, std::string> runAmbrantCommand(const std::string& arguments,
                                                     const std::string& redirection,
                                                     const std::string& console = "") {
  TempDir fresh;
  std::string command = "XDG_CONFIG_HOME='" + (console.empty() ? fresh.path().string() : console) +
                        "' " + KESTRIN_AMBRANT_PATH + " " + arguments + " " + redirection;
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string out;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) {
    out.append(buffer, n);
  }
  int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Standard error, where events go, is dropped.
inline std::pair<int, std::string> runAmbrant(const std::string& arguments) {
  return runAmbrantCommand(arguments, "2>/dev/null");
}

// With what it wrote on standard error, which goes through a file in `scratch`.
struct AmbrantRun {
  int status = -1;
  std::string out;
  std::string err;
};
inline AmbrantRun runAmbrantIn(const std::filesystem::path& scratch, const std::string& arguments,
                               const std::string& console = "") {
  std::filesystem::path err = scratch / "ambrant.err";
  auto [status, out] = runAmbrantCommand(arguments, "2>'" + err.string() + "'", console);
  return {status, out, readText(err)};
}
#endif

} // namespace kestrin::testing
