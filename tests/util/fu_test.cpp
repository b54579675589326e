// Feature event loop: messages on a real descriptor, failed receives, the heartbeat timer, the
// exit path, destruction, the enabled instances and allocation failures.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <kro/probe.h>
#include <zel/fu.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "support/fault.h"

// The handle's layout is fixed for both word sizes.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(zel_fu_handle_t) == 44 && offsetof(zel_fu_handle_t, event) == 12 &&
              offsetof(zel_fu_handle_t, result) == 16 &&
              offsetof(zel_fu_handle_t, instances) == 28);
static_assert(sizeof(zel_fu_instance_t) == 8 && offsetof(zel_fu_instance_t, instance) == 4);
#else
static_assert(sizeof(zel_fu_handle_t) == 72 && offsetof(zel_fu_handle_t, event) == 16 &&
              offsetof(zel_fu_handle_t, result) == 24 &&
              offsetof(zel_fu_handle_t, instances) == 48);
static_assert(sizeof(zel_fu_instance_t) == 16 && offsetof(zel_fu_instance_t, instance) == 8);
#endif

namespace {

// A dispatch manager and a socket pair whose first end is the message descriptor; the handle,
// when still set, is destroyed before the manager (which refuses while the timer tree is on),
// and nothing may be left allocated.
struct Loop {
  const long live = zel_test::fault_live_blocks();
  kro_dm_t *dm = nullptr;
  int sv[2] = {-1, -1};
  zel_fu_handle_t *h = nullptr;
  fu_fsm_event_t ev{};

  explicit Loop(uint32_t timeout_ms = 1000, bool open = true) {
    fu_probe_reset();
    fu_probe_set_heartbeat_timeout(timeout_ms);
    EXPECT_TRUE(kro_dm_create(&dm) == 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
    if (open) {
      EXPECT_NE(h = zel_fu_register_events(&dm, &sv[0]), nullptr);
    }
  }
  ~Loop() {
    zel_fu_handle_destroy(h);
    EXPECT_EQ(kro_dm_destroy(&dm), 0);
    close(sv[1]);
    close(sv[0]);
    EXPECT_EQ(zel_test::fault_live_blocks(), live);
  }
  void send(const char *s) { ASSERT_EQ(fu_pmx_send(sv[1], s, strlen(s)), 0); }
  unsigned fd_runs() const {
    kro_dm_stats_t st{};
    return kro_dm_stats_get(dm, &st), st.fd_runs;
  }
};

// Each message fills the record (from_fd 1, the descriptor, the bytes) and re-arms the
// descriptor, with the host's receive options but non-blocking. Destruction withdraws the
// registration, also a readiness already collected.
TEST(FuLoop, EachMessageFillsTheRecordAndRearms) {
  Loop l;
  for (const char *text : {"first", "", "third message"}) {
    l.send(text);
    ASSERT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
    const auto *data = reinterpret_cast<const char *>(l.ev.msg.data);
    EXPECT_EQ(std::tuple(l.ev.from_fd, l.ev.fd, std::string(data, l.ev.msg.len)),
              std::tuple(1u, l.sv[0], text));
  }
  EXPECT_EQ(std::tuple(l.fd_runs(), fu_probe_event_inits()), std::tuple(3u, 3u));
  fu_pmx_recv_opts_t opts{};
  fu_probe_last_recv_opts(&opts);
  const fu_pmx_recv_opts_t want{0, 1, {}};
  EXPECT_EQ(memcmp(&opts, &want, sizeof opts), 0);
  l.send("pending");
  ASSERT_EQ(kro_dm_wait(l.dm), 0);
  zel_fu_handle_destroy(l.h);
  l.h = nullptr;
  ASSERT_EQ(kro_dm_dispatch(l.dm), 0);
  EXPECT_EQ(l.fd_runs(), 3u);
}

// A failed receive or a missing record ends the wait with 16 and leaves the descriptor
// unarmed: the next call ends only on the exit path, without another descriptor callback.
TEST(FuLoop, FailedReceiveEndsWithEbusyAndLeavesDescriptorUnarmed) {
  for (const char cause : {'c', 'o', 'n'}) {  // peer closed, oversized, no record
    SCOPED_TRACE(cause);
    Loop l(1);
    const uint32_t len = FU_PMX_DATA_MAX + 1;
    if (cause == 'c') {
      shutdown(l.sv[1], SHUT_WR);
    } else if (cause == 'o') {
      ASSERT_EQ(write(l.sv[1], &len, sizeof len), ssize_t{sizeof len});
    } else {
      l.send("unread");
    }
    EXPECT_EQ(zel_fu_dequeue(l.h, cause == 'n' ? nullptr : &l.ev), ZEL_FU_EBUSY);
    EXPECT_EQ(fu_probe_event_inits(), cause == 'n' ? 0u : 1u);
    fu_probe_set_state(FU_STATE_EXIT);
    EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
    l.h = nullptr;
    EXPECT_EQ(std::tuple(fu_probe_postcleanup_calls(), l.fd_runs()), std::tuple(1u, 1u));
  }
}

// Heartbeats go on while no message comes; then the exit state, set by another thread once the
// first dequeue has returned and the second has gone on beating, destroys the handle and tells
// the host.
TEST(FuLoop, HeartbeatsGoOnUntilAMessageOrTheExitState) {
  Loop l(1);
  std::atomic<unsigned> beats_at_return{0};
  std::thread other([&l, &beats_at_return] {
    fu_probe_wait_heartbeats(5);
    l.send("late");
    while (beats_at_return.load() == 0) std::this_thread::yield();
    fu_probe_wait_heartbeats(beats_at_return.load() + 5);
    fu_probe_set_state(FU_STATE_EXIT);
  });
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  beats_at_return = fu_probe_heartbeats() + 1;  // never 0
  kro_dm_stats_t st{};
  kro_dm_stats_get(l.dm, &st);
  EXPECT_EQ(std::tuple(l.ev.msg.len, st.fd_runs), std::tuple(4u, 1u));
  EXPECT_GE(st.timer_runs, 4u);  // each wait but the last ended by the heartbeat timer
  kro_probe_journal_start();
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  other.join();
  kro_probe_journal_stop();
  l.h = nullptr;
  EXPECT_STREQ(kro_probe_journal_entry(kro_probe_journal_count() - 1),
               "fu_condnal_postcleanup_done 0");
}

// With timeout 0 the leaf is never started: not by the registration, the end of a wait or an
// expiry. (Restarts for a non-zero timeout keep the heartbeats above going.)
TEST(FuLoop, HeartbeatTimeoutZeroLeavesTheLeafStopped) {
  Loop l(0);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 0);
  l.send("m");
  ASSERT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 0);
  EXPECT_EQ(zel_fu_timer_event_handler(nullptr, l.h->hb_leaf, l.h), 0);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 0);
}

