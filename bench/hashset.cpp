// The stand-in's intrusive hash set next to std::unordered_map, side by side in one run:
// insert, lookup and erase of 32-bit keys at 1e5 and 1e6 elements. The set works through its
// hash and match callbacks (the hash callback calls kro_hash_calculate, as the library's own
// callbacks do). Keys are distinct random values. Each table is filled in one shuffled order and
// looked up in another, independent one, so that no side gains from its elements lying in
// memory in the order they are looked up; every lookup reads the element it found (a field the
// match did not need), on both sides.
//
// Two baselines:
//   std_*    std::unordered_map<uint32_t, Item *> with std::hash, all of it inlined: the
//            fastest thing a C++ caller could write for this key;
//   stdcb_*  std::unordered_set<Item *> keyed through the very same hash and match callbacks
//            (called through pointers, as the set calls them): the same job as the set.
// Lookups come in two shapes: independent lookups back to back (throughput), and a chain in
// which the found element names the next key (latency: each lookup waits for the last, as a
// caller that uses what it found does).
//
//   scripts/bench.sh -n 3 build/default/bench/bench_hashset
//
// At exit a "ratio:" line per case states kro's rate over each baseline's (above 1: kro is
// faster); per_op is the time of one operation.
#include <benchmark/benchmark.h>
#include <kro/hashset.h>

#include "ratio.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

struct Item {
  kro_hashset_link_t link;
  uint32_t key;
  uint32_t next;  // index of the element whose key a lookup chain looks up next
};

uint32_t bench_item_hash(const void *e) {
  return kro_hash_calculate(&static_cast<const Item *>(e)->key, sizeof(uint32_t));
}

int bench_item_match(const void *member, const void *key) {
  return static_cast<const Item *>(member)->key == static_cast<const Item *>(key)->key ? 1 : 0;
}

// The same callbacks, behind pointers the compiler cannot see through (as in the set).
kro_hashset_hash_fn volatile bench_hash_ptr = bench_item_hash;
kro_hashset_match_fn volatile bench_match_ptr = bench_item_match;

struct CbHash {
  kro_hashset_hash_fn fn;
  size_t operator()(const Item *e) const { return fn(e); }
};
struct CbEq {
  kro_hashset_match_fn fn;
  bool operator()(const Item *a, const Item *b) const { return fn(a, b) != 0; }
};
using CbSet = std::unordered_set<Item *, CbHash, CbEq>;

// N distinct random keys; the shuffled order in which the tables are filled (and emptied); the
// keys in another, independent shuffled order for the lookups; and one random cycle through all
// elements for the lookup chains.
struct Workload {
  std::vector<Item> items;
  std::vector<uint32_t> order;
  std::vector<uint32_t> keys;
  std::vector<uint32_t> key_of;  // key_of[i] == items[i].key, kept apart from the elements

  explicit Workload(size_t n) : items(n), order(n), keys(n), key_of(n) {
    std::mt19937 rng(static_cast<uint32_t>(n));
    std::unordered_set<uint32_t> taken;
    for (size_t i = 0; i < n; ++i) {
      uint32_t k = rng();
      while (!taken.insert(k).second) {
        k = rng();
      }
      items[i] = Item{{nullptr, 0}, k, 0};
      key_of[i] = k;
      order[i] = static_cast<uint32_t>(i);
    }
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<uint32_t> lookup(order);
    std::shuffle(lookup.begin(), lookup.end(), rng);
    for (size_t i = 0; i < n; ++i) {
      keys[i] = items[lookup[i]].key;
      items[lookup[i]].next = lookup[(i + 1) % n];
    }
  }
};

Workload &workload(int64_t n) {
  static Workload small(100000);
  static Workload large(1000000);
  return n == 100000 ? small : large;
}

