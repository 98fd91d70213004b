// The streaming copy of one 1 GiB file, already in the page cache, to two destinations on the
// same file system, against what a script would run for the same result: cp twice, then
// sha1sum (md5sum) of all three files. The verified copies are also measured against their
// digest limit: OpenSSL's own speed for the digest on this machine, measured in the same run,
// divided by the three digest passes over every byte (the source and two read-backs).
//
// Counters: "of_digest_limit" is the copy's throughput over that limit (1.0 = as fast as one
// core digesting three times over); "digest_limit" is the limit in bytes per second.
//
// The files go to the temporary folder (TMPDIR). Where a disk cannot take 2 GiB of writes at
// memory speed, TMPDIR=/dev/shm keeps the run in the page cache, which measures the copy and
// not the disk. Each copy starts with its destinations removed, outside the timed part.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ScratchDir.h"
#include "foundation/QVFileCopier.h"
#include "foundation/QVTaskEx.h"

namespace {

namespace fs = std::filesystem;
using kestrin::QVFileCopier;
using kestrin::QVTaskEx;
using Type = QVFileCopier::VerificationType;

constexpr std::uint64_t kSize = 1ull << 30;

class Scene {
public:
  static const Scene& shared() {
    static Scene scene;
    return scene;
  }
  std::string source() const { return (scratch_.path() / "source.mov").string(); }
  std::vector<std::string> destinations() const {
    return {(scratch_.path() / "one.mov").string(), (scratch_.path() / "two.mov").string()};
  }
  void clear() const {
    for (const std::string& destination : destinations()) {
      fs::remove(destination);
    }
  }

private:
  Scene() {
    std::mt19937_64 random(42);
    std::vector<std::uint64_t> chunk(1 << 17);
    std::ofstream out(source(), std::ios::binary);
    for (std::uint64_t written = 0; written < kSize; written += chunk.size() * 8) {
      for (auto& word : chunk) {
        word = random();
      }
      out.write(reinterpret_cast<const char*>(chunk.data()),
                static_cast<std::streamsize>(chunk.size() * 8));
    }
    out.close();
    // Read once, so that every run finds it in the page cache.
    std::ifstream in(source(), std::ios::binary);
    std::vector<char> buffer(1 << 20);
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
    }
  }
  kestrin::bench::ScratchDir scratch_;
};

// Bytes per second that `openssl speed` reports for the digest on 32 KiB blocks.
double digestSpeed(const std::string& digest) {
  static std::map<std::string, double> speeds;
  auto known = speeds.find(digest);
  if (known != speeds.end()) {
    return known->second;
  }
  auto output = QVTaskEx::stringFromTask(
      "/usr/bin/openssl", {"speed", "-evp", digest, "-bytes", "32768", "-seconds", "3"});
  double kilobytes = 0;
  if (output) {
    std::size_t line = output->rfind('\n', output->size() - 2);
    std::string last = output->substr(line == std::string::npos ? 0 : line + 1);
    char name[32];
    std::sscanf(last.c_str(), "%31s %lfk", name, &kilobytes);
  }
  return speeds[digest] = kilobytes * 1000;
}

void reportAgainstLimit(benchmark::State& state, Type type) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
  if (type == Type::None) {
    return;
  }
  const double limit = digestSpeed(type == Type::MD5 ? "md5" : "sha1") / 3;
  state.counters["digest_limit"] = limit;
  state.counters["of_digest_limit"] = benchmark::Counter(
      static_cast<double>(state.iterations() * kSize) / limit, benchmark::Counter::kIsRate);
}

const char* nameOf(Type type) {
  return type == Type::None ? "none" : type == Type::MD5 ? "MD5" : "SHA-1";
}

void BM_CopyFileWithProgress(benchmark::State& state) {
  const Scene& scene = Scene::shared();
  const auto type = static_cast<Type>(state.range(0));
  QVFileCopier copier({.mainLoop = {}});
  for (auto _ : state) {
    state.PauseTiming();
    scene.clear();
    state.ResumeTiming();
    if (!copier.copyFileWithProgress(scene.source(), scene.destinations(), type, nullptr, {}, {})) {
      state.SkipWithError("the copy failed");
      return;
    }
  }
  state.SetLabel(nameOf(type));
  reportAgainstLimit(state, type);
}
BENCHMARK(BM_CopyFileWithProgress)
    ->Arg(static_cast<int>(Type::SHA1))
    ->Arg(static_cast<int>(Type::MD5))
    ->Arg(static_cast<int>(Type::None))
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// cp to each destination, then the digest tool over the source and both copies.
void BM_CpTwiceThenDigestTool(benchmark::State& state) {
  const Scene& scene = Scene::shared();
  const auto type = static_cast<Type>(state.range(0));
  const auto destinations = scene.destinations();
  for (auto _ : state) {
    state.PauseTiming();
    scene.clear();
    state.ResumeTiming();
    bool ok = true;
    for (const std::string& destination : destinations) {
      ok = QVTaskEx::terminationCodeFromTask("/usr/bin/cp", {"--", scene.source(), destination}) ==
               0 &&
           ok;
    }
    if (type != Type::None) {
      ok = QVTaskEx::terminationCodeFromTask(
               type == Type::MD5 ? "/usr/bin/md5sum" : "/usr/bin/sha1sum",
               {"--", scene.source(), destinations[0], destinations[1]}) == 0 &&
           ok;
    }
    if (!ok) {
      state.SkipWithError("a tool failed");
      return;
    }
  }
  state.SetLabel(nameOf(type));
  reportAgainstLimit(state, type);
}
BENCHMARK(BM_CpTwiceThenDigestTool)
    ->Arg(static_cast<int>(Type::SHA1))
    ->Arg(static_cast<int>(Type::MD5))
    ->Arg(static_cast<int>(Type::None))
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
