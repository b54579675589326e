// The IPC client registry at 1,000 and 100,000 registrations: add, lookup by id, lookup by
// name and delete. Every operation traces (its own messages and the hash callbacks' lines), so
// standard output is sent to /dev/null for the whole run and the results are written to the
// original standard output. A single trace point (zel_ipc_reg_cleanup(NULL): one "entering")
// is measured in the same run as the unit the operations are made of.
//
//   scripts/bench.sh build/default/bench/bench_ipc_reg
//
// A lookup's cost must not grow with the registry: compare the medians at 100000 with those
// at 1000. Lookups visit all clients in a shuffled order, each one taking the next client from
// the registration it found (as a caller uses what it finds), so in a registry far larger than
// the caches every lookup also waits for the cache misses of reaching its registration. The
// std_* rows measure that part alone, in the same run and in the same way: a
// std::unordered_map from id (or name) to the same registrations, untraced. The registry's
// growth from 1000 to 100000 should be no larger than theirs. per_op is the time of one
// operation (add and delete run in batches of 1,000). At exit "ratio:" lines give each lookup's
// rate over the std map's (the registry traces, the map does not; add and delete have no peer).
#include <benchmark/benchmark.h>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <unistd.h>
#include <zel/ipc_reg.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ratio.h"

namespace {

constexpr uint32_t k_batch = 1000;

// A registry of n clients (ids 1..n, names "client-<id>") and a batch of spare clients that the
// add and delete benchmarks link and unlink; lookups visit the clients in a shuffled order.
struct Registry {
  zel_ipc_reg_top_t top{};
  std::vector<zel_ipc_reg_t *> linked;
  std::vector<zel_ipc_reg_t *> spare;
  std::vector<uint32_t> ids;
  std::vector<std::string> names;

  bool ok = false;  // every set-up call succeeded

  explicit Registry(uint32_t n) {
    if (zel_ipc_reg_mgr_init(&top) != 0) {
      return;
    }
    inited = true;
    for (uint32_t id = 1; id <= n + k_batch; ++id) {
      const std::string name = "client-" + std::to_string(id);
      zel_ipc_reg_t *e = zel_ipc_reg_new(name.c_str(), id, 0);
      if (e == nullptr) {
        return;
      }
      if (id <= n) {
        zel_ipc_reg_add(&top, e);  // returns nothing
        linked.push_back(e);
      } else {
        spare.push_back(e);
      }
    }
    ok = true;
    // One random cycle through all clients: the k-th visited names the (k+1)-th in `data`.
    std::vector<zel_ipc_reg_t *> order = linked;
    std::shuffle(order.begin(), order.end(), std::mt19937(4242));
    for (uint32_t k = 0; k < n; ++k) {
      ids.push_back(order[k]->id);
      names.emplace_back(order[k]->name);
      order[k]->data = (k + 1) % n;
    }
  }
  ~Registry() {
    if (!inited) {
      return;
    }
    for (zel_ipc_reg_t *e : linked) {
      zel_ipc_reg_delete(&top, e);
      zel_ipc_reg_cleanup(e);
    }
    for (zel_ipc_reg_t *e : spare) {
      zel_ipc_reg_cleanup(e);
    }
    zel_ipc_reg_mgr_cleanup(&top);
  }
  Registry(const Registry &) = delete;
  Registry &operator=(const Registry &) = delete;

