// Feature event loop: registration, one message per dequeue on a real descriptor, failed
// receives, the heartbeat timer, the exit path, destruction, the queue of enabled instances and
// allocation failures.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <kro/probe.h>
#include <zel/fu.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "support/fault.h"

// The public records' layout is fixed for both word sizes.
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
static_assert(sizeof(fu_fsm_event_t) == 4108 && sizeof(fu_pmx_recv_opts_t) == 40);

namespace {

// A loop's surroundings: a dispatch manager and a stream socket pair whose first end is the
// message descriptor, with the host stand-ins reset.
struct Loop {
  kro_dm_t *dm = nullptr;
  int sv[2] = {-1, -1};
  int32_t fd = -1;
  zel_fu_handle_t *h = nullptr;

  Loop() {
    fu_probe_reset();
    EXPECT_EQ(kro_dm_create(&dm), 0);
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    fd = sv[0];
  }
  ~Loop() {
    zel_fu_handle_destroy(h);
    EXPECT_EQ(kro_dm_destroy(&dm), 0);  // refused if the timer tree were still attached
    close_peer();
    close(sv[0]);
  }
  Loop(const Loop &) = delete;
  Loop &operator=(const Loop &) = delete;

  zel_fu_handle_t *open(uint32_t timeout_ms) {
    fu_probe_set_heartbeat_timeout(timeout_ms);
    h = zel_fu_register_events(&dm, &fd);
    return h;
  }
  void send(const char *s) {
    ASSERT_EQ(fu_pmx_send(sv[1], s, static_cast<uint32_t>(strlen(s))), 0);
  }
  void close_peer() {
    if (sv[1] >= 0) {
      close(sv[1]);
      sv[1] = -1;
    }
  }
  kro_dm_stats_t stats() const {
    kro_dm_stats_t st{};
    kro_dm_stats_get(dm, &st);
    return st;
  }
};

uint32_t word_at(const void *rec, size_t offset) {
  uint32_t w;
  memcpy(&w, static_cast<const unsigned char *>(rec) + offset, sizeof w);
  return w;
}

TEST(FuLoop, RegisterRefusesMissingManagerOrDescriptor) {
  Loop l;
  kro_dm_t *no_dm = nullptr;
  const int32_t zero = 0, negative = -1;
  const struct {
    const char *name;
    kro_dm_t *const *dm_ref;
    const int32_t *fd_ref;
  } rows[] = {{"no dm_ref", nullptr, &l.fd},
              {"no manager", &no_dm, &l.fd},
              {"no fd_ref", &l.dm, nullptr},
              {"descriptor 0", &l.dm, &zero},
              {"negative descriptor", &l.dm, &negative}};
  const long before = zel_test::fault_live_blocks();
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(zel_fu_register_events(row.dm_ref, row.fd_ref), nullptr);
    EXPECT_EQ(zel_test::fault_live_blocks(), before);
  }
  EXPECT_EQ(zel_fu_dequeue(nullptr, nullptr), ZEL_FU_EINVAL);
}

TEST(FuLoop, EachMessageFillsTheRecordAndRearms) {
  Loop l;
  ASSERT_NE(l.open(1000), nullptr);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 1);
  fu_fsm_event_t ev{};
  for (const char *text : {"first", "", "third message"}) {
    SCOPED_TRACE(text);
    l.send(text);
    ASSERT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
    EXPECT_EQ(word_at(&ev, 4), 1u);
    EXPECT_EQ(word_at(&ev, 8), static_cast<uint32_t>(l.fd));
    ASSERT_EQ(word_at(&ev, 12), strlen(text));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&ev) + 16, strlen(text)), text);
    EXPECT_EQ(l.h->done, 0u);
  }
  EXPECT_EQ(l.stats().fd_runs, 3u);  // re-armed after every message
  EXPECT_EQ(fu_probe_event_inits(), 3u);
  EXPECT_GE(fu_probe_heartbeats(), 3u);
  fu_pmx_recv_opts_t opts{};
  fu_probe_last_recv_opts(&opts);
  const fu_pmx_recv_opts_t want{0, 1, {}};
  EXPECT_EQ(memcmp(&opts, &want, sizeof opts), 0);
}