void per_op(benchmark::State &state, size_t ops_per_iteration) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ops_per_iteration));
  state.counters["per_op"] = benchmark::Counter(
      static_cast<double>(ops_per_iteration),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// NULL (and the benchmark failed) when the set cannot be created or filled.
kro_hashset_t *kro_filled(benchmark::State &state, Workload &w) {
  kro_hashset_t *set = nullptr;
  if (kro_hashset_create(&set, 0, offsetof(Item, link), bench_item_hash, bench_item_match, 0) !=
      KRO_HASHSET_OK) {
    state.SkipWithError("kro_hashset_create failed");
    return nullptr;
  }
  for (uint32_t idx : w.order) {
    if (kro_hashset_insert(set, &w.items[idx]) != KRO_HASHSET_OK) {
      state.SkipWithError("kro_hashset_insert failed");
      kro_hashset_free(&set);
      return nullptr;
    }
  }
  return set;
}

std::unordered_map<uint32_t, Item *> std_filled(Workload &w) {
  std::unordered_map<uint32_t, Item *> map;
  for (uint32_t idx : w.order) {
    map.emplace(w.items[idx].key, &w.items[idx]);
  }
  return map;
}

CbSet stdcb_filled(Workload &w) {
  CbSet set(0, CbHash{bench_hash_ptr}, CbEq{bench_match_ptr});
  for (uint32_t idx : w.order) {
    set.insert(&w.items[idx]);
  }
  return set;
}

// ---- lookups, independent ----

// Each lookup reads the found element's `next`, which no hash or match looks at.
void BM_kro_lookup(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  kro_hashset_t *set = kro_filled(state, w);
  if (set == nullptr) {
    return;
  }
  size_t i = 0;
  uint32_t sum = 0;
  for (auto _ : state) {
    Item key;
    key.key = w.keys[i];
    sum += static_cast<const Item *>(kro_hashset_get(set, &key))->next;
    i = i + 1 == w.keys.size() ? 0 : i + 1;
  }
  benchmark::DoNotOptimize(sum);
  per_op(state, 1);
  kro_hashset_free(&set);
}

void BM_std_lookup(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  auto map = std_filled(w);
  size_t i = 0;
  uint32_t sum = 0;
  for (auto _ : state) {
    sum += map.find(w.keys[i])->second->next;
    i = i + 1 == w.keys.size() ? 0 : i + 1;
  }
  benchmark::DoNotOptimize(sum);
  per_op(state, 1);
}

void BM_stdcb_lookup(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  CbSet set = stdcb_filled(w);
  size_t i = 0;
  uint32_t sum = 0;
  for (auto _ : state) {
    Item key;
    key.key = w.keys[i];
    sum += (*set.find(&key))->next;
    i = i + 1 == w.keys.size() ? 0 : i + 1;
  }
  benchmark::DoNotOptimize(sum);
  per_op(state, 1);
}

// ---- lookups, chained: the element found names the next key ----

void BM_kro_lookup_chain(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  kro_hashset_t *set = kro_filled(state, w);
  if (set == nullptr) {
    return;
  }
  uint32_t at = w.order[0];
  for (auto _ : state) {
    Item key;
    key.key = w.key_of[at];
    at = static_cast<Item *>(kro_hashset_get(set, &key))->next;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
  kro_hashset_free(&set);
}

void BM_std_lookup_chain(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  auto map = std_filled(w);
  uint32_t at = w.order[0];
  for (auto _ : state) {
    at = map.find(w.key_of[at])->second->next;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

void BM_stdcb_lookup_chain(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  CbSet set = stdcb_filled(w);
  uint32_t at = w.order[0];
  for (auto _ : state) {
    Item key;
    key.key = w.key_of[at];
    at = (*set.find(&key))->next;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

// ---- insertion: one iteration builds the whole table from empty ----

void BM_kro_insert(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    kro_hashset_t *set = kro_filled(state, w);
    state.PauseTiming();
    kro_hashset_free(&set);
    state.ResumeTiming();
    if (set == nullptr && state.error_occurred()) {
      break;
    }
  }
  per_op(state, w.items.size());
}

void BM_std_insert(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    auto *map = new std::unordered_map<uint32_t, Item *>(std_filled(w));
    state.PauseTiming();
    delete map;
    state.ResumeTiming();
  }
  per_op(state, w.items.size());
}

void BM_stdcb_insert(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    auto *set = new CbSet(stdcb_filled(w));
    state.PauseTiming();
    delete set;
    state.ResumeTiming();
  }
  per_op(state, w.items.size());
}

// ---- erasure: one iteration empties a full table, in the shuffled order ----

void BM_kro_erase(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    kro_hashset_t *set = kro_filled(state, w);
    state.ResumeTiming();
    if (set == nullptr) {
      break;
    }
    for (uint32_t idx : w.order) {
      kro_hashset_remove(set, &w.items[idx]);
    }
    state.PauseTiming();
    kro_hashset_free(&set);
    state.ResumeTiming();
  }
  per_op(state, w.items.size());
}

void BM_std_erase(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std_filled(w);
    state.ResumeTiming();
    for (uint32_t idx : w.order) {
      map.erase(w.key_of[idx]);
    }
  }
  per_op(state, w.items.size());
}

void BM_stdcb_erase(benchmark::State &state) {
  Workload &w = workload(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    CbSet set = stdcb_filled(w);
    state.ResumeTiming();
    for (uint32_t idx : w.order) {
      set.erase(&w.items[idx]);
    }
  }
  per_op(state, w.items.size());
}

void sizes(benchmark::internal::Benchmark *b) {
  b->Arg(100000)->Arg(1000000);
}

BENCHMARK(BM_kro_lookup)->Apply(sizes);
BENCHMARK(BM_std_lookup)->Apply(sizes);
BENCHMARK(BM_stdcb_lookup)->Apply(sizes);
BENCHMARK(BM_kro_lookup_chain)->Apply(sizes);
BENCHMARK(BM_std_lookup_chain)->Apply(sizes);
BENCHMARK(BM_stdcb_lookup_chain)->Apply(sizes);
BENCHMARK(BM_kro_insert)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_std_insert)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_stdcb_insert)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_kro_erase)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_std_erase)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_stdcb_erase)->Apply(sizes)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  for (const char *op : {"lookup", "lookup_chain", "insert", "erase"}) {
    for (const char *n : {"100000", "1000000"}) {
      for (const char *peer : {"std", "stdcb"}) {
        pairs.push_back({std::string(op) + "/" + n + " kro/" + peer,
                         std::string("BM_kro_") + op + "/" + n,
                         std::string("BM_") + peer + "_" + op + "/" + n});
      }
    }
  }
  return zel_bench::run(argc, argv, pairs);
}
