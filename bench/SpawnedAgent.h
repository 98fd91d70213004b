#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ScratchDir.h"
#include "transport/RpcClient.h"

namespace kestrin::bench {

// An agent program started for a benchmark with a home, a local root and a runtime folder of
// the benchmark's own, and one client connected to it once it listens. Its output goes to
// `output`, where its port is read from. Ended (SIGTERM, then waited for) when destroyed.
class SpawnedAgent {
public:
  struct Folders {
    std::filesystem::path home;
    std::filesystem::path root;
    std::filesystem::path runtime;
    std::filesystem::path output;
  };

  // `environment`: more "NAME=value" entries for the agent (fake tools, say).
  SpawnedAgent(const std::string& program, const Folders& folders,
               std::chrono::seconds connectTimeout = std::chrono::seconds(10),
               std::vector<std::string> environment = {}) {
    std::string home = "HOME=" + folders.home.string();
    std::string root = "KESTRIN_ROOT=" + folders.root.string();
    std::string runtime = "XDG_RUNTIME_DIR=" + folders.runtime.string();
    std::string path = "PATH=/usr/bin:/bin";
    // Never the maker's real update feed: a closed loopback port.
    std::string feed = "KESTRIN_SOFTWARE_UPDATE_FEED=http://127.0.0.1:9/no-feed.plist";
    std::vector<char*> envp = {home.data(), root.data(), runtime.data(), path.data(), feed.data()};
    for (std::string& entry : environment) {
      envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::string agent = program;
    char* argv[] = {agent.data(), nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, folders.output.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (::posix_spawn(&pid_, agent.c_str(), &actions, nullptr, argv, envp.data()) != 0) {
      pid_ = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);

    static const std::regex listening("Listening on port ([0-9]+)\n");
    int port = 0;
    for (int i = 0; i < 1000 && port == 0 && pid_ > 0; ++i) {
      std::ifstream file(folders.output);
      std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      std::smatch match;
      if (std::regex_search(text, match, listening)) {
        port = std::stoi(match[1]);
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
    port_ = port;
    if (port != 0) {
      auto connected = transport::RpcClient::connectTcp("127.0.0.1", port, connectTimeout);
      if (connected.ok()) {
        client_ = std::move(*connected);
      }
    }
  }
  ~SpawnedAgent() {
    client_.reset();
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }
  SpawnedAgent(const SpawnedAgent&) = delete;
  SpawnedAgent& operator=(const SpawnedAgent&) = delete;

  // Null when the agent did not start or could not be reached.
  transport::RpcClient* client() const { return client_.get(); }
  pid_t pid() const { return pid_; }
  // 0 when the agent never said where it listens.
  int port() const { return port_; }

private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::unique_ptr<transport::RpcClient> client_;
};

// An agent on a throwaway machine of its own ("home", "root" in a scratch folder), which
// `prepare` fills before the agent starts, answering more environment for it ("NAME=value",
// fake tools say); ended before the folder goes.
class AgentOnMachine {
public:
  using Prepare = std::function<std::vector<std::string>(const std::filesystem::path&)>;
  AgentOnMachine(const std::string& program, const Prepare& prepare) {
    const std::filesystem::path& dir = scratch_.path();
    std::filesystem::create_directories(dir / "home");
    std::filesystem::create_directories(dir / "root");
    agent_ = std::make_unique<SpawnedAgent>(
        program, SpawnedAgent::Folders{dir / "home", dir / "root", dir, dir / "agent.out"},
        std::chrono::seconds(10), prepare(dir));
  }
  transport::RpcClient* client() const { return agent_->client(); }
  const SpawnedAgent& agent() const { return *agent_; }

private:
  ScratchDir scratch_;
  std::unique_ptr<SpawnedAgent> agent_;
};

} // namespace kestrin::bench
