// What the advertisement's machine lookups cost: the agent's host name is worked out afresh for
// every call back to an administration application, and the interface lookup reads every
// interface on each start of the service.

#include <benchmark/benchmark.h>

#include "platform/NetworkProfile.h"
#include "transport/HostIdentity.h"
#include "transport/ServiceAdvertisement.h"

namespace {

void BM_CurrentHostName(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrin::transport::currentHostName());
  }
}
BENCHMARK(BM_CurrentHostName)->Unit(benchmark::kMicrosecond);

void BM_NetworkDataType(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrin::platform::networkDataType());
  }
}
BENCHMARK(BM_NetworkDataType)->Unit(benchmark::kMicrosecond);

// The whole lookup of an address that no interface has: every item is looked at.
void BM_InterfaceLookupMiss(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        kestrin::transport::networkInterfaceWithMACAddress(std::string("02:00:00:00:00:99")));
  }
}
BENCHMARK(BM_InterfaceLookupMiss)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
