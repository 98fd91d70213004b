// How long the system profile takes to build on a machine with many applications, frameworks and
// kernel extensions (the first remote request for it waits on this), and how long reading the
// machine's own facts takes.
#include "foundation/QVSysInfo.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "ScratchDir.h"
#include "foundation/QVLocalPaths.h"
#include "plist/PropertyList.h"

namespace {

using namespace kestrin;
namespace fs = std::filesystem;

void writeInfo(const fs::path& path, plist::Dictionary info) {
  fs::create_directories(path.parent_path());
  if (!plist::writeFile(path, plist::Value(std::move(info))).ok()) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

// The fallback lines that a machine without QuickTime prints on every profile would flood the
// benchmark's output; they go to /dev/null while it runs.
class QuietConsole {
public:
  QuietConsole() : saved_(::dup(STDERR_FILENO)) {
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, STDERR_FILENO);
    ::close(null);
  }
  ~QuietConsole() {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }

private:
  int saved_;
};

// range(0) applications, with a quarter as many frameworks and half as many extensions.
void BM_SystemProfile(benchmark::State& state) {
  bench::ScratchDir scratch;
  QVLocalPaths::Machine machine;
  machine.localRoot = (scratch.path() / "root").string();
  machine.home = (scratch.path() / "home").string();
  machine.realUid = 1000;
  QVLocalPaths paths(machine);
  const fs::path root = machine.localRoot;
  const auto count = state.range(0);
  for (long i = 0; i < count; ++i) {
    std::string name = "App" + std::to_string(i);
    writeInfo(
        root / "Applications" / (name + ".app") / "Contents/Info.plist",
        {{"CFBundleIdentifier", "com.example." + name}, {"CFBundleShortVersionString", "1.0"}});
  }
  for (long i = 0; i < count / 4; ++i) {
    writeInfo(root / "Library/Frameworks" / ("F" + std::to_string(i) + ".framework") /
                  "Versions/Current/Resources/Info.plist",
              {{"CFBundleVersion", "1"}});
  }
  for (long i = 0; i < count / 2; ++i) {
    writeInfo(root / "System/Library/Extensions" / ("K" + std::to_string(i) + ".kext") /
                  "Contents/Info.plist",
              {{"CFBundleVersion", "1"}});
  }
  platform::SystemFacts facts;
  facts.systemVersion = std::array<unsigned, 3>{12, 11, 0};
  QVSysInfo info(paths, facts);

  QuietConsole quiet;
  for (auto _ : state) {
    benchmark::DoNotOptimize(info.systemProfile());
  }
  state.counters["bundles"] = static_cast<double>(count + count / 4 + count / 2);
}
BENCHMARK(BM_SystemProfile)->Arg(10)->Arg(100)->Arg(400)->Unit(benchmark::kMillisecond);

void BM_SystemFactsOfThisMachine(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(platform::SystemFacts::current());
  }
}
BENCHMARK(BM_SystemFactsOfThisMachine)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
