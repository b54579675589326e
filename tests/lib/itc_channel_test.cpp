// Channels: a model of one name, budgets, the current and pending message, the record's
// reference count, and allocation failures of open, alloc and close.
#include <host/module_dt.h>
#include <kro/probe.h>
#include <zel/trace.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <random>

#include "lib/itc_test_util.h"
#include "lib/itc_internal.h"
#include "support/capture.h"
#include "support/fault.h"

// The public records' layout, fixed on both word sizes.
static_assert(sizeof(lib_itc_attr_t) == 12 && offsetof(lib_itc_attr_t, queue_len) == 4 &&
              offsetof(lib_itc_attr_t, max_bytes) == 8);
static_assert(offsetof(lib_itc_msg_hdr_t, type) == sizeof(void *) &&
              offsetof(lib_itc_msg_hdr_t, length) == sizeof(void *) + 8 &&
              sizeof(lib_itc_msg_hdr_t) == (sizeof(void *) == 4 ? 16 : 24));

namespace {  // the clean-up timer's arming, failed on demand
std::atomic<bool> g_settime_fails{false};
}  // namespace
extern "C" int __real_kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *t, const kro_dm_time_t *v);
extern "C" int __wrap_kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *t,
                                           const kro_dm_time_t *v) {
  return g_settime_fails ? KRO_DM_EINVAL : __real_kro_dm_timer_settime(dm, t, v);
}

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers
using zel_test::fault_fired;
using zel_test::fault_live_blocks;
using zel_test::FaultScope;

// Random opens, closes and sends of a server and four clients of one name against what each
// must have been told (waiting clients in slot order), a second server refused, and the name's
// id kept while any channel holds it and renewed once the last has gone.
TEST(ItcNotify, RandomOpensClosesAndSendsMatchTheModel) {
  Dm dm;
  std::mt19937 rng(7);
  Events got[5], want[5];  // [0]: the server, [1..4]: the clients
  uint32_t h[5] = {}, bound_id = 0, released_id = 0;
  for (int step = 0; step < 2000; ++step) {
    const unsigned k = rng() % 5, op = rng() % 3;  // open, close or send
    SCOPED_TRACE("step " + std::to_string(step) + ", channel " + std::to_string(k));
    std::vector<unsigned> peers;  // the other side's open channels
    for (unsigned c = 0; c < 5; ++c) {
      if (h[c] != 0 && (c == 0) != (k == 0)) {
        peers.push_back(c);
      }
    }
    std::sort(peers.begin(), peers.end(), [&](unsigned x, unsigned y) { return h[x] < h[y]; });
    const int32_t role = k == 0 ? LIB_ITC_SERVER : LIB_ITC_CLIENT;
    if (op == 0 && h[k] != 0 && k == 0) {
      uint32_t again = 77;
      EXPECT_EQ(open(&again, "m", role, dm.dm, record, &got[0]), uint32_t{LIB_ITC_EBUSY});
      EXPECT_EQ(again, 77u);
    } else if (op == 0 && h[k] == 0) {
      const bool none_open = std::count(h, h + 5, 0u) == 5;
      ASSERT_EQ(open(&h[k], "m", role, dm.dm, record, &got[k]), 0u);
      EXPECT_TRUE(none_open ? id_of(h[k]) != released_id : id_of(h[k]) == bound_id);
      EXPECT_EQ(k == 0, (h[k] & 0xFFFFu) == 0);
      bound_id = id_of(h[k]);
      for (unsigned c : peers) {
        want[0].push_back(came(h[k == 0 ? c : k]));
        want[k == 0 ? c : k].push_back(connected);
      }
    } else if (op == 1 && h[k] != 0) {
      for (unsigned c : peers) {
        want[k == 0 ? c : 0].push_back(k == 0 ? disconnect : left(h[k]));
      }
      ASSERT_EQ(lib_itc_close(&h[k]), 0);
      released_id = std::count(h, h + 5, 0u) == 5 ? bound_id : released_id;
    } else if (op == 2 && h[k] != 0) {
      const unsigned to = k == 0 ? 1 + rng() % 4 : 0;
      const std::string text = std::to_string(step);
      EXPECT_EQ(send_text(h[k], h[to], text), h[to] != 0 ? 0 : LIB_ITC_EINVAL);
      if (h[to] != 0) {
        want[to].push_back({LIB_ITC_MSG_DATA, h[k], static_cast<uint32_t>(text.size()), text});
      }
    }
    pump(dm.dm);
    for (unsigned c = 0; c < 5; ++c) {
      ASSERT_EQ(got[c], want[c]) << "channel " << c;
    }
  }
  for (uint32_t &x : h) {
    EXPECT_TRUE(x == 0 || lib_itc_close(&x) == 0);
  }
}

