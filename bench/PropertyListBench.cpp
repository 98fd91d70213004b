// kestrin::plist::parseXml / toXml against libplist's own plist_from_xml / plist_to_xml on the
// same 1 MB document, in the same run: the difference is what the value type costs.
#include "plist/PropertyList.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <plist/plist.h>

namespace {

using namespace kestrin::plist;

// About 1 MB of XML shaped like an application inventory: many small dictionaries with every
// kind of value, some nesting, some arrays.
const std::string& document() {
  static const std::string xml = [] {
    Array items;
    for (int i = 0; items.size() < 1300; ++i) {
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
    auto text = toXml(Value(Dictionary{{"applications", std::move(items)}}));
    if (!text) {
      throw std::runtime_error(text.message());
    }
    return std::move(text).value();
  }();
  return xml;
}

void BM_ParseXml_Kestrin(benchmark::State& state) {
  const std::string& xml = document();
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
  const std::string& xml = document();
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &root);
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
}
BENCHMARK(BM_ParseXml_Libplist)->Unit(benchmark::kMillisecond);

void BM_WriteXml_Kestrin(benchmark::State& state) {
  const std::string& xml = document();
  Value value = parseXml(xml).value();
  for (auto _ : state) {
    auto text = toXml(value);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(xml.size()));
}
BENCHMARK(BM_WriteXml_Kestrin)->Unit(benchmark::kMillisecond);

void BM_WriteXml_Libplist(benchmark::State& state) {
  const std::string& xml = document();
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

} // namespace

BENCHMARK_MAIN();
