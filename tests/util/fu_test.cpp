// Feature event loop: messages on a real descriptor, a failed receive, the heartbeat timer, the
// exit path, destruction, the enabled instances and allocation failures.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <kro/probe.h>
#include <zel/fu.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <thread>

#include "support/fault.h"

// The handle's layout is fixed for both word sizes: w(32-bit, 64-bit).
constexpr auto w = [](size_t on32, size_t on64) { return sizeof(void *) == 4 ? on32 : on64; };
static_assert(sizeof(zel_fu_handle_t) == w(44, 72) &&
              offsetof(zel_fu_handle_t, event) == w(12, 16) &&
              offsetof(zel_fu_handle_t, result) == w(16, 24) &&
              offsetof(zel_fu_handle_t, instances) == w(28, 48));
static_assert(sizeof(zel_fu_instance_t) == w(8, 16) &&
              offsetof(zel_fu_instance_t, instance) == w(4, 8));

namespace {

// A manager, a socket pair (the first end is the descriptor) and a handle; nothing left allocated.
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
    EXPECT_TRUE(!open || (h = zel_fu_register_events(&dm, &sv[0])) != nullptr);
  }
  ~Loop() {
    if (fu_probe_postcleanup_calls() == 0) zel_fu_handle_destroy(h);
    EXPECT_EQ(kro_dm_destroy(&dm), 0);
    for (const int fd : sv) close(fd);
    EXPECT_EQ(zel_test::fault_live_blocks(), live);
  }
  void send(std::string s) { ASSERT_EQ(fu_pmx_send(sv[1], s.data(), s.size()), 0); }
};

// Each message fills the record and re-arms the descriptor; with timeout 0 the heartbeat leaf
// never starts. Destruction withdraws the registration, also a readiness already collected.
TEST(FuLoop, EachMessageFillsTheRecordAndRearms) {
  Loop l(0);
  for (const char *text : {"first", "", "third message"}) {
    l.send(text);
    ASSERT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
    const auto *data = reinterpret_cast<const char *>(l.ev.msg.data);
    EXPECT_EQ(std::tuple(l.ev.from_fd, l.ev.fd, std::string(data, l.ev.msg.len)),
              std::tuple(1u, l.sv[0], text));
  }
  EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 0);
  l.send("pending");
  ASSERT_EQ(kro_dm_wait(l.dm), 0);
  zel_fu_handle_destroy(std::exchange(l.h, nullptr));
  ASSERT_EQ(kro_dm_dispatch(l.dm), 0);
  EXPECT_EQ(fu_probe_event_inits(), 3u);
}

// A receive that fails (the peer closed) ends the wait with 16 and leaves the descriptor
// unarmed: after a wait the manager refuses, the exit path ends the next call, no callback.
TEST(FuLoop, FailedReceiveEndsWithEbusyAndLeavesDescriptorUnarmed) {
  Loop l(1);
  shutdown(l.sv[1], SHUT_WR);
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_EBUSY);
  kro_dm_t *const dm = std::exchange(l.dm, nullptr);  // a manager that refuses to wait
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_EINVAL);
  l.dm = dm;
  fu_probe_set_state(FU_STATE_EXIT);
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  EXPECT_EQ(std::tuple(fu_probe_postcleanup_calls(), fu_probe_event_inits()), std::tuple(1u, 1u));
}

// Heartbeats go on while no message comes; the exit state, set by another thread once the
// second dequeue has gone on beating, destroys the handle and then tells the host.
TEST(FuLoop, HeartbeatsGoOnUntilAMessageOrTheExitState) {
  Loop l(1);
  std::thread other([&l] {
    fu_probe_wait_heartbeats(5);
    l.send("late");
    while (fu_probe_event_inits() == 0) std::this_thread::yield();
    fu_probe_wait_heartbeats(fu_probe_heartbeats() + 5);  // beats of the second dequeue only
    fu_probe_set_state(FU_STATE_EXIT);
  });
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  EXPECT_EQ(std::tuple(l.ev.msg.len, fu_probe_event_inits()), std::tuple(4u, 1u));
  kro_probe_journal_start();
  EXPECT_EQ(zel_fu_dequeue(l.h, &l.ev), ZEL_FU_OK);
  other.join();
  kro_probe_journal_stop();
  EXPECT_STREQ(kro_probe_journal_entry(kro_probe_journal_count() - 1),
               "fu_condnal_postcleanup_done 0");
}

// The handle's allocation failing gives NULL; a failed descriptor record, timer tree, manager
// timer or leaf still gives a handle whose loop ends, by the message or the exit path.
TEST(FuLoop, RegistrationAllocationFailuresLeaveAWorkingOrNoHandle) {
  EXPECT_GE(zel_test::fault_sweep([](unsigned n) {
              Loop l(1, false);
              l.send("m");
              fu_probe_set_state(FU_STATE_EXIT);
              zel_test::fault_arm(n);
              l.h = zel_fu_register_events(&l.dm, &l.sv[0]);
              zel_test::fault_disarm();
              EXPECT_TRUE(l.h == nullptr || zel_fu_dequeue(l.h, &l.ev) == ZEL_FU_OK);
              return zel_test::fault_fired();
            }),
            5u);
}

// Twenty instances are recorded, the 21st refused, a failed enable records nothing; disable
// removes the first match only.
TEST(FuInstances, TwentyAreRecordedDisableRemovesTheFirstMatch) {
  Loop l;
  const fm_feature_instance_req_t five{1, 77, 5}, one{1, 77, 1}, absent{1, 77, 99};
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              zel_test::FaultScope fault(n);
              const int32_t rc = zel_fu_feature_enable(l.h, &five), want = !zel_test::fault_fired();
              EXPECT_EQ(std::tuple(rc, kro_queue_size(&l.h->instances)), std::tuple(want, want));
              zel_fu_feature_disable(l.h, &five);
              return zel_test::fault_fired();
            }),
            1u);
  for (uint32_t i = 1; i <= ZEL_FU_INSTANCES_MAX + 1; ++i) {
    const fm_feature_instance_req_t r{1, 77, i == 3 ? 1 : i};
    ASSERT_EQ(zel_fu_feature_enable(l.h, &r), i <= ZEL_FU_INSTANCES_MAX ? 1 : 0) << i;
  }
  zel_fu_feature_disable(l.h, &one);
  zel_fu_feature_disable(l.h, &absent);
  ASSERT_EQ(kro_queue_size(&l.h->instances), ZEL_FU_INSTANCES_MAX - 1u);
  EXPECT_EQ(static_cast<zel_fu_instance_t *>(kro_queue_peek_head(&l.h->instances))->instance, 2u);
}

}  // namespace
