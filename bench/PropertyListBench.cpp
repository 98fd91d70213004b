// The project's own property-list readers and writers against libplist's plist_from_xml /
// plist_from_bin / plist_to_xml / plist_to_bin, on the same 1 MB documents, in the same run.
// libplist only builds its node tree; the project's readers build Values, check every limit and
// every string, so they pay for more and should still not be slower.
#include "plist/PropertyList.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <plist/plist.h>

namespace {

using namespace kestrin::plist;

constexpr std::size_t kDocumentBytes = 1 << 20;

// An application inventory: many small dictionaries with every kind of value, some nesting,
// some arrays.
Value inventory(int count) {
  Array items;
  for (int i = 0; i < count; ++i) {
    Data blob(24);
    for (std::size_t b = 0; b < blob.size(); ++b) {
      blob[b] = static_cast<std::uint8_t>(i * 31 + static_cast<int>(b));
    }
    items.push_back(Dictionary{
        {"CFBundleIdentifier", "com.quorvane.tool" + std::to_string(i)},
        {"CFBundleName", "Tool & Helper <" + std::to_string(i) + ">"},
        {"path", "/Applications/Quorvane/Tool " + std::to_string(i) + ".app"},
        {"version", std::to_string(i % 7) + "." + std::to_string(i % 13)},
        {"size", static_cast<std::int64_t>(i) * 1048573},
        {"ratio", i / 7.0},
        {"modified", Date{700000000.0 + i}},
        {"enabled", i % 3 == 0},
        {"icon", blob},
        {"tags", Array{"video", "plug-in", std::to_string(i % 5)}},
        {"owner", Dictionary{{"user", "editor"}, {"uid", 501}}},
    });
  }
  return Dictionary{{"applications", std::move(items)}};
}

// As many inventory entries as make about 1 MB in the format (binary references widen as the
// document grows, hence a second guess).
template <typename Write> auto document(Write write) {
  int count = 100;
  for (int guess = 0; guess < 2; ++guess) {
    count = static_cast<int>(kDocumentBytes * count / write(inventory(count)).size());
  }
  return write(inventory(count));
}

const std::string& xmlDocument() {
  static const std::string xml = document([](const Value& v) {
    auto text = toXml(v);
    if (!text) {
      throw std::runtime_error(text.message());
    }
    return std::move(text).value();
  });
  return xml;
}

const Data& binaryDocument() {
  static const Data bin = document([](const Value& v) {
    auto bytes = toBinary(v);
    if (!bytes) {
      throw std::runtime_error(bytes.message());
    }
    return std::move(bytes).value();
  });
  return bin;
}

void BM_ParseXml_Kestrin(benchmark::State& state) {
  const std::string& xml = xmlDocument();
  for (auto _ : state) {
    auto value = parseXml(xml);
    if (!value) {
      state.SkipWithError(value.message().c_str());
      break;
    }
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
  state.counters["document_bytes"] = static_cast<double>(xml.size());
}
BENCHMARK(BM_ParseXml_Kestrin)->Unit(benchmark::kMillisecond);

void BM_ParseXml_Libplist(benchmark::State& state) {
  const std::string& xml = xmlDocument();
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
}
BENCHMARK(BM_ParseXml_Libplist)->Unit(benchmark::kMillisecond);

void BM_ParseBinary_Kestrin(benchmark::State& state) {
  const Data& bin = binaryDocument();
  for (auto _ : state) {
    auto value = parseBinary(bin);
    if (!value) {
      state.SkipWithError(value.message().c_str());
      break;
    }
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bin.size()));
  state.counters["document_bytes"] = static_cast<double>(bin.size());
}
BENCHMARK(BM_ParseBinary_Kestrin)->Unit(benchmark::kMillisecond);

void BM_ParseBinary_Libplist(benchmark::State& state) {
  const Data& bin = binaryDocument();
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bin.data()),
                   static_cast<std::uint32_t>(bin.size()), &root);
    if (root == nullptr) {
      state.SkipWithError("libplist cannot read the binary document");
      break;
    }
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bin.size()));
}
BENCHMARK(BM_ParseBinary_Libplist)->Unit(benchmark::kMillisecond);

void BM_WriteXml_Kestrin(benchmark::State& state) {
  const std::string& xml = xmlDocument();
  Value value = parseXml(xml).value();
  for (auto _ : state) {
    auto text = toXml(value);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
}
BENCHMARK(BM_WriteXml_Kestrin)->Unit(benchmark::kMillisecond);

void BM_WriteXml_Libplist(benchmark::State& state) {
  const std::string& xml = xmlDocument();
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
  for (auto _ : state) {
    char* out = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root, &out, &length);
    benchmark::DoNotOptimize(out);
    plist_to_xml_free(out);
  }
  plist_free(root);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
}
BENCHMARK(BM_WriteXml_Libplist)->Unit(benchmark::kMillisecond);

void BM_WriteBinary_Kestrin(benchmark::State& state) {
  Value value = parseBinary(binaryDocument()).value();
  for (auto _ : state) {
    auto bytes = toBinary(value);
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(binaryDocument().size()));
}
BENCHMARK(BM_WriteBinary_Kestrin)->Unit(benchmark::kMillisecond);

void BM_WriteBinary_Libplist(benchmark::State& state) {
  const Data& bin = binaryDocument();
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bin.data()), static_cast<std::uint32_t>(bin.size()),
                 &root);
  for (auto _ : state) {
    char* out = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &out, &length);
    benchmark::DoNotOptimize(out);
    plist_to_bin_free(out);
  }
  plist_free(root);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bin.size()));
}
BENCHMARK(BM_WriteBinary_Libplist)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