// A server and a client, connected; the server's callback counts its calls and runs `fn`.
struct Pair {
  explicit Pair(const lib_itc_attr_t *attr = nullptr) {
    EXPECT_EQ(open(&server, "pair", LIB_ITC_SERVER, dm.dm, run_fn, &on_server, attr), 0u);
    EXPECT_EQ(open(&client, "pair", LIB_ITC_CLIENT, dm.dm, record, &client_events), 0u);
    pump(dm.dm);
    calls = 0;
  }
  ~Pair() {
    for (uint32_t *h : {&late, &client, &server}) {
      EXPECT_TRUE(*h == 0 || lib_itc_close(h) == 0);
    }
  }
  void open_late() { ASSERT_EQ(open(&late, "pair", LIB_ITC_CLIENT, dm.dm), 0u); }

  Dm dm;
  Fn fn;
  unsigned calls = 0;
  Fn on_server = [this](uint32_t h, uint32_t type) {
    ++calls;
    if (fn) {
      fn(h, type);
    }
  };
  Events client_events;
  uint32_t server = 0, client = 0, late = 0;
};

// The default budget and queue (the client's destination ignored), messages the callback does
// not take freed with their bytes, a budget from the attributes, and a length that would wrap.
TEST(ItcPair, BudgetsAndTheQueueLimit) {
  {
    Pair p;
    const long before = fault_live_blocks();
    EXPECT_EQ(send_text(p.client, 0x12345678u, std::string(8192, 'a')), 0);
    EXPECT_EQ(send_text(p.client, 0, "b"), LIB_ITC_ENOSPC);
    EXPECT_EQ(send_text(p.client, 0, ""), 0);
    Event first = take_event(p.server, LIB_ITC_MSG_DATA);
    EXPECT_EQ(first, (Event{LIB_ITC_MSG_DATA, p.client, 8192, std::string(8192, 'a')}));
    for (int queued = 1; queued < 50; ++queued) {
      ASSERT_EQ(send_text(p.client, 0, queued == 1 ? "b" : ""), 0) << queued;
    }
    EXPECT_EQ(send_text(p.client, 0, ""), KRO_DM_EAGAIN);
    pump(p.dm.dm);
    EXPECT_EQ(p.calls, 50u);
    EXPECT_EQ(fault_live_blocks(), before);
    EXPECT_EQ(send_text(p.client, 0, std::string(8192, 'a')), 0);
  }
  const lib_itc_attr_t attr = {0, 4, 10};
  Pair p(&attr);
  EXPECT_EQ(send_text(p.client, 0, std::string(10, 'a')), 0);
  EXPECT_EQ(send_text(p.client, 0, "b"), LIB_ITC_ENOSPC);
  void *m = make_msg(p.client, "c");
  ASSERT_NE(m, nullptr);
  static_cast<lib_itc_msg_hdr_t *>(m)[-1].length = 0xFFFFFFFFu;
  EXPECT_EQ(lib_itc_send(p.client, 0, m), LIB_ITC_ENOSPC);
  EXPECT_EQ(lib_itc_free(p.client, m), 0);
}

// A receive meeting a connection event sets it aside (11), outside the callback for good; the
// callback gets it next. A callback's second receive takes the next data message.
TEST(ItcPair, ReceiveMeetingAConnectionEventSetsItAside) {
  Pair p;
  p.open_late();
  for (const char *t : {"d1", "d2", "d3"}) {
    ASSERT_EQ(send_text(p.client, 0, t), 0);
  }
  ASSERT_EQ(lib_itc_close(&p.late), 0);  // the queue: came, d1, d2, d3, left, d4
  ASSERT_EQ(send_text(p.client, 0, "d4"), 0);
  uint32_t ev = 5, who = 0, len = 0;
  void *m = nullptr;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(lib_itc_receive(p.server, &who, &m, &len), LIB_ITC_EAGAIN);
  }
  EXPECT_EQ(lib_itc_get_connection_event(p.server, &ev, &who), LIB_ITC_EAGAIN);
  EXPECT_EQ(ev, 0u);
  std::vector<std::string> log;
  p.fn = [&](uint32_t h, uint32_t type) {
    for (int i = 0; i < 2 && type == LIB_ITC_MSG_DATA; ++i) {
      const int rc = lib_itc_receive(h, &who, &m, &len);
      log.push_back(rc != 0 ? "rc " + std::to_string(rc)
                            : std::string(static_cast<char *>(m), len));
      EXPECT_TRUE(rc != 0 || lib_itc_free(h, m) == 0);
    }
    if (type == LIB_ITC_MSG_CONNECT) {
      log.push_back(take_event(h, type).a == LIB_ITC_MSG_CONNECT ? "came" : "left");
    }
  };
  pump(p.dm.dm);
  EXPECT_EQ(log,
            (std::vector<std::string>{"came", "d1", "d2", "d3", "rc 11", "left", "d4", "rc 42"}));
  EXPECT_EQ(p.calls, 5u);
  EXPECT_EQ(lib_itc_receive(p.server, &who, &m, &len), KRO_DM_ENOMSG);
}

