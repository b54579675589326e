// Name service: bind, look up by handle and release, with 100 and 10,000 names bound (each
// with its owner and three shared slots). Baselines run side by side in the same process:
// std::unordered_map keyed by id (for lookups) and by name (for binding and releasing).
// Compare medians: lookup at 10,000 names against lookup at 100 (flatness, with and without
// the cache misses of a large table), and each operation against its baseline at the same
// size: at exit "ratio:" lines give each operation's rate over its baseline's.
//   scripts/bench.sh build/default/bench/bench_name_service
#include <zel/name_service.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ratio.h"

namespace {

constexpr int kShared = 3;

struct Fixture {
  lib_name_service_t *svc = lib_name_service_create();
  std::vector<std::string> names;
  std::vector<uint32_t> handles;  // every binding, shuffled
  char object = 0;
  bool ok = false;  // the service was made and every binding taken

  explicit Fixture(int n) {
    if (svc == nullptr) {
      return;
    }
    names.reserve(n + 1);
    for (int i = 0; i < n; ++i) {
      names.push_back("channel/" + std::to_string(i));
    }
    names.emplace_back("extra");
    for (int i = 0; i < n; ++i) {
      for (int s = 0; s <= kShared; ++s) {
        uint32_t h = 0;
        lib_name_service_entry_t *e = lib_name_service_insert(svc, &h, names[i].c_str(), s == 0);
        if (e == nullptr) {
          return;
        }
        e->slots->data[lib_name_service_handle_slot(h)] = &object;
        handles.push_back(h);
      }
    }
    std::shuffle(handles.begin(), handles.end(), std::mt19937(1));
    ok = true;
  }
  // The service has no destroy operation: the benchmark process keeps it (and its names) to
  // the end, so each fixture is built once per size.
  static Fixture &get(int n) {
    static std::unordered_map<int, Fixture *> fixtures;
    Fixture *&f = fixtures[n];
    if (f == nullptr) {
      f = new Fixture(n);
    }
    return *f;
  }
};

void *lookup(lib_name_service_t *svc, uint32_t h) {
  auto *e = reinterpret_cast<lib_name_service_entry_t *>(
      kro_ext_hash_id_name_get_by_id(svc, lib_name_service_handle_id(h)));
  return e != nullptr && lib_name_service_handle_slot(h) < e->slots->used
             ? e->slots->data[lib_name_service_handle_slot(h)]
             : nullptr;
}

void BM_Lookup(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(lookup(f.svc, f.handles[i]));
    i = i + 1 == f.handles.size() ? 0 : i + 1;
  }
}

// The same lookups restricted to 64 of the bindings, whose entries stay cached: the cost of
// the hash chains alone, without the cache misses of a large table.
void BM_LookupCached(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(lookup(f.svc, f.handles[i]));
    i = (i + 1) & 63;
  }
}

void BM_LookupBaseline(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  std::unordered_map<uint32_t, lib_name_service_entry_t *> by_id;
  for (uint32_t h : f.handles) {
    by_id[lib_name_service_handle_id(h)] = reinterpret_cast<lib_name_service_entry_t *>(
        kro_ext_hash_id_name_get_by_id(f.svc, lib_name_service_handle_id(h)));
  }
  size_t i = 0;
  for (auto _ : state) {
    const uint32_t h = f.handles[i];
    auto it = by_id.find(lib_name_service_handle_id(h));
    const lib_array_t *slots = it == by_id.end() ? nullptr : it->second->slots;
    benchmark::DoNotOptimize(slots != nullptr && (h & 0xFF) < slots->used ? slots->data[h & 0xFF]
                                                                          : nullptr);
    i = i + 1 == f.handles.size() ? 0 : i + 1;
  }
}

// A shared binding of a bound name, its slot store and its release.
void BM_BindReleaseShared(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  const size_t n = f.names.size() - 1;
  size_t i = 0;
  for (auto _ : state) {
    uint32_t h = 0;
    lib_name_service_entry_t *e = lib_name_service_insert(f.svc, &h, f.names[i].c_str(), 0);
    if (e == nullptr) {
      state.SkipWithError("lib_name_service_insert failed");
      break;
    }
    e->slots->data[lib_name_service_handle_slot(h)] = &f.object;
    benchmark::DoNotOptimize(lib_name_service_remove(f.svc, h));
    i = i + 1 == n ? 0 : i + 1;
  }
}

// A name bound and released whole: its entry and slot array are made and freed each time.
void BM_BindReleaseName(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  const char *name = f.names.back().c_str();
  const uint32_t first_id = f.svc->next_id;
  for (auto _ : state) {
    uint32_t h = 0;
    lib_name_service_entry_t *e = lib_name_service_insert(f.svc, &h, name, 1);
    if (e == nullptr) {
      state.SkipWithError("lib_name_service_insert failed");
      break;
    }
    e->slots->data[0] = &f.object;
    benchmark::DoNotOptimize(lib_name_service_remove(f.svc, h));
    if (f.svc->next_id > LIB_NAME_SERVICE_MAX_ID) {
      f.svc->next_id = first_id;  // each entry made here was freed: its id is free again
    }
  }
}

// Baseline for both bind-and-release benchmarks: a name-keyed map entry made and erased.
void BM_BindReleaseBaseline(benchmark::State &state) {
  Fixture &f = Fixture::get(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("lib_name_service_create or lib_name_service_insert failed");
    return;
  }
  std::unordered_map<std::string_view, void *> by_name;
  for (size_t k = 0; k + 1 < f.names.size(); ++k) {
    by_name.emplace(f.names[k], &f.object);
  }
  const std::string_view name = f.names.back();
  for (auto _ : state) {
    by_name.emplace(name, &f.object);
    benchmark::DoNotOptimize(by_name.erase(name));
  }
}

BENCHMARK(BM_Lookup)->Arg(100)->Arg(10000);
BENCHMARK(BM_LookupCached)->Arg(100)->Arg(10000);
BENCHMARK(BM_LookupBaseline)->Arg(100)->Arg(10000);
BENCHMARK(BM_BindReleaseShared)->Arg(100)->Arg(10000);
BENCHMARK(BM_BindReleaseName)->Arg(100)->Arg(10000);
BENCHMARK(BM_BindReleaseBaseline)->Arg(100)->Arg(10000);

}  // namespace

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  for (const char *n : {"100", "10000"}) {
    const std::string at = std::string("/") + n;
    pairs.push_back({"lookup" + at + " service/map", "BM_Lookup" + at, "BM_LookupBaseline" + at});
    pairs.push_back(
        {"lookup cached" + at + " service/map", "BM_LookupCached" + at, "BM_LookupBaseline" + at});
    pairs.push_back({"bind+release shared" + at + " service/map", "BM_BindReleaseShared" + at,
                     "BM_BindReleaseBaseline" + at});
    pairs.push_back({"bind+release name" + at + " service/map", "BM_BindReleaseName" + at,
                     "BM_BindReleaseBaseline" + at});
  }
  return zel_bench::run(argc, argv, pairs);
}
