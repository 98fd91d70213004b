// filesMatchingWildcardPath: over a tree of about 10,000 entries, against Python's glob over the
// same tree in the same run. Python's time is measured inside its own process around glob alone
// (manual time), so its start-up is not counted against it.

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "ScratchDir.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVTaskEx.h"

namespace {

namespace fs = std::filesystem;
using kestrin::QVFileManager;
using kestrin::QVTaskEx;

// 20 folders of 20 folders of 24 files, half ".txt" and half ".mov": 10,020 entries.
class Tree {
public:
  static const Tree& shared() {
    static Tree tree;
    return tree;
  }
  std::string base() const { return scratch_.path().string(); }

private:
  Tree() {
    for (int top = 0; top < 20; ++top) {
      for (int sub = 0; sub < 20; ++sub) {
        fs::path folder =
            scratch_.path() / ("d" + std::to_string(top)) / ("s" + std::to_string(sub));
        fs::create_directories(folder);
        for (int file = 0; file < 24; ++file) {
          std::ofstream(folder / ("f" + std::to_string(file) + (file % 2 ? ".mov" : ".txt")));
        }
      }
    }
  }
  kestrin::bench::ScratchDir scratch_;
};

// "?" counts only in a component that also holds a "*": "f1?*" rather than "f1?".
const char* kPatterns[] = {"*/*/*.txt", "d1*/s*/f1?*.mov"};

void BM_FilesMatchingWildcardPath(benchmark::State& state) {
  const Tree& tree = Tree::shared();
  const std::string pattern = kPatterns[state.range(0)];
  std::size_t matches = 0;
  for (auto _ : state) {
    auto found = QVFileManager::filesMatchingWildcardPath(pattern, tree.base());
    matches = found.size();
    benchmark::DoNotOptimize(found);
  }
  state.SetLabel(pattern);
  state.counters["matches"] = static_cast<double>(matches);
}
BENCHMARK(BM_FilesMatchingWildcardPath)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// One glob after a warm-up glob, timed by Python itself.
constexpr const char* kPythonGlob = R"(import glob, os, sys, time
pattern = os.path.join(sys.argv[1], sys.argv[2])
glob.glob(pattern)
start = time.perf_counter()
found = glob.glob(pattern)
print(time.perf_counter() - start, len(found)))";

void BM_PythonGlob(benchmark::State& state) {
  const Tree& tree = Tree::shared();
  const std::string pattern = kPatterns[state.range(0)];
  double matches = 0;
  for (auto _ : state) {
    auto output =
        QVTaskEx::stringFromTask("/usr/bin/python3", {"-c", kPythonGlob, tree.base(), pattern},
                                 kestrin::StringEncoding::UTF8);
    double seconds = 0;
    if (!output || std::sscanf(output->c_str(), "%lf %lf", &seconds, &matches) != 2) {
      state.SkipWithError("python3 did not answer");
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.SetLabel(pattern);
  state.counters["matches"] = matches;
}
BENCHMARK(BM_PythonGlob)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