// The handle's allocation failing gives NULL; a failed descriptor record, timer tree, manager
// timer or leaf still gives a handle whose loop ends, through the message or, without an armed
// descriptor, through the exit path.
TEST(FuLoop, RegistrationAllocationFailuresLeaveAWorkingOrNoHandle) {
  EXPECT_GE(zel_test::fault_sweep([](unsigned n) {
              Loop l(1, false);
              l.send("m");
              fu_probe_set_state(FU_STATE_EXIT);
              {
                zel_test::FaultScope fault(n);
                l.h = zel_fu_register_events(&l.dm, &l.sv[0]);
              }
              if (l.h != nullptr) {
                EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
                EXPECT_TRUE(fu_probe_postcleanup_calls() != 0 || l.ev.msg.len == 1u);
                if (fu_probe_postcleanup_calls() != 0) l.h = nullptr;  // the exit path freed it
              }
              return zel_test::fault_fired();
            }),
            5u);
}

// Twenty instances are recorded, the 21st refused, a failed enable records nothing; disable
// removes the first match only, and destroy frees the rest.
TEST(FuInstances, TwentyAreRecordedDisableRemovesTheFirstMatch) {
  Loop l;
  const auto req = [](uint32_t instance) { return fm_feature_instance_req_t{1, 77, instance}; };
  const auto five = req(5), one = req(1), absent = req(99);
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              zel_test::FaultScope fault(n);
              const uint32_t rc = zel_fu_feature_enable(l.h, &five);
              const uint32_t want = zel_test::fault_fired() ? 0 : 1;
              EXPECT_EQ(std::tuple(rc, kro_queue_size(&l.h->instances)), std::tuple(want, want));
              zel_fu_feature_disable(l.h, &five);
              return zel_test::fault_fired();
            }),
            1u);
  EXPECT_NE(zel_fu_can_exit(l.h), 0);
  for (uint32_t i = 1; i <= ZEL_FU_INSTANCES_MAX + 1; ++i) {
    const auto r = req(i == 3 ? 1 : i);
    ASSERT_EQ(zel_fu_feature_enable(l.h, &r), i <= ZEL_FU_INSTANCES_MAX ? 1 : 0) << i;
  }
  EXPECT_EQ(zel_fu_can_exit(l.h), 0);
  zel_fu_feature_disable(l.h, &one);
  zel_fu_feature_disable(l.h, &absent);
  ASSERT_EQ(kro_queue_size(&l.h->instances), ZEL_FU_INSTANCES_MAX - 1u);
  const auto *head = static_cast<const zel_fu_instance_t *>(kro_queue_peek_head(&l.h->instances));
  EXPECT_EQ(head->instance, 2u);
  EXPECT_EQ(static_cast<const zel_fu_instance_t *>(kro_queue_get_next(head))->instance, 1u);
}

}  // namespace