 private:
  bool inited = false;
};

// False (the benchmark failed) when the registry could not be set up.
bool registry_ok(benchmark::State &state, const Registry &reg) {
  if (!reg.ok) {
    state.SkipWithError("zel_ipc_reg_mgr_init or zel_ipc_reg_new failed");
  }
  return reg.ok;
}

void per_op(benchmark::State &state, uint32_t ops_per_iteration) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ops_per_iteration));
  state.counters["per_op"] = benchmark::Counter(
      static_cast<double>(ops_per_iteration),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_trace_point(benchmark::State &state) {
  for (auto _ : state) {
    zel_ipc_reg_cleanup(nullptr);
  }
  per_op(state, 1);
}

void BM_get_by_id(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  uint32_t at = 0;
  for (auto _ : state) {
    at = zel_ipc_reg_get_by_id(reg.top, reg.ids[at])->data;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

void BM_get_by_name(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  uint32_t at = 0;
  for (auto _ : state) {
    at = zel_ipc_reg_get_by_name(reg.top, reg.names[at].c_str())->data;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

// Baselines: the same registrations behind std::unordered_map, untraced.
void BM_std_get_by_id(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  std::unordered_map<uint32_t, zel_ipc_reg_t *> map;
  for (zel_ipc_reg_t *e : reg.linked) {
    map.emplace(e->id, e);
  }
  uint32_t at = 0;
  for (auto _ : state) {
    at = map.find(reg.ids[at])->second->data;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

void BM_std_get_by_name(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  std::unordered_map<std::string_view, zel_ipc_reg_t *> map;  // keys are the registrations'
  for (zel_ipc_reg_t *e : reg.linked) {
    map.emplace(std::string_view(e->name), e);
  }
  uint32_t at = 0;
  for (auto _ : state) {
    at = map.find(std::string_view(reg.names[at]))->second->data;
  }
  benchmark::DoNotOptimize(at);
  per_op(state, 1);
}

void BM_add(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  for (auto _ : state) {
    for (zel_ipc_reg_t *e : reg.spare) {
      zel_ipc_reg_add(&reg.top, e);
    }
    state.PauseTiming();
    for (zel_ipc_reg_t *e : reg.spare) {
      zel_ipc_reg_delete(&reg.top, e);
    }
    state.ResumeTiming();
  }
  per_op(state, k_batch);
}

void BM_delete(benchmark::State &state) {
  Registry reg(static_cast<uint32_t>(state.range(0)));
  if (!registry_ok(state, reg)) return;
  for (auto _ : state) {
    state.PauseTiming();
    for (zel_ipc_reg_t *e : reg.spare) {
      zel_ipc_reg_add(&reg.top, e);
    }
    state.ResumeTiming();
    for (zel_ipc_reg_t *e : reg.spare) {
      zel_ipc_reg_delete(&reg.top, e);
    }
  }
  per_op(state, k_batch);
}

void sizes(benchmark::internal::Benchmark *b) {
  b->Arg(1000)->Arg(100000);
}

BENCHMARK(BM_trace_point);
BENCHMARK(BM_get_by_id)->Apply(sizes);
BENCHMARK(BM_get_by_name)->Apply(sizes);
BENCHMARK(BM_std_get_by_id)->Apply(sizes);
BENCHMARK(BM_std_get_by_name)->Apply(sizes);
BENCHMARK(BM_add)->Apply(sizes);
BENCHMARK(BM_delete)->Apply(sizes);

}  // namespace

int main(int argc, char **argv) {
  // The registry's traces go to /dev/null; the report goes where standard output went.
  fflush(stdout);
  const int report_fd = dup(STDOUT_FILENO);
  const int null_fd = open("/dev/null", O_WRONLY);
  if (report_fd < 0 || null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) {
    perror("bench_ipc_reg: redirecting standard output");
    return 1;
  }
  close(null_fd);
  __gnu_cxx::stdio_filebuf<char> report_buf(report_fd, std::ios::out);
  std::ostream report(&report_buf);

  // Register the trace module before anything is measured, as the first set-up would.
  zel_ipc_reg_top_t warm{};
  if (zel_ipc_reg_mgr_init(&warm) != 0) {
    std::cerr << "bench_ipc_reg: zel_ipc_reg_mgr_init failed\n";
    return 1;
  }
  zel_ipc_reg_mgr_cleanup(&warm);
  std::vector<zel_bench::Pair> pairs;
  for (const char *n : {"1000", "100000"}) {
    for (const char *key : {"id", "name"}) {
      pairs.push_back({std::string("get_by_") + key + "/" + n + " registry/unordered_map",
                       std::string("BM_get_by_") + key + "/" + n,
                       std::string("BM_std_get_by_") + key + "/" + n});
    }
  }
  const int rc = zel_bench::run(argc, argv, pairs, &report);
  report.flush();
  return rc;
}
