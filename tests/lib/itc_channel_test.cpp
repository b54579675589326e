// Channels: a model of one name, budgets, the record's reference count, allocation failures of
// open and close. Set-aside messages and refusals are left to the fuzz target's model.
#include <host/module_dt.h>
#include <kro/probe.h>
#include <zel/trace.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <random>

#include "lib/itc_test_util.h"
#include "lib/itc_internal.h"
#include "support/fault.h"

// The public records' layout, fixed on both word sizes.
static_assert(sizeof(lib_itc_attr_t) == 12 && offsetof(lib_itc_attr_t, queue_len) == 4 &&
              offsetof(lib_itc_attr_t, max_bytes) == 8);
static_assert(offsetof(lib_itc_msg_hdr_t, type) == sizeof(void *) &&
              offsetof(lib_itc_msg_hdr_t, length) == sizeof(void *) + 8 &&
              sizeof(lib_itc_msg_hdr_t) == (sizeof(void *) == 4 ? 16 : 24));

static std::atomic<bool> g_settime_fails{false};  // the clean-up timer's arming fails
extern "C" int __real_kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *t, const kro_dm_time_t *v);
extern "C" int __wrap_kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *t,
                                           const kro_dm_time_t *v) {
  return g_settime_fails ? KRO_DM_EINVAL : __real_kro_dm_timer_settime(dm, t, v);
}

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers
using zel_test::fault_fired, zel_test::fault_live_blocks, zel_test::FaultScope;

// Random opens, closes and sends of a server and four clients of one name against what each must
// have been told; a second server refused; the name's id kept while bound, renewed once released.
TEST(ItcNotify, RandomOpensClosesAndSendsMatchTheModel) {
  Dm dm;
  std::mt19937 rng(7);
  std::array<Events, 5> got, want;  // [0]: the server, [1..4]: the clients
  uint32_t h[5] = {}, bound_id = 0, released_id = 0, again = 0;
  for (int step = 0; step < 2000; ++step) {
    const unsigned k = rng() % 5, op = rng() % 3;  // open, close or send
    std::vector<unsigned> peers;                   // the other side's open channels
    for (unsigned c = 0; c < 5; ++c) {
      if (h[c] != 0 && (c == 0) != (k == 0)) peers.push_back(c);
    }
    std::sort(peers.begin(), peers.end(), [&](unsigned x, unsigned y) { return h[x] < h[y]; });
    if (op == 0 && h[k] != 0 && k == 0) {
      EXPECT_EQ(open(&again, "m", LIB_ITC_SERVER, dm.dm), uint32_t{LIB_ITC_EBUSY});
    } else if (op == 0 && h[k] == 0) {
      ASSERT_EQ(open(&h[k], "m", k == 0 ? LIB_ITC_SERVER : LIB_ITC_CLIENT, dm.dm, record, &got[k]),
                0u);
      EXPECT_TRUE(bound_id == 0 ? id_of(h[k]) != released_id : id_of(h[k]) == bound_id);
      EXPECT_EQ(k == 0, (h[k] & 0xFFFFu) == 0);
      bound_id = id_of(h[k]);
      for (unsigned c : peers) {
        want[0].push_back({LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECT, h[k == 0 ? c : k]});
        want[k == 0 ? c : k].push_back(connected);
      }
    } else if (op == 1 && h[k] != 0) {
      for (unsigned c : peers) {
        want[k == 0 ? c : 0].push_back(
            k == 0 ? disconnect : Event{LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_DISCONNECT, h[k]});
      }
      ASSERT_EQ(lib_itc_close(&h[k]), 0);
      if (std::count(h, h + 5, 0u) == 5) released_id = std::exchange(bound_id, 0);
    } else if (op == 2 && h[k] != 0) {
      const unsigned to = k == 0 ? 1 + rng() % 4 : 0;
      const std::string text = std::to_string(step);
      EXPECT_EQ(send_text(h[k], h[to], text), h[to] != 0 ? 0 : LIB_ITC_EINVAL);
      if (h[to] != 0) want[to].push_back({LIB_ITC_MSG_DATA, h[k], uint32_t(text.size()), text});
    }
    pump(dm.dm);
    ASSERT_EQ(got, want);
  }
  for (uint32_t &x : h) EXPECT_TRUE(x == 0 || lib_itc_close(&x) == 0);
}