// A refused message stays the sender's. A callback closing its own channel stops delivery at
// once: the messages still queued are freed with the channel, and the client is told.
TEST(ItcPair, RefusalsAndACallbackClosingItsChannel) {
  Pair p;
  p.open_late();
  const uint32_t gone = p.late;
  ASSERT_EQ(lib_itc_close(&p.late), 0);
  EXPECT_EQ(send_text(p.server, gone, "x"), LIB_ITC_EINVAL);
  pump(p.dm.dm);
  p.calls = 0;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send_text(p.client, 0, "queued"), 0);
  }
  p.fn = [&](uint32_t, uint32_t) { EXPECT_EQ(lib_itc_close(&p.server), 0); };
  pump(p.dm.dm);
  EXPECT_EQ(p.calls, 1u);
  EXPECT_EQ(p.server, 0u);
  EXPECT_EQ(p.client_events.back(), disconnect);
}

// A sender's reference keeps the record and its emptied queue past the clean-up; dropping it
// frees both.
TEST(ItcInternal, LastReferenceHolderFreesRecordQueueAndMessages) {
  Pair p;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send_text(p.client, 0, "queued"), 0);
  }
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
  EXPECT_TRUE(held->closed.load());
  EXPECT_EQ(held->refs.load(), 1u);
  // The timer, the client's notice and the three messages went; the record and queue stay.
  EXPECT_EQ(fault_live_blocks(), before_cleanup - 2 - 3);
  void *late = make_msg(p.client, "late");
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
    const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
      uint32_t rc = 0;
      h = 0xabcd;
      {
        FaultScope fault(n);
        rc = open(&h, row.name, row.role, dm.dm);
      }
      if (rc != 0) {
        EXPECT_TRUE(fault_fired() && h == 0xabcdu);
        EXPECT_TRUE(rc == LIB_ITC_EBUSY || rc == LIB_ITC_ENOMEM) << rc;
      } else {
        EXPECT_EQ(lib_itc_close(&h), 0);
      }
      pump(dm.dm);
      return fault_fired();
    });
    EXPECT_EQ(runs, row.allocations);
  }
  ASSERT_EQ(open(&h, "s", LIB_ITC_SERVER, dm.dm), static_cast<uint32_t>(LIB_ITC_EBUSY));
  ASSERT_EQ(open(&h, "c", LIB_ITC_SERVER, dm.dm), 0u);
  for (uint32_t *p : {&h, &lonely, &c1, &server}) {
    EXPECT_EQ(lib_itc_close(p), 0);
  }
}

// A server's close with its client's notice or its clean-up timer failing, the timer's arming
// failing (a full queue of one still takes the wake message), and from its own callback: an
// error trace on "ITC" and a printed line, and the clean-up happens all the same.
TEST(ItcFault, CloseCleansUpWithoutItsTimer) {
  Dm dm;
  warm(dm.dm);
  ASSERT_EQ(any_module_dt_init(&lib_amdt, "ITC"), 0);
  const lib_itc_attr_t one = {0, 1, 8192};
  uint32_t client = 0, server = 0;
  bool close_in_callback = false;
  Fn on_server = [&](uint32_t, uint32_t) {
    if (close_in_callback) {
      FaultScope fault(2);
      EXPECT_EQ(lib_itc_close(&server), 0);
      EXPECT_TRUE(fault_fired());
    }
  };
  ASSERT_EQ(open(&client, "t", LIB_ITC_CLIENT, dm.dm), 0u);
  // What is traced and printed when the arming (0), the notice (1), the timer (2) or none fails.
  const char *const expect[4][2] = {
      {"lib_itc_queue_entry_destroy: ", "22: kro_dm_timer_settime failed\n"},
      {"lib_itc_post_msg: ", "12: malloc failed\n"},
      {"lib_itc_queue_entry_destroy: ", "12: kro_dm_timer_register failed\n"},
      {"", ""}};
  auto close_run = [&](unsigned n) {
    EXPECT_EQ(open(&server, "t", LIB_ITC_SERVER, dm.dm, run_fn, &on_server, &one), 0u);
    pump(dm.dm);
    EXPECT_EQ(send_text(client, 0, "x"), 0);
    kro_probe_journal_start();
    zel_test::StdoutCapture capture;
    {
      FaultScope fault(n);
      g_settime_fails = n == 0;
      EXPECT_EQ(lib_itc_close(&server), 0);
      g_settime_fails = false;
    }
    kro_probe_journal_stop();
    const std::string out = capture.take(), function = expect[std::min(n, 3u)][0],
                      message = expect[std::min(n, 3u)][1];
    std::string traces;
    for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
      const std::string e = kro_probe_journal_entry(i);
      if (e.rfind("_kro_dt_log_filter_adv ITC.error", 0) == 0) {
        traces += e.substr(e.find(": ITC: ") + 7);
      }
    }
    EXPECT_TRUE(function.empty() ? traces.empty() : traces.rfind(function, 0) == 0) << traces;
    EXPECT_EQ(traces.find(": " + message) != std::string::npos, !message.empty()) << traces;
    EXPECT_EQ(out, message.empty() ? "" : message.substr(4) + "\n");
    pump(dm.dm);
  };
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    close_run(n);
    return fault_fired();
  });
  EXPECT_EQ(runs, 2u);
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
