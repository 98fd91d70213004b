// What the remote interface adds to running one of the maker's tasks: executeTask:bundleID:
// options: called over loopback TCP on a real agent process, against running the same tool
// directly in this process. The tool exits at once, so the difference is the agent's own cost
// (the call, the application lookup, reading the bundle's files) plus the transport.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ScratchDir.h"
#include "foundation/QVTaskEx.h"
#include "plist/PropertyList.h"
#include "transport/RpcClient.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrin::plist::Value;

// A throwaway machine with one maker's application whose task is /bin/true, and the agent
// running on it. Shared by every benchmark of the run; ended at exit.
class BenchAgent {
public:
  static BenchAgent& shared() {
    static BenchAgent agent;
    return agent;
  }
  ~BenchAgent() {
    client_.reset();
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }

  kestrin::transport::RpcClient* client() const { return client_.get(); }
  const std::string& tool() const { return tool_; }

private:
  BenchAgent() {
    const fs::path& dir = scratch_.path();
    fs::path bundle = dir / "root/Applications/Quorvane/Tibbet.app";
    fs::create_directories(bundle / "Contents/MacOS");
    fs::create_directories(bundle / "Contents/Resources");
    fs::create_directories(dir / "home");
    (void)kestrin::plist::writeFile(
        bundle / "Contents/Info.plist",
        Value(kestrin::plist::Dictionary{{"CFBundleIdentifier", "com.quorvane.Tibbet"},
                                         {"CFBundleName", "Tibbet"}}));
    (void)kestrin::plist::writeFile(bundle / "Contents/QVUpdates.plist",
                                    Value(kestrin::plist::Dictionary{}));
    kestrin::plist::Array tasks{
        kestrin::plist::Dictionary{{"id", "now"}, {"command", kestrin::plist::Array{"--now"}}}};
    (void)kestrin::plist::writeFile(bundle / "Contents/Resources/QVTasks.plist",
                                    Value(kestrin::plist::Dictionary{{"QVTasks", tasks}}));
    tool_ = (bundle / "Contents/MacOS/Tibbet").string();
    fs::copy_file("/bin/true", tool_);

    fs::path output = dir / "agent.out";
    std::string home = "HOME=" + (dir / "home").string();
    std::string root = "KESTRIN_ROOT=" + (dir / "root").string();
    std::string runtime = "XDG_RUNTIME_DIR=" + dir.string();
    std::string path = "PATH=/usr/bin:/bin";
    char* envp[] = {home.data(), root.data(), runtime.data(), path.data(), nullptr};
    std::string agent = KESTRIN_AGENT_PATH;
    char* argv[] = {agent.data(), nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (::posix_spawn(&pid_, agent.c_str(), &actions, nullptr, argv, envp) != 0) {
      pid_ = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);

    static const std::regex listening("Listening on port ([0-9]+)\n");
    int port = 0;
    for (int i = 0; i < 1000 && port == 0 && pid_ > 0; ++i) {
      std::ifstream file(output);
      std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      std::smatch match;
      if (std::regex_search(text, match, listening)) {
        port = std::stoi(match[1]);
      } else {
        std::this_thread::sleep_for(20ms);
      }
    }
    if (port != 0) {
      auto connected = kestrin::transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
      if (connected.ok()) {
        client_ = std::move(*connected);
      }
    }
  }

  kestrin::bench::ScratchDir scratch_;
  std::string tool_;
  pid_t pid_ = -1;
  std::unique_ptr<kestrin::transport::RpcClient> client_;
};

void ExecuteTask_Remote(benchmark::State& state) {
  auto* client = BenchAgent::shared().client();
  if (client == nullptr) {
    state.SkipWithError("the agent did not start");
    return;
  }
  auto root = client->root();
  std::vector<Value> arguments{Value("now"), Value("com.quorvane.Tibbet"),
                               Value(kestrin::plist::Array{"--fast"})};
  for (auto _ : state) {
    benchmark::DoNotOptimize(root->invoke("executeTask:bundleID:options:", arguments));
  }
}
BENCHMARK(ExecuteTask_Remote)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same tool with the same arguments, run here.
void ExecuteTask_Direct(benchmark::State& state) {
  const std::string& tool = BenchAgent::shared().tool();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrin::QVTaskEx::terminationCodeFromTask(
        tool, {"--now", "--fast"}, kestrin::QVTaskEx::TimeLimit{30.0}));
  }
}
BENCHMARK(ExecuteTask_Direct)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
