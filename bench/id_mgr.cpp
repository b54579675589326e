// ID manager speed: one get plus one delete while N ids stay bound, the oldest id deleted each
// time (ids live a while, as they do between a request and its answer), against the same
// churn on std::unordered_map<uint32_t, void *>, once with its own (identity) hash, which
// suits dense ids best, and once with the manager's hash (kro_hash_calculate over the 4 bytes),
// which separates the hash's share from the set's. Also the lookup of a bound id. At exit
// "ratio:" lines give the manager's rate over each map's (above 1: the manager is faster).
//   scripts/bench.sh build/default/bench/bench_id_mgr
#include <zel/id_mgr.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "ratio.h"

namespace {

char bench_ctx;

struct KroHash {
  size_t operator()(uint32_t id) const { return kro_hash_calculate(&id, sizeof id); }
};

// A manager with ids 1 .. live bound; false (the benchmark failed) when it cannot be made.
bool id_mgr_filled(benchmark::State &state, zel_id_mgr_t &mgr, uint32_t live) {
  if (zel_id_mgr_init(&mgr) != ZEL_ID_MGR_OK) {
    state.SkipWithError("zel_id_mgr_init failed");
    return false;
  }
  uint32_t id = 0;
  for (uint32_t i = 0; i < live; ++i) {
    if (zel_id_mgr_get_id(&mgr, &bench_ctx, &id) != ZEL_ID_MGR_OK) {
      state.SkipWithError("zel_id_mgr_get_id failed");
      zel_id_mgr_cleanup(&mgr);
      return false;
    }
  }
  return true;
}

void BM_IdMgr_GetDelete(benchmark::State &state) {
  const auto live = static_cast<uint32_t>(state.range(0));
  zel_id_mgr_t mgr{};
  if (!id_mgr_filled(state, mgr, live)) return;
  uint32_t id = 0;
  uint32_t oldest = 1;
  for (auto _ : state) {
    zel_id_mgr_get_id(&mgr, &bench_ctx, &id);
    zel_id_mgr_delete_id(&mgr, oldest++);
  }
  zel_id_mgr_cleanup(&mgr);
}
BENCHMARK(BM_IdMgr_GetDelete)->Arg(1000)->Arg(1000000);

template <typename Hash>
void BM_UnorderedMap_GetDelete(benchmark::State &state) {
  const auto live = static_cast<uint32_t>(state.range(0));
  std::unordered_map<uint32_t, void *, Hash> map;
  uint32_t next = 1;
  for (uint32_t i = 0; i < live; ++i) map.emplace(next++, &bench_ctx);
  uint32_t oldest = 1;
  for (auto _ : state) {
    map.emplace(next++, &bench_ctx);
    map.erase(oldest++);
  }
}
BENCHMARK(BM_UnorderedMap_GetDelete<std::hash<uint32_t>>)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_UnorderedMap_GetDelete<KroHash>)->Arg(1000)->Arg(1000000);

void BM_IdMgr_Lookup(benchmark::State &state) {
  const auto live = static_cast<uint32_t>(state.range(0));
  zel_id_mgr_t mgr{};
  if (!id_mgr_filled(state, mgr, live)) return;
  uint32_t probe = 0;
  for (auto _ : state) {
    probe = probe * 1664525u + 1013904223u;
    benchmark::DoNotOptimize(zel_id_mgr_id_to_ctx(&mgr, probe % live + 1));
  }
  zel_id_mgr_cleanup(&mgr);
}
BENCHMARK(BM_IdMgr_Lookup)->Arg(1000)->Arg(1000000);

template <typename Hash>
void BM_UnorderedMap_Lookup(benchmark::State &state) {
  const auto live = static_cast<uint32_t>(state.range(0));
  std::unordered_map<uint32_t, void *, Hash> map;
  for (uint32_t i = 1; i <= live; ++i) map.emplace(i, &bench_ctx);
  uint32_t probe = 0;
  for (auto _ : state) {
    probe = probe * 1664525u + 1013904223u;
    benchmark::DoNotOptimize(map.find(probe % live + 1)->second);
  }
}
BENCHMARK(BM_UnorderedMap_Lookup<std::hash<uint32_t>>)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_UnorderedMap_Lookup<KroHash>)->Arg(1000)->Arg(1000000);

}  // namespace

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  for (const char *op : {"GetDelete", "Lookup"}) {
    for (const char *n : {"1000", "1000000"}) {
      for (const char *hash : {"std::hash<uint32_t>", "KroHash"}) {
        pairs.push_back({std::string(op) + "/" + n + " id_mgr/unordered_map<" + hash + ">",
                         std::string("BM_IdMgr_") + op + "/" + n,
                         std::string("BM_UnorderedMap_") + op + "<" + hash + ">/" + n});
      }
    }
  }
  return zel_bench::run(argc, argv, pairs);
}