// A server counting its callback's calls, which take nothing, and a client, connected.
struct Pair {
  Pair() {
    EXPECT_EQ(open(&server, "pair", LIB_ITC_SERVER, dm.dm, count, &calls), 0u);
    EXPECT_EQ(open(&client, "pair", LIB_ITC_CLIENT, dm.dm), 0u);
    pump(dm.dm);
    calls = 0;
  }
  ~Pair() {
    for (uint32_t *h : {&client, &server}) EXPECT_TRUE(*h == 0 || lib_itc_close(h) == 0);
  }
  static void count(uint32_t, uint32_t, void *calls) { ++*static_cast<unsigned *>(calls); }
  Dm dm;
  unsigned calls = 0;
  uint32_t server = 0, client = 0;
};

// The default budget and queue (the client's destination ignored), messages the callback does
// not take freed with their bytes, and a length that would wrap the budget.
TEST(ItcPair, BudgetsAndTheQueueLimit) {
  Pair p;
  const long before = fault_live_blocks();
  EXPECT_EQ(send_text(p.client, 0x12345678u, std::string(8192, 'a')), 0);
  EXPECT_EQ(send_text(p.client, 0, "b"), LIB_ITC_ENOSPC);
  EXPECT_EQ(take_event(p.server, LIB_ITC_MSG_DATA),
            (Event{LIB_ITC_MSG_DATA, p.client, 8192, std::string(8192, 'a')}));
  for (int queued = 0; queued < 50; ++queued) ASSERT_EQ(send_text(p.client, 0, "b"), 0);
  EXPECT_EQ(send_text(p.client, 0, ""), KRO_DM_EAGAIN);
  pump(p.dm.dm);
  EXPECT_EQ(p.calls, 50u);
  EXPECT_EQ(fault_live_blocks(), before);
  EXPECT_EQ(send_text(p.client, 0, std::string(8192, 'a')), 0);
  void *m = nullptr;
  ASSERT_EQ(lib_itc_alloc(p.client, 1, &m), 0);
  static_cast<lib_itc_msg_hdr_t *>(m)[-1].length = 0xFFFFFFFFu;
  EXPECT_EQ(lib_itc_send(p.client, 0, m), LIB_ITC_ENOSPC);
  EXPECT_EQ(lib_itc_free(p.client, m), 0);
}

// A sender's reference keeps the record and its emptied queue past the clean-up; dropping it
// frees both.
TEST(ItcInternal, LastReferenceHolderFreesRecordQueueAndMessages) {
  Pair p;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(send_text(p.client, 0, "queued"), 0);
  lib_itc_channel_t *held = nullptr;
  {
    lib_lock lock(lib_itc_channel_mutex);  // as a sender does: lookup and reference under it
    held = lib_itc_slot_record(lib_itc_name_service_get(), p.server);
    ASSERT_NE(held, nullptr);
    lib_itc_channel_ref(held);
  }
  ASSERT_EQ(lib_itc_close(&p.server), 0);
  const long before_cleanup = fault_live_blocks();
  pump(p.dm.dm);
  EXPECT_TRUE(held->closed.load() && held->refs.load() == 1u);
  EXPECT_EQ(fault_live_blocks(), before_cleanup - 2 - 3);  // the timer, a notice, the messages
  void *late = nullptr;
  ASSERT_EQ(lib_itc_alloc(p.client, 4, &late), 0);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(held->queue, late), KRO_DM_ENOTCONN);
  EXPECT_EQ(lib_itc_free(p.client, late), 0);
  lib_itc_channel_unref(held);
  EXPECT_EQ(fault_live_blocks(), before_cleanup - 2 - 3 - 2);
}

