// The bundle's ditto against Info-ZIP's zip and unzip in the same run, each started as the agent
// starts tools: compressing a 200 MB folder (large and small files, some compressible, some
// not) and extracting one archive of it. Compare Compress_Ditto with Compress_Zip and
// Extract_Ditto with Extract_Unzip; the aim is for ditto to be no slower.
//
//   cmake --build build -j2 --target bench_ditto && build/bench/bench_ditto

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ScratchDir.h"
#include "foundation/QVTaskEx.h"

namespace {

using kestrin::QVTaskEx;
namespace fs = std::filesystem;

constexpr const char* kZip = "/usr/bin/zip";
constexpr const char* kUnzip = "/usr/bin/unzip";

void writeFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

std::string randomBytes(std::mt19937_64& random, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    std::uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, 8);
  }
  return bytes;
}

std::string logText(std::mt19937_64& random, std::size_t size) {
  std::string text;
  text.reserve(size + 100);
  while (text.size() < size) {
    text += "2024-03-0" + std::to_string(random() % 9 + 1) + " render node " +
            std::to_string(random() % 64) + " finished frame " + std::to_string(random() % 100000) +
            " in " + std::to_string(random() % 5000) + " ms\n";
  }
  text.resize(size);
  return text;
}

// About 200 MB: media-like files that do not compress, long logs that do, and three thousand
// small files in thirty folders, as a plug-in or a preference backup has them.
class Corpus {
public:
  Corpus() {
    std::mt19937_64 random(20240315);
    constexpr std::size_t kMB = 1 << 20;
    for (int i = 0; i < 2; ++i) {
      add("media/clip" + std::to_string(i) + ".mov", randomBytes(random, 40 * kMB));
      add("logs/render" + std::to_string(i) + ".log", logText(random, 30 * kMB));
    }
    for (int i = 0; i < 3000; ++i) {
      std::string name = "bundle/folder" + std::to_string(i % 30) + "/file" + std::to_string(i);
      constexpr std::size_t kSizes[] = {4 * 1024, 16 * 1024, 40 * 1024};
      std::size_t size = kSizes[i % 3];
      add(name + ".txt", i % 2 == 0 ? logText(random, size) : randomBytes(random, size));
    }
    archive_ = scratch_.path() / "corpus.zip";
    if (QVTaskEx::terminationCodeFromTask(kZip, {"-qry", archive_, "--", source()}) != 0) {
      throw std::runtime_error("zip failed");
    }
  }

  fs::path source() const { return scratch_.path() / "source"; }
  const fs::path& archive() const { return archive_; }
  fs::path scratch(const std::string& name) const { return scratch_.path() / name; }
  std::int64_t bytes() const { return bytes_; }

private:
  void add(const std::string& name, const std::string& bytes) {
    writeFile(source() / name, bytes);
    bytes_ += static_cast<std::int64_t>(bytes.size());
  }

  kestrin::bench::ScratchDir scratch_;
  fs::path archive_;
  std::int64_t bytes_ = 0;
};

const Corpus& corpus() {
  static const Corpus instance;
  return instance;
}

// `output` is removed before each run; the size of an archive it names is reported.
void run(benchmark::State& state, const std::string& program,
         const std::vector<std::string>& arguments, const fs::path& output) {
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove_all(output);
    state.ResumeTiming();
    if (QVTaskEx::terminationCodeFromTask(program, arguments) != 0) {
      state.SkipWithError((program + " failed").c_str());
      break;
    }
  }
  std::error_code ec;
  if (fs::is_regular_file(output, ec)) {
    state.counters["archive_MiB"] = static_cast<double>(fs::file_size(output, ec)) / (1 << 20);
  }
  fs::remove_all(output);
  state.SetBytesProcessed(state.iterations() * corpus().bytes());
}

void Compress_Ditto(benchmark::State& state) {
  fs::path archive = corpus().scratch("ditto.zip");
  run(state, KESTRIN_DITTO, {"-c", "-k", "--sequesterRsrc", corpus().source(), archive}, archive);
}
BENCHMARK(Compress_Ditto)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void Compress_Zip(benchmark::State& state) {
  fs::path archive = corpus().scratch("zip.zip");
  run(state, kZip, {"-qry", archive, "--", corpus().source()}, archive);
}
BENCHMARK(Compress_Zip)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void Extract_Ditto(benchmark::State& state) {
  fs::path folder = corpus().scratch("ditto-out");
  run(state, KESTRIN_DITTO, {"-x", "-k", corpus().archive(), folder}, folder);
}
BENCHMARK(Extract_Ditto)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void Extract_Unzip(benchmark::State& state) {
  fs::path folder = corpus().scratch("unzip-out");
  run(state, kUnzip, {"-q", corpus().archive(), "-d", folder}, folder);
}
BENCHMARK(Extract_Unzip)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