// A failed receive or a missing record ends the wait with 16 and leaves the descriptor
// unarmed: the next call ends only on the exit path, without another descriptor callback.
TEST(FuLoop, FailedReceiveEndsWithEbusyAndLeavesDescriptorUnarmed) {
  enum Cause { kPeerClosed, kOversized, kNoRecord };
  const struct {
    const char *name;
    Cause cause;
  } rows[] = {{"peer closed", kPeerClosed}, {"oversized", kOversized}, {"no record", kNoRecord}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    Loop l;
    ASSERT_NE(l.open(1), nullptr);
    fu_fsm_event_t ev{};
    if (row.cause == kPeerClosed) {
      l.close_peer();
    } else if (row.cause == kOversized) {
      const uint32_t len = FU_PMX_DATA_MAX + 1;
      ASSERT_EQ(write(l.sv[1], &len, sizeof len), static_cast<ssize_t>(sizeof len));
    } else {
      l.send("unread");
    }
    EXPECT_EQ(zel_fu_dequeue(l.h, row.cause == kNoRecord ? nullptr : &ev), ZEL_FU_EBUSY);
    EXPECT_EQ(fu_probe_event_inits(), row.cause == kNoRecord ? 0u : 1u);
    fu_probe_set_state(FU_STATE_EXIT);
    EXPECT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
    l.h = nullptr;
    EXPECT_EQ(fu_probe_postcleanup_calls(), 1u);
    EXPECT_EQ(l.stats().fd_runs, 1u);
  }
}

TEST(FuLoop, HeartbeatsGoOnWhileNoMessageComes) {
  Loop l;
  ASSERT_NE(l.open(1), nullptr);
  std::thread feeder([&l] {
    fu_probe_wait_heartbeats(5);
    l.send("late");
  });
  fu_fsm_event_t ev{};
  EXPECT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
  feeder.join();
  EXPECT_EQ(ev.msg.len, 4u);
  EXPECT_GE(fu_probe_heartbeats(), 5u);
  EXPECT_GE(l.stats().timer_runs, 4u);  // each wait but the last ended by the heartbeat timer
  EXPECT_EQ(l.stats().fd_runs, 1u);
}

TEST(FuLoop, ExitStateSetWhileWaitingDestroysTheHandle) {
  Loop l;
  const long before = zel_test::fault_live_blocks();
  ASSERT_NE(l.open(2), nullptr);
  kro_probe_journal_start();
  std::thread utility([] {
    fu_probe_wait_heartbeats(3);
    fu_probe_set_state(FU_STATE_EXIT);
  });
  fu_fsm_event_t ev{};
  EXPECT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
  utility.join();
  kro_probe_journal_stop();
  l.h = nullptr;
  EXPECT_EQ(fu_probe_postcleanup_calls(), 1u);
  EXPECT_STREQ(kro_probe_journal_entry(kro_probe_journal_count() - 1),
               "fu_condnal_postcleanup_done 0");
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  // The registration went with the handle: a message now reaches no handler.
  l.send("after");
  kro_dm_wake(l.dm);
  ASSERT_EQ(kro_dm_wait(l.dm), 0);
  ASSERT_EQ(kro_dm_dispatch(l.dm), 0);
  EXPECT_EQ(l.stats().fd_runs, 0u);
}

TEST(FuLoop, DestroyWithdrawsAReadinessAlreadyCollected) {
  Loop l;
  ASSERT_NE(l.open(1000), nullptr);
  l.send("pending");
  ASSERT_EQ(kro_dm_wait(l.dm), 0);
  zel_fu_handle_destroy(l.h);
  l.h = nullptr;
  ASSERT_EQ(kro_dm_dispatch(l.dm), 0);
  EXPECT_EQ(l.stats().fd_runs, 0u);
  zel_fu_handle_destroy(nullptr);
}

TEST(FuLoop, TimeoutZeroLeavesTheLeafStopped) {
  for (uint32_t timeout : {0u, 50u}) {
    SCOPED_TRACE(timeout);
    Loop l;
    ASSERT_NE(l.open(timeout), nullptr);
    const int running = timeout != 0 ? 1 : 0;
    EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), running);
    l.send("m");
    fu_fsm_event_t ev{};
    ASSERT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
    EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), running);
    // An expiry with the state not 5 restarts the leaf only for a non-zero timeout.
    EXPECT_EQ(zel_fu_timer_event_handler(nullptr, l.h->hb_leaf, l.h), 0);
    EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), running);
    EXPECT_EQ(l.h->done, 0u);
    // State 5 at an expiry: the wait is over with an exit request, the leaf stopped.
    fu_probe_set_state(FU_STATE_EXIT);
    EXPECT_EQ(zel_fu_timer_event_handler(nullptr, l.h->hb_leaf, l.h), 0);
    EXPECT_EQ(kro_mgd_timer_leaf_running(l.h->hb_leaf), 0);
    EXPECT_EQ(l.h->done, 1u);
    EXPECT_EQ(l.h->exit_req, 1u);
  }
  EXPECT_EQ(zel_fu_timer_event_handler(nullptr, nullptr, nullptr), 0);
  zel_fu_dm_fd_handler(nullptr, 0, KRO_DM_FD_READABLE, nullptr);
}

