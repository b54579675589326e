// Feature event loop speed: one 16-byte message sent on a stream socket pair and received
// through zel_fu_dequeue (heartbeat, wait, dispatch, descriptor handler, re-arm, leaf restart),
// against the same receive through a bare descriptor registration of the dispatch manager, and
// against poll + read without a manager. Also the enable/disable of an instance behind 19
// recorded ones. At exit "ratio:" lines give zel_fu_dequeue's rate over each baseline's.
//   scripts/bench.sh build/default/bench/bench_fu
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <zel/fu.h>

#include <benchmark/benchmark.h>

#include "ratio.h"

namespace {

const char fu_bench_msg[16] = "feature message";

struct FuBenchPair {
  int sv[2] = {-1, -1};
  bool ok = false;
  FuBenchPair() { ok = socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0; }
  ~FuBenchPair() {
    if (ok) {
      close(sv[0]);
      close(sv[1]);
    }
  }
};

// A socket pair and a dispatch manager; false (the benchmark failed) when either is missing.
bool fu_bench_setup(benchmark::State &state, const FuBenchPair &p, kro_dm_t **dm) {
  if (!p.ok || kro_dm_create(dm) != 0) {
    state.SkipWithError("socketpair or kro_dm_create failed");
    return false;
  }
  return true;
}

void BM_FuDequeue(benchmark::State &state) {
  FuBenchPair p;
  kro_dm_t *dm = nullptr;
  if (!fu_bench_setup(state, p, &dm)) return;
  fu_probe_set_heartbeat_timeout(1000);
  const int32_t fd = p.sv[0];
  zel_fu_handle_t *h = zel_fu_register_events(&dm, &fd);
  if (h == nullptr) {
    state.SkipWithError("zel_fu_register_events failed");
    kro_dm_destroy(&dm);
    return;
  }
  static fu_fsm_event_t ev;
  for (auto _ : state) {
    fu_pmx_send(p.sv[1], fu_bench_msg, sizeof fu_bench_msg);
    benchmark::DoNotOptimize(zel_fu_dequeue(h, &ev));
  }
  zel_fu_handle_destroy(h);
  kro_dm_destroy(&dm);
}
BENCHMARK(BM_FuDequeue);

struct FuBenchReceiver {
  fu_fsm_event_t ev;
  bool done;
  static void handler(kro_dm_t *dm, int fd, uint32_t, void *cookie) {
    auto *r = static_cast<FuBenchReceiver *>(cookie);
    const fu_pmx_recv_opts_t opts{0, 1, {}};
    if (fu_pmx_recv(fd, &r->ev.msg, &opts) != -1) {
      kro_dm_fd_register(dm, fd, KRO_DM_FD_READABLE, handler, cookie);
    }
    r->done = true;
  }
};

void BM_DmFdReceive(benchmark::State &state) {
  FuBenchPair p;
  kro_dm_t *dm = nullptr;
  if (!fu_bench_setup(state, p, &dm)) return;
  static FuBenchReceiver r;
  if (kro_dm_fd_register(dm, p.sv[0], KRO_DM_FD_READABLE, FuBenchReceiver::handler, &r) != 0) {
    state.SkipWithError("kro_dm_fd_register failed");
    kro_dm_destroy(&dm);
    return;
  }
  for (auto _ : state) {
    fu_pmx_send(p.sv[1], fu_bench_msg, sizeof fu_bench_msg);
    r.done = false;
    while (!r.done) {
      kro_dm_wait(dm);
      kro_dm_dispatch(dm);
    }
  }
  kro_dm_fd_deregister(dm, p.sv[0]);
  kro_dm_destroy(&dm);
}
BENCHMARK(BM_DmFdReceive);

void BM_PollRead(benchmark::State &state) {
  FuBenchPair p;
  if (!p.ok) {
    state.SkipWithError("socketpair failed");
    return;
  }
  static fu_pmx_msg_t msg;
  const fu_pmx_recv_opts_t opts{0, 1, {}};
  for (auto _ : state) {
    fu_pmx_send(p.sv[1], fu_bench_msg, sizeof fu_bench_msg);
    pollfd pfd{p.sv[0], POLLIN, 0};
    poll(&pfd, 1, -1);
    benchmark::DoNotOptimize(fu_pmx_recv(p.sv[0], &msg, &opts));
  }
}
BENCHMARK(BM_PollRead);

void BM_FuEnableDisable(benchmark::State &state) {
  FuBenchPair p;
  kro_dm_t *dm = nullptr;
  if (!fu_bench_setup(state, p, &dm)) return;
  const int32_t fd = p.sv[0];
  zel_fu_handle_t *h = zel_fu_register_events(&dm, &fd);
  if (h == nullptr) {
    state.SkipWithError("zel_fu_register_events failed");
    kro_dm_destroy(&dm);
    return;
  }
  for (uint32_t i = 1; i < ZEL_FU_INSTANCES_MAX; ++i) {
    const fm_feature_instance_req_t r{1, 1, i};
    if (zel_fu_feature_enable(h, &r) != 1) {
      state.SkipWithError("zel_fu_feature_enable failed");
      break;
    }
  }
  const fm_feature_instance_req_t last{1, 1, 1000};
  for (auto _ : state) {
    benchmark::DoNotOptimize(zel_fu_feature_enable(h, &last));
    zel_fu_feature_disable(h, &last);
  }
  zel_fu_handle_destroy(h);
  kro_dm_destroy(&dm);
}
BENCHMARK(BM_FuEnableDisable);

}  // namespace

// Enable/disable has no peer to compare with: its row stands alone.
int main(int argc, char **argv) {
  return zel_bench::run(argc, argv,
                        {{"receive zel_fu_dequeue/dm descriptor", "BM_FuDequeue", "BM_DmFdReceive"},
                         {"receive zel_fu_dequeue/poll+read", "BM_FuDequeue", "BM_PollRead"}});
}
