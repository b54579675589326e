// Channels: connection events and ids against a model of one name, budgets and the queue's
// limit, the rules of the message being delivered (current) and the message set aside
// (pending), refusals, the record's reference count, and allocation failures of open, alloc and
// close.
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

// The clean-up timer's arming, failed on demand (linked with --wrap=kro_dm_timer_settime).
namespace {
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

// Random opens, closes and sends of a server and four clients of one name, each step delivered
// at once, against what each channel must have been told: a client hears of its server when
// either opens, and of its leaving; the server hears of each client's coming (the ones already
// waiting in slot order) and leaving. A second server is refused; a client's data reaches the
// server only while it is open, and the server's reaches the client it names. A name keeps its
// id while any channel holds it, and gets a new one once the last has gone.
TEST(ItcNotify, RandomOpensClosesAndSendsMatchTheModel) {
  Dm dm;
  std::mt19937 rng(7);
  Events got[5], want[5];  // [0]: the server, [1..4]: the clients
  uint32_t h[5] = {}, bound_id = 0, released_id = 0;
  for (int step = 0; step < 2000; ++step) {
    const unsigned k = rng() % 5, op = rng() % 3;  // open, close or send
    SCOPED_TRACE("step " + std::to_string(step) + ", channel " + std::to_string(k));
    std::vector<unsigned> peers;  // the open channels of the other side, in slot order
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

// A server (with `attr`) and a client on one name, both on the test thread's manager, with the
// connection notifications already delivered. The server's callback counts its calls and runs
// `fn` if set (else it takes nothing).
struct Pair {
  explicit Pair(const lib_itc_attr_t *attr = nullptr, const char *name = "pair") {
    EXPECT_EQ(open(&server, name, LIB_ITC_SERVER, dm.dm, run_fn, &on_server, attr), 0u);
    EXPECT_EQ(open(&client, name, LIB_ITC_CLIENT, dm.dm, record, &client_events), 0u);
    pump(dm.dm);
    calls = 0;
  }
  ~Pair() {
    for (uint32_t *h : {&late, &client, &server}) {
      EXPECT_TRUE(*h == 0 || lib_itc_close(h) == 0);
    }
  }
  // Opens a second client, which queues a connection event at the server.
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

// 8192 bytes are accepted, one more byte is refused with 28 until a receive gives the bytes
// back; an empty message always fits, and the client's destination is ignored. The queue then
// refuses its 51st message with its own code. The messages the callback does not take are
// freed after it and give their bytes back. A budget from the attributes; a header claiming
// nearly 4 GiB must not slip through by wrapping the sum.
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

// Outside the callback, a receive meeting a connection event sets it aside (11) and the event
// cannot be read either; the callback then gets the event, and the data after it.
TEST(ItcPair, ReceiveMeetingAConnectionEventSetsItAsideUntilTheCallbackHasIt) {
  Pair p;
  p.open_late();
  ASSERT_EQ(send_text(p.client, 0, "d"), 0);
  uint32_t ev = 5, who = 0, len = 0;
  void *m = nullptr;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(lib_itc_receive(p.server, &who, &m, &len), LIB_ITC_EAGAIN);
  }
  EXPECT_EQ(lib_itc_get_connection_event(p.server, &ev, &who), LIB_ITC_EAGAIN);
  EXPECT_EQ(ev, 0u);
  Events seen;
  p.fn = [&](uint32_t h, uint32_t type) { seen.push_back(take_event(h, type)); };
  pump(p.dm.dm);
  EXPECT_EQ(seen, (Events{came(p.late), {LIB_ITC_MSG_DATA, p.client, 1, "d"}}));
  EXPECT_EQ(lib_itc_receive(p.server, &who, &m, &len), KRO_DM_ENOMSG);
}

// d1's callback takes d1, then d2 straight from the queue; d3's takes d3 and meets the event,
// which is delivered right after; d4 comes last and finds the queue empty.
TEST(ItcPair, TwoReceivesInOneCallback) {
  Pair p;
  for (const char *t : {"d1", "d2", "d3"}) {
    ASSERT_EQ(send_text(p.client, 0, t), 0);
  }
  p.open_late();  // the queue at the server: d1, d2, d3, a connection event, d4
  ASSERT_EQ(send_text(p.client, 0, "d4"), 0);
  std::vector<std::string> log;
  p.fn = [&](uint32_t h, uint32_t type) {
    for (int i = 0; i < 2 && type == LIB_ITC_MSG_DATA; ++i) {
      uint32_t sender = 0, len = 0;
      void *m = nullptr;
      const int rc = lib_itc_receive(h, &sender, &m, &len);
      log.push_back(rc != 0 ? "rc " + std::to_string(rc)
                            : std::string(static_cast<char *>(m), len));
      EXPECT_TRUE(rc != 0 || lib_itc_free(h, m) == 0);
    }
    if (type == LIB_ITC_MSG_CONNECT) {
      log.push_back(take_event(h, type) == came(p.late) ? "event" : "wrong event");
    }
  };
  pump(p.dm.dm);
  EXPECT_EQ(log, (std::vector<std::string>{"d1", "d2", "d3", "rc 11", "event", "d4", "rc 42"}));
  EXPECT_EQ(p.calls, 4u);
}

// A server sends to a client of its own name only; a connection event is not a message to send
// or free. A refused message stays the sender's. A callback closing its own channel stops
// delivery at once: the messages still queued are freed with the channel, and the client is
// told.
TEST(ItcPair, RefusalsAndACallbackClosingItsChannel) {
  Pair p;
  p.open_late();
  const uint32_t gone = p.late;
  ASSERT_EQ(lib_itc_close(&p.late), 0);
  for (uint32_t to : {0u, p.server + 0x10000u, gone, p.server | 7u}) {
    EXPECT_EQ(send_text(p.server, to, "x"), LIB_ITC_EINVAL) << to;
  }
  lib_itc_msg_hdr_t notice[2] = {{nullptr, LIB_ITC_MSG_CONNECT, 0, 0}, {}};
  EXPECT_EQ(lib_itc_send(p.client, 0, &notice[1]), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_free(p.client, &notice[1]), LIB_ITC_EINVAL);
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

// A sender holding a reference when the clean-up runs keeps the record and its (emptied) queue;
// dropping the last reference frees both, on the dropping thread.
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
  pump(p.dm.dm);  // the clean-up: queue deregistered, the channel's own reference gone
  EXPECT_TRUE(held->closed.load());
  EXPECT_EQ(held->refs.load(), 1u);
  // The clean-up timer, the client's disconnect notice and the three queued messages went; the
  // record and its queue are still there for the late sender, whose enqueue is refused.
  EXPECT_EQ(fault_live_blocks(), before_cleanup - 2 - 3);
  void *late = make_msg(p.client, "late");
  EXPECT_EQ(kro_dm_watched_queue_enqueue(held->queue, late), KRO_DM_ENOTCONN);
  EXPECT_EQ(lib_itc_free(p.client, late), 0);
  lib_itc_channel_unref(held);
  EXPECT_EQ(fault_live_blocks(), before_cleanup - 2 - 3 - 2);
}

// Every allocation of open in turn, notifications included: a failure while binding gives 16,
// one for the record or the queue 12, and what was bound is released; a dropped notification
// does not fail the open. The process-wide name service and the manager's timer heap live on:
// they are made first.
TEST(ItcFault, OpenReleasesWhatItBoundWhenAnAllocationFails) {
  Dm dm;
  warm(dm.dm);
  uint32_t server = 0, c1 = 0, lonely = 0, h = 0;
  ASSERT_EQ(open(&server, "s", LIB_ITC_SERVER, dm.dm), 0u);
  ASSERT_EQ(open(&c1, "s", LIB_ITC_CLIENT, dm.dm), 0u);
  ASSERT_EQ(open(&lonely, "c", LIB_ITC_CLIENT, dm.dm), 0u);
  pump(dm.dm);
  const struct {
    const char *what, *name;
    int32_t role;
    unsigned allocations;
  } rows[] = {
      // The name's entry, its slot array and its storage, the record, the queue.
      {"server of a new name", "fresh", LIB_ITC_SERVER, 5},
      // The record, the queue and two notifications.
      {"client of a served name", "s", LIB_ITC_CLIENT, 4},
      {"server meeting a client", "c", LIB_ITC_SERVER, 4},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
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
  // The names are as before: "s" and "c" have their channels.
  ASSERT_EQ(open(&h, "s", LIB_ITC_SERVER, dm.dm), static_cast<uint32_t>(LIB_ITC_EBUSY));
  ASSERT_EQ(open(&h, "c", LIB_ITC_SERVER, dm.dm), 0u);
  for (uint32_t *p : {&h, &lonely, &c1, &server}) {
    EXPECT_EQ(lib_itc_close(p), 0);
  }
}

// An alloc that cannot have its block writes nothing; header plus payload past the end of a
// 32-bit address space is refused.
TEST(ItcFault, AllocWritesNothingWhenTheBlockCannotBeHad) {
  Dm dm;
  warm(dm.dm);
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "a", LIB_ITC_CLIENT, dm.dm), 0u);
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    void *p = nullptr;
    int rc = 0;
    {
      FaultScope fault(n);
      rc = lib_itc_alloc(h, 100, &p);
    }
    EXPECT_EQ(rc, fault_fired() ? LIB_ITC_ENOMEM : 0);
    EXPECT_TRUE(fault_fired() ? p == nullptr : lib_itc_free(h, p) == 0);
    return fault_fired();
  });
  EXPECT_EQ(runs, 1u);
  void *p = nullptr;
  if (sizeof(void *) == 4) {
    EXPECT_EQ(lib_itc_alloc(h, 0xFFFFFFFFu, &p), LIB_ITC_ENOMEM);
    EXPECT_EQ(p, nullptr);
  }
  EXPECT_EQ(lib_itc_close(&h), 0);
}

// A server's close allocates its client's notice, then the clean-up timer: every failure in
// turn, with one message in a queue of one (the wake message still finds room: the queue's
// limit holds data messages only); then a timer that cannot be armed, and a close without the
// timer from inside the server's own callback. A lost notice and a failed timer are error
// traces on the module "ITC"; the clean-up happens all the same, nothing stays behind.
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
  // What a close prints and traces with the timer's arming failed (n == 0), the client's notice
  // failed (1), the timer failed (2), and with nothing failed.
  const char *const expect[4][2] = {
      {"lib_itc_queue_entry_destroy: ", "22: kro_dm_timer_settime failed\n"},
      {"lib_itc_post_msg: ", "12: malloc failed\n"},
      {"lib_itc_queue_entry_destroy: ", "12: kro_dm_timer_register failed\n"},
      {"", ""}};
  // Opens the server, queues a message at it and closes it with fault `n` (0: the arming).
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
  // A timer that cannot be armed is deleted, and the queue carries the clean-up instead.
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
