// Building the configuration string of a large SNMP configuration: N objects of 80 characters
// and N range instances with two 80-character OIDs, N = 256, 512, 1024.
//
// BM_config_string_get is the library's build (count pass, one allocation, write pass). Two
// baselines run beside it in the same process: BM_copy_baseline allocates a zero-filled buffer
// of the same size and copies a ready-made string of the same length into it (the least any
// build can do), and BM_scanning_provider appends the same pieces through the exported
// cfg_strcat from a provider outside the library, which finds the end of the text by scanning.
// Compare time per string across N (linear growth: about 2x per doubling) and against the
// baselines: at exit "ratio:" lines give the library's rate over each baseline's.
#include <benchmark/benchmark.h>
#include <zel/config.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ratio.h"

namespace {

std::string oid80(int i, char c) {
  std::string s(80, c);
  const std::string n = std::to_string(i);
  s.replace(0, n.size(), n);
  return s;
}

// NULL (and the benchmark failed) when any step fails.
zel_util_config_t *make_config(benchmark::State &state, int n) {
  zel_util_config_t *c = zel_util_config_create("loc1", "snmp");
  bool ok = c != nullptr;
  for (int i = 0; ok && i < n; ++i) {
    ok = zel_util_snmp_add_object(c, "objects", oid80(i, 'o').c_str()) == 0 &&
         zel_util_snmp_add_instance(c, "instances", ZEL_SNMP_INSTANCE_RANGE, oid80(i, 's').c_str(),
                                    oid80(i, 'e').c_str(), 0) == 0;
  }
  ok = ok && zel_util_snmp_add_context(c, "ctxA") == 0;
  char *probe = ok ? zel_util_config_string_get(c) : nullptr;
  if (probe == nullptr) {
    state.SkipWithError("building the configuration failed");
    zel_util_config_destroy(c);
    return nullptr;
  }
  return c;
}

void BM_config_string_get(benchmark::State &state) {
  zel_util_config_t *c = make_config(state, static_cast<int>(state.range(0)));
  if (c == nullptr) return;
  size_t len = 0;
  for (auto _ : state) {
    char *s = zel_util_config_string_get(c);
    benchmark::DoNotOptimize(s);
    len = strlen(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
  state.counters["length"] = static_cast<double>(len);
  zel_util_config_destroy(c);
}

void BM_copy_baseline(benchmark::State &state) {
  zel_util_config_t *c = make_config(state, static_cast<int>(state.range(0)));
  if (c == nullptr) return;
  const std::string ready = zel_util_config_string_get(c);
  zel_util_config_destroy(c);
  char *prev = nullptr;
  for (auto _ : state) {
    auto *buf = static_cast<char *>(calloc(ready.size() + 1, 1));
    memcpy(buf, ready.data(), ready.size());
    benchmark::DoNotOptimize(buf);
    free(prev);  // like the library, keep one earlier string alive
    prev = buf;
  }
  free(prev);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ready.size()));
}

// A provider outside the library: the same pieces, appended with the exported cfg_strcat.
struct scan_part {
  std::vector<std::string> pieces;
};

void scan_strcat(zel_util_config_t *c, char *dst, int32_t *counter) {
  for (const std::string &p : static_cast<scan_part *>(c->prov_cfg)->pieces) {
    cfg_strcat(dst, p.c_str(), counter);
  }
}
void scan_free(zel_util_config_t *c) {
  delete static_cast<scan_part *>(c->prov_cfg);
}

void BM_scanning_provider(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  auto *part = new scan_part;
  const char *seps[] = {"/", "objects", ";"};
  part->pieces.assign(seps, seps + 3);
  for (int i = 0; i < n; ++i) {
    part->pieces.push_back(oid80(i, 'o'));
    if (i + 1 < n) part->pieces.push_back(",");
  }
  for (const char *p : {"/", "instances", ";", "range", ";"}) part->pieces.push_back(p);
  for (int i = 0; i < n; ++i) {
    part->pieces.push_back(oid80(i, 's'));
    part->pieces.push_back("-");
    part->pieces.push_back(oid80(i, 'e'));
    if (i + 1 < n) part->pieces.push_back(",");
  }
  part->pieces.push_back("/");
  part->pieces.push_back("ctxA");
  zel_util_config_t *c = zel_util_config_create("loc1", "snmp");
  if (c == nullptr) {
    state.SkipWithError("zel_util_config_create failed");
    delete part;
    return;
  }
  c->prov_cfg = part;
  c->prov_cfg_free = scan_free;
  c->prov_cfg_strcat = scan_strcat;
  size_t len = 0;
  for (auto _ : state) {
    char *s = zel_util_config_string_get(c);
    benchmark::DoNotOptimize(s);
    len = strlen(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
  zel_util_config_destroy(c);
}

}  // namespace

BENCHMARK(BM_config_string_get)->Arg(256)->Arg(512)->Arg(1024);
BENCHMARK(BM_copy_baseline)->Arg(256)->Arg(512)->Arg(1024);
BENCHMARK(BM_scanning_provider)->Arg(256)->Arg(512)->Arg(1024);

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  for (const char *n : {"256", "512", "1024"}) {
    for (const char *peer : {"copy_baseline", "scanning_provider"}) {
      pairs.push_back({std::string("string_get/") + n + " library/" + peer,
                       std::string("BM_config_string_get/") + n,
                       std::string("BM_") + peer + "/" + n});
    }
  }
  return zel_bench::run(argc, argv, pairs);
}