// Every allocation of open in turn: a failure gives 16 or 12 and releases what was bound; a
// dropped notification does not fail the open.
TEST(ItcFault, OpenReleasesWhatItBoundWhenAnAllocationFails) {
  Dm dm;
  warm(dm.dm);
  uint32_t server = 0, c1 = 0, lonely = 0, h = 0;
  ASSERT_EQ(open(&server, "s", LIB_ITC_SERVER, dm.dm), 0u);
  ASSERT_EQ(open(&c1, "s", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(open(&lonely, "c", LIB_ITC_CLIENT, dm.dm), 0u);
  pump(dm.dm);
  const struct {
    const char *name;
    int32_t role;
    unsigned allocations;  // entry, slots and storage, or two notifications; record and queue
  } rows[] = {{"fresh", LIB_ITC_SERVER, 5}, {"s", LIB_ITC_CLIENT, 4}, {"c", LIB_ITC_SERVER, 4}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
                uint32_t rc = 0;
                h = 0xabcd;
                {
                  FaultScope fault(n);
                  rc = open(&h, row.name, row.role, dm.dm);
                }
                EXPECT_TRUE(rc == 0 ? lib_itc_close(&h) == 0 : fault_fired() && h == 0xabcdu);
                EXPECT_TRUE(rc == 0 || rc == LIB_ITC_EBUSY || rc == LIB_ITC_ENOMEM) << rc;
                pump(dm.dm);
                return fault_fired();
              }),
              row.allocations);
  }
  ASSERT_EQ(open(&h, "s", LIB_ITC_SERVER, dm.dm), static_cast<uint32_t>(LIB_ITC_EBUSY));
  ASSERT_EQ(open(&h, "c", LIB_ITC_SERVER, dm.dm), 0u);
  for (uint32_t *p : {&h, &lonely, &c1, &server}) EXPECT_EQ(lib_itc_close(p), 0);
}

// A server's close with its client's notice, its clean-up timer or the timer's arming failing (a
// full queue of one still takes the wake), and from its own callback: traced, and cleaned up.
TEST(ItcFault, CloseCleansUpWithoutItsTimer) {
  Dm dm;
  warm(dm.dm);
  ASSERT_EQ(any_module_dt_init(&lib_amdt, "ITC"), 0);
  const lib_itc_attr_t one = {0, 1, 8192};
  uint32_t client = 0, server = 0;
  bool close_in_callback = false;
  Fn on_server = [&](uint32_t, uint32_t) {
    if (!close_in_callback) return;
    FaultScope fault(2);
    EXPECT_EQ(lib_itc_close(&server), 0);
    EXPECT_TRUE(fault_fired());
  };
  ASSERT_EQ(open(&client, "t", LIB_ITC_CLIENT, dm.dm), 0u);
  // The error traced when the arming (0), the notice (1), the timer (2) or nothing fails.
  const char *const expect[3] = {": 22: kro_dm_timer_settime failed\n", ": 12: malloc failed\n",
                                 ": 12: kro_dm_timer_register failed\n"};
  auto close_run = [&](unsigned n) {
    EXPECT_EQ(open(&server, "t", LIB_ITC_SERVER, dm.dm, run_fn, &on_server, &one), 0u);
    pump(dm.dm);
    EXPECT_EQ(send_text(client, 0, "x"), 0);
    kro_probe_journal_start();
    {
      FaultScope fault(n);
      g_settime_fails = n == 0;
      EXPECT_EQ(lib_itc_close(&server), 0);
      g_settime_fails = false;
    }
    kro_probe_journal_stop();
    std::string journal;
    for (size_t i = 0; i < kro_probe_journal_count(); ++i) journal += kro_probe_journal_entry(i);
    EXPECT_EQ(journal.find(n < 3 ? expect[n] : " failed\n") != std::string::npos, n < 3) << journal;
    pump(dm.dm);
  };
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              close_run(n);
              return fault_fired();
            }),
            2u);
  const long before = fault_live_blocks();
  close_run(0);
  EXPECT_EQ(fault_live_blocks(), before);
  close_in_callback = true;
  ASSERT_EQ(open(&server, "t", LIB_ITC_SERVER, dm.dm, run_fn, &on_server, &one), 0u);
  pump(dm.dm);  // the connection event is delivered, and the callback closes
  EXPECT_EQ(server, 0u);
  EXPECT_EQ(fault_live_blocks(), before);
  EXPECT_EQ(lib_itc_close(&client), 0);
}

}  // namespace
