// Consistent hash ring: construction of a ring of 64 hosts of weight 16 (10,240 points), lookups
// per second on it, and the raw hash on target-name-sized keys.
//
//   ring_bench [--benchmark_* flags]
#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "placement/consist_hash.h"

namespace {

using NukCtl::Orsa::IscsiTarget::Util::ConsistHash;

std::map<std::string, int> Hosts(int count, int weight) {
  std::map<std::string, int> weights;
  for (int i = 0; i < count; ++i) {
    weights["5f0c9a3e-1b2d-4c6e-8a7f-" + std::to_string(100000000000 + i)] = weight;
  }
  return weights;
}

std::vector<std::string> Keys(int count) {
  std::vector<std::string> keys;
  keys.reserve(count);
  for (int i = 0; i < count; ++i) {
    keys.push_back("iqn.2024-01.com.example:storage.target-" + std::to_string(i));
  }
  return keys;
}

void BM_RingConstruction(benchmark::State& state) {
  const auto weights = Hosts(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  for (auto _ : state) {
    ConsistHash ring(weights);
    benchmark::DoNotOptimize(ring.Ring().size());
  }
  state.counters["points"] = static_cast<double>(ConsistHash(weights).Ring().size());
}
BENCHMARK(BM_RingConstruction)->Args({64, 16})->Args({8, 4})->Unit(benchmark::kMicrosecond);

void BM_RingLookup(benchmark::State& state) {
  ConsistHash ring(Hosts(64, 16));
  const auto keys = Keys(4096);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ring.FindHashNode(keys[i++ & 4095]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RingLookup);

void BM_RingRemoveHost(benchmark::State& state) {
  const auto weights = Hosts(64, 16);
  std::optional<ConsistHash> ring;
  for (auto _ : state) {
    state.PauseTiming();
    ring.emplace(weights);
    state.ResumeTiming();
    ring->RemoveHashNode(weights.begin()->first);
    benchmark::DoNotOptimize(ring->Ring().size());
    state.PauseTiming();
    ring.reset();  // freeing the ring is not part of the removal
    state.ResumeTiming();
  }
}
BENCHMARK(BM_RingRemoveHost)->Unit(benchmark::kMicrosecond);

void BM_Hash(benchmark::State& state) {
  const std::string key(static_cast<size_t>(state.range(0)), 'k');
  for (auto _ : state) {
    benchmark::DoNotOptimize(ConsistHash::GetHashKey(key));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Hash)->Arg(8)->Arg(40)->Arg(223);

}  // namespace

BENCHMARK_MAIN();