// Every allocation of the registration fails in turn: the handle itself gives NULL; a failed
// descriptor record, timer tree, manager timer or leaf still gives a handle whose loop ends,
// through the message or, without an armed descriptor, through the exit path.
TEST(FuLoop, RegistrationAllocationFailuresLeaveAWorkingOrNoHandle) {
  const unsigned failures = zel_test::fault_sweep([](unsigned n) {
    Loop l;
    l.send("m");
    fu_probe_set_heartbeat_timeout(1);
    fu_probe_set_state(FU_STATE_EXIT);
    {
      zel_test::FaultScope fault(n);
      l.h = zel_fu_register_events(&l.dm, &l.fd);
    }
    if (l.h == nullptr) {
      EXPECT_TRUE(zel_test::fault_fired());
      return true;
    }
    fu_fsm_event_t ev{};
    EXPECT_EQ(zel_fu_dequeue(l.h, &ev), ZEL_FU_OK);
    if (fu_probe_postcleanup_calls() != 0) {
      l.h = nullptr;  // the exit path destroyed it
    } else {
      EXPECT_EQ(ev.msg.len, 1u);
    }
    return zel_test::fault_fired();
  });
  EXPECT_GE(failures, 5u);
}

fm_feature_instance_req_t req(uint32_t instance) {
  return fm_feature_instance_req_t{1, 77, instance};
}

TEST(FuInstances, TwentyAreRecordedTheNextIsRefused) {
  Loop l;
  ASSERT_NE(l.open(1000), nullptr);
  EXPECT_NE(zel_fu_can_exit(l.h), 0);
  for (uint32_t i = 1; i <= ZEL_FU_INSTANCES_MAX; ++i) {
    const auto r = req(i);
    ASSERT_EQ(zel_fu_feature_enable(l.h, &r), 1) << i;
  }
  const long before = zel_test::fault_live_blocks();
  const auto extra = req(21);
  EXPECT_EQ(zel_fu_feature_enable(l.h, &extra), 0);
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  EXPECT_EQ(zel_fu_can_exit(l.h), 0);
  for (uint32_t i = ZEL_FU_INSTANCES_MAX; i >= 1; --i) {
    const auto r = req(i);
    zel_fu_feature_disable(l.h, &r);
  }
  EXPECT_NE(zel_fu_can_exit(l.h), 0);
}

TEST(FuInstances, DisableRemovesTheFirstMatchOnlyDestroyFreesTheRest) {
  Loop l;
  const long before = zel_test::fault_live_blocks();
  ASSERT_NE(l.open(1000), nullptr);
  const auto seven = req(7), eight = req(8), nine = req(9);
  for (const auto *r : {&seven, &eight, &seven}) {
    ASSERT_EQ(zel_fu_feature_enable(l.h, r), 1);
  }
  zel_fu_feature_disable(l.h, &seven);
  zel_fu_feature_disable(l.h, &nine);  // no match
  ASSERT_EQ(kro_queue_size(&l.h->instances), 2u);
  const auto *head = static_cast<const zel_fu_instance_t *>(kro_queue_peek_head(&l.h->instances));
  EXPECT_EQ(head->instance, 8u);
  EXPECT_EQ(static_cast<const zel_fu_instance_t *>(kro_queue_get_next(head))->instance, 7u);
  // Missing arguments record nothing and remove nothing.
  EXPECT_EQ(zel_fu_feature_enable(nullptr, &seven), 0);
  EXPECT_EQ(zel_fu_feature_enable(l.h, nullptr), 0);
  zel_fu_feature_disable(nullptr, &seven);
  zel_fu_feature_disable(l.h, nullptr);
  EXPECT_EQ(kro_queue_size(&l.h->instances), 2u);
  EXPECT_NE(zel_fu_can_exit(nullptr), 0);
  zel_fu_handle_destroy(l.h);
  l.h = nullptr;
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
}

TEST(FuInstances, EnableAllocationFailureRecordsNothing) {
  Loop l;
  ASSERT_NE(l.open(1000), nullptr);
  const auto r = req(5);
  const unsigned failures = zel_test::fault_sweep([&](unsigned n) {
    int32_t rc;
    {
      zel_test::FaultScope fault(n);
      rc = zel_fu_feature_enable(l.h, &r);
    }
    EXPECT_EQ(rc, zel_test::fault_fired() ? 0 : 1);
    EXPECT_EQ(kro_queue_size(&l.h->instances), zel_test::fault_fired() ? 0u : 1u);
    zel_fu_feature_disable(l.h, &r);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(failures, 1u);
}

}  // namespace
