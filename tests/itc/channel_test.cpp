// Channels: the connection events of each arrangement of clients and servers (every channel on
// a dispatch manager run by a thread of its own), budgets and the queue's limit, the rules of
// the message being delivered (current) and the message set aside (pending), and allocation
// failures of open and alloc.
#include <host/module_dt.h>
#include <kro/probe.h>
#include <zel/itc.h>
#include <zel/trace.h>

#include <atomic>
#include <cstddef>
#include <functional>

#include "itc_test_util.h"
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
using zel_test::FaultScope;

constexpr uint32_t id_of(uint32_t h) {
  return h >> 16;
}

// One channel with its own thread and recorder.
struct Party {
  Recorder rec;  // outlives the loop that calls it
  Loop loop;
  uint32_t handle = 0;
  uint32_t open(int32_t role) {
    return lib_itc_open(&handle, "name", role, nullptr, loop.dm(), Recorder::callback, &rec);
  }
  // Stops the thread and delivers on the test thread whatever is still queued, so that the
  // recorded events are complete.
  std::vector<Event> settle() {
    loop.stop();
    pump(loop.dm());
    return rec.events();
  }
};

TEST(ItcNotify, ClientBeforeServerHearsOnlyWhenTheServerOpens) {
  Party client, server;
  ASSERT_EQ(client.open(LIB_ITC_CLIENT), 0u);
  EXPECT_EQ(send_text(client.handle, 0, "x"), LIB_ITC_EINVAL);  // no server yet
  ASSERT_EQ(server.open(LIB_ITC_SERVER), 0u);
  EXPECT_EQ(id_of(server.handle), id_of(client.handle));
  uint32_t second = 77;
  EXPECT_EQ(lib_itc_open(&second, "name", LIB_ITC_SERVER, nullptr, server.loop.dm(),
                         Recorder::callback, &server.rec),
            static_cast<uint32_t>(LIB_ITC_EBUSY));
  EXPECT_EQ(second, 77u);
  ASSERT_TRUE(server.rec.wait_for(1));
  EXPECT_EQ(server.rec.last_thread(), server.loop.id());  // on the channel's own thread
  EXPECT_EQ(server.settle(), std::vector<Event>{came(client.handle)});
  EXPECT_EQ(client.settle(), std::vector<Event>{connected});
  EXPECT_EQ(lib_itc_close(&client.handle), 0);
  EXPECT_EQ(lib_itc_close(&server.handle), 0);
}

TEST(ItcNotify, ServerOpeningTellsTheClientsOfSlots1And3InSlotOrder) {
  Party c1, c2, c3, server;
  for (Party *c : {&c1, &c2, &c3}) {
    ASSERT_EQ(c->open(LIB_ITC_CLIENT), 0u);
  }
  EXPECT_EQ(c3.handle & 0xFFFFu, 3u);
  ASSERT_EQ(lib_itc_close(&c2.handle), 0);  // no server: nothing posted
  ASSERT_EQ(server.open(LIB_ITC_SERVER), 0u);
  ASSERT_TRUE(server.rec.wait_for(2));
  EXPECT_EQ(server.settle(), (std::vector<Event>{came(c1.handle), came(c3.handle)}));
  EXPECT_EQ(c1.settle(), std::vector<Event>{connected});
  EXPECT_EQ(c2.settle(), std::vector<Event>{});
  EXPECT_EQ(c3.settle(), std::vector<Event>{connected});
  for (Party *p : {&c1, &c3, &server}) {
    EXPECT_EQ(lib_itc_close(&p->handle), 0);
  }
}

TEST(ItcNotify, ClientsLeavingAndServerLeavingThatKeepsTheNameForThem) {
  Party server, c1, c2, c3;
  ASSERT_EQ(server.open(LIB_ITC_SERVER), 0u);
  for (Party *c : {&c1, &c2, &c3}) {
    ASSERT_EQ(c->open(LIB_ITC_CLIENT), 0u);
  }
  const uint32_t first = server.handle, gone = c3.handle;
  ASSERT_TRUE(c3.rec.wait_for(1));  // what a closed channel has not been given is dropped
  ASSERT_EQ(lib_itc_close(&c3.handle), 0);
  ASSERT_TRUE(server.rec.wait_for(4));
  ASSERT_EQ(lib_itc_close(&server.handle), 0);
  ASSERT_TRUE(c1.rec.wait_for(2) && c2.rec.wait_for(2));
  // A new server gets the same id and slot 0, and meets the clients that stayed.
  Party again;
  ASSERT_EQ(again.open(LIB_ITC_SERVER), 0u);
  EXPECT_EQ(again.handle, first);
  ASSERT_TRUE(again.rec.wait_for(2));
  EXPECT_EQ(server.settle(),
            (std::vector<Event>{came(c1.handle), came(c2.handle), came(gone), left(gone)}));
  EXPECT_EQ(again.settle(), (std::vector<Event>{came(c1.handle), came(c2.handle)}));
  EXPECT_EQ(c3.settle(), std::vector<Event>{connected});
  for (Party *c : {&c1, &c2}) {
    EXPECT_EQ(c->settle(), (std::vector<Event>{connected, disconnect, connected}));
    EXPECT_EQ(lib_itc_close(&c->handle), 0);
  }
  EXPECT_EQ(lib_itc_close(&again.handle), 0);
}

// A name released with its last channel is bound again with a new id; a client left alone
// keeps the name, and the next server finds the same id.
TEST(ItcNotify, NameReleasedWithItsLastChannelIsReopenedWithANewId) {
  Party a, b, c, d;
  ASSERT_EQ(a.open(LIB_ITC_SERVER), 0u);
  const uint32_t first = a.handle;
  ASSERT_EQ(lib_itc_close(&a.handle), 0);
  ASSERT_EQ(b.open(LIB_ITC_SERVER), 0u);
  EXPECT_EQ(b.handle, first + 0x10000u);
  ASSERT_EQ(c.open(LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(lib_itc_close(&b.handle), 0);
  ASSERT_EQ(d.open(LIB_ITC_SERVER), 0u);
  EXPECT_EQ(d.handle, first + 0x10000u);
  ASSERT_TRUE(d.rec.wait_for(1));
  EXPECT_EQ(d.settle(), std::vector<Event>{came(c.handle)});
  EXPECT_EQ(lib_itc_close(&c.handle), 0);
  EXPECT_EQ(lib_itc_close(&d.handle), 0);
}

// A callback that runs whatever the test gives it, and counts its calls.
struct Script {
  std::function<void(uint32_t, uint32_t)> fn;
  unsigned calls = 0;
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<Script *>(cookie);
    ++s->calls;
    if (s->fn) {
      s->fn(handle, type);
    }
  }
};

// A server (with `attr`) and a client on one name, both on the test thread's manager, with the
// connection notifications already delivered.
class ItcPair : public ::testing::Test {
 protected:
  void open(const lib_itc_attr_t *attr = nullptr) {
    ASSERT_EQ(lib_itc_open(&server, "pair", LIB_ITC_SERVER, attr, dm.dm, Script::callback, &script),
              0u);
    ASSERT_EQ(lib_itc_open(&client, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback,
                           &client_rec),
              0u);
    pump(dm.dm);
    script.calls = 0;
  }
  void SetUp() override { open(); }
  void TearDown() override {
    for (uint32_t *h : {&late, &client, &server}) {
      EXPECT_TRUE(*h == 0 || lib_itc_close(h) == 0);
    }
  }
  // Opens a second client, which queues a connection event at the server.
  void open_late() {
    ASSERT_EQ(
        lib_itc_open(&late, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &late_rec),
        0u);
  }

  Dm dm;
  Script script;
  Recorder client_rec, late_rec;
  uint32_t server = 0, client = 0, late = 0;
};

// 8192 bytes are accepted, one more byte is refused with 28 until a receive gives the bytes
// back; an empty message always fits, and the client's destination is ignored. The queue then
// refuses its 51st message with its own code.
TEST_F(ItcPair, DefaultsTake8192BytesAnd50Messages) {
  EXPECT_EQ(send_text(client, 0x12345678u, std::string(8192, 'a')), 0);
  EXPECT_EQ(send_text(client, 0, "b"), LIB_ITC_ENOSPC);
  EXPECT_EQ(send_text(client, 0, ""), 0);
  uint32_t sender = 0, len = 0;
  void *p = nullptr;
  ASSERT_EQ(lib_itc_receive(server, &sender, &p, &len), 0);
  EXPECT_EQ(sender, client);
  EXPECT_EQ(std::string(static_cast<char *>(p), len), std::string(8192, 'a'));
  EXPECT_EQ(lib_itc_free(server, p), 0);
  EXPECT_EQ(send_text(client, 0, "b"), 0);
  for (int queued = 2; queued < 50; ++queued) {
    ASSERT_EQ(send_text(client, 0, ""), 0) << queued;
  }
  EXPECT_EQ(send_text(client, 0, ""), KRO_DM_EAGAIN);
  pump(dm.dm);
  EXPECT_EQ(script.calls, 50u);
}

// A budget from the attributes; a header claiming nearly 4 GiB must not slip through by
// wrapping the sum.
TEST_F(ItcPair, AttributesSetTheBudgetAndSumsDoNotWrap) {
  ASSERT_EQ(lib_itc_close(&client), 0);
  ASSERT_EQ(lib_itc_close(&server), 0);
  const lib_itc_attr_t attr = {0, 4, 10};
  open(&attr);
  EXPECT_EQ(send_text(client, 0, std::string(10, 'a')), 0);
  EXPECT_EQ(send_text(client, 0, "b"), LIB_ITC_ENOSPC);
  void *p = make_msg(client, "c");
  ASSERT_NE(p, nullptr);
  static_cast<lib_itc_msg_hdr_t *>(p)[-1].length = 0xFFFFFFFFu;
  EXPECT_EQ(lib_itc_send(client, 0, p), LIB_ITC_ENOSPC);
  EXPECT_EQ(lib_itc_free(client, p), 0);
}

// A message the callback does not take is freed after it and gives its bytes back.
TEST_F(ItcPair, IgnoredMessageIsFreedAndGivesItsBytesBack) {
  const long before = zel_test::fault_live_blocks();
  EXPECT_EQ(send_text(client, 0, std::string(8192, 'a')), 0);
  pump(dm.dm);
  EXPECT_EQ(script.calls, 1u);
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  EXPECT_EQ(send_text(client, 0, std::string(8192, 'a')), 0);
}

// Outside the callback, a receive meeting a connection event sets it aside (11) and the event
// cannot be read either; the callback then gets the event, and the data after it.
TEST_F(ItcPair, ReceiveMeetingAConnectionEventSetsItAsideUntilTheCallbackHasIt) {
  open_late();
  ASSERT_EQ(send_text(client, 0, "d"), 0);
  uint32_t ev = 5, who = 0, len = 0;
  void *p = nullptr;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(lib_itc_receive(server, &who, &p, &len), LIB_ITC_EAGAIN);
  }
  EXPECT_EQ(lib_itc_get_connection_event(server, &ev, &who), LIB_ITC_EAGAIN);
  EXPECT_EQ(ev, 0u);
  std::vector<Event> seen;
  script.fn = [&](uint32_t h, uint32_t type) { seen.push_back(take_event(h, type)); };
  pump(dm.dm);
  EXPECT_EQ(seen, (std::vector<Event>{came(late), {LIB_ITC_MSG_DATA, client, 1, "d"}}));
  EXPECT_EQ(lib_itc_receive(server, &who, &p, &len), KRO_DM_ENOMSG);
}

TEST_F(ItcPair, TwoReceivesInOneCallback) {
  for (const char *t : {"d1", "d2", "d3"}) {
    ASSERT_EQ(send_text(client, 0, t), 0);
  }
  open_late();  // the queue at the server: d1, d2, d3, a connection event, d4
  ASSERT_EQ(send_text(client, 0, "d4"), 0);
  std::vector<std::string> log;
  script.fn = [&](uint32_t h, uint32_t type) {
    if (type == LIB_ITC_MSG_CONNECT) {
      take_event(h, type);
      log.push_back("event");
      return;
    }
    for (int i = 0; i < 2; ++i) {
      uint32_t sender = 0, len = 0;
      void *p = nullptr;
      const int rc = lib_itc_receive(h, &sender, &p, &len);
      log.push_back(rc != 0 ? "rc " + std::to_string(rc)
                            : std::string(static_cast<char *>(p), len));
      EXPECT_TRUE(rc != 0 || lib_itc_free(h, p) == 0);
    }
  };
  pump(dm.dm);
  // d1's callback takes d1, then d2 straight from the queue; d3's takes d3 and meets the event,
  // which is delivered right after; d4 comes last and finds the queue empty.
  EXPECT_EQ(log, (std::vector<std::string>{"d1", "d2", "d3", "rc 11", "event", "d4", "rc 42"}));
  EXPECT_EQ(script.calls, 4u);
}

// A server sends to a client of its own name only; a connection event is not a message to send
// or free. A refused message stays the sender's.
TEST_F(ItcPair, SendRefusalsLeaveTheMessageWithTheSender) {
  open_late();
  const uint32_t gone = late;
  ASSERT_EQ(lib_itc_close(&late), 0);
  for (uint32_t to : {0u, server + 0x10000u, gone, server | 7u}) {
    void *p = make_msg(server, "x");
    EXPECT_EQ(lib_itc_send(server, to, p), LIB_ITC_EINVAL) << to;
    EXPECT_EQ(lib_itc_free(server, p), 0);
  }
  lib_itc_msg_hdr_t notice[2] = {{nullptr, LIB_ITC_MSG_CONNECT, 0, 0}, {}};
  EXPECT_EQ(lib_itc_send(client, 0, &notice[1]), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_free(client, &notice[1]), LIB_ITC_EINVAL);
}

// A callback closing its own channel stops delivery at once: the messages still queued are
// freed with the channel, and the client is told.
TEST_F(ItcPair, CallbackClosingItsChannelStopsDelivery) {
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send_text(client, 0, "queued"), 0);
  }
  script.fn = [&](uint32_t, uint32_t) { EXPECT_EQ(lib_itc_close(&server), 0); };
  pump(dm.dm);
  EXPECT_EQ(script.calls, 1u);
  EXPECT_EQ(server, 0u);
  EXPECT_EQ(client_rec.events().back(), disconnect);
}

// Fault injection. The process-wide name service and the manager's timer heap live on: they are
// made first.
class ItcFault : public ::testing::Test {
 protected:
  void SetUp() override {
    uint32_t h = 0;
    ASSERT_EQ(open(&h, "warm", LIB_ITC_SERVER), 0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
    pump(dm.dm);
  }
  uint32_t open(uint32_t *h, const char *name, int32_t role) {
    return lib_itc_open(h, name, role, nullptr, dm.dm, Recorder::callback, &rec);
  }
  Dm dm;
  Recorder rec;
};

// Every allocation of open in turn, notifications included: a failure while binding gives 16,
// one for the record or the queue 12, and what was bound is released; a dropped notification
// does not fail the open.
TEST_F(ItcFault, OpenReleasesWhatItBoundWhenAnAllocationFails) {
  uint32_t server = 0, c1 = 0, lonely = 0;
  ASSERT_EQ(open(&server, "s", LIB_ITC_SERVER), 0u);
  ASSERT_EQ(open(&c1, "s", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(open(&lonely, "c", LIB_ITC_CLIENT), 0u);
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
      uint32_t h = 0xabcd, rc;
      {
        FaultScope fault(n);
        rc = open(&h, row.name, row.role);
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
  uint32_t h = 0;  // the names are as before: "s" and "c" have their channels
  ASSERT_EQ(open(&h, "s", LIB_ITC_SERVER), static_cast<uint32_t>(LIB_ITC_EBUSY));
  ASSERT_EQ(open(&h, "c", LIB_ITC_SERVER), 0u);
  for (uint32_t *p : {&h, &lonely, &c1, &server}) {
    EXPECT_EQ(lib_itc_close(p), 0);
  }
}

TEST_F(ItcFault, AllocWritesNothingWhenTheBlockCannotBeHad) {
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "a", LIB_ITC_CLIENT), 0u);
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    void *p = nullptr;
    int rc;
    {
      FaultScope fault(n);
      rc = lib_itc_alloc(h, 100, &p);
    }
    EXPECT_EQ(rc, fault_fired() ? LIB_ITC_ENOMEM : 0);
    EXPECT_TRUE(fault_fired() ? p == nullptr : lib_itc_free(h, p) == 0);
    return fault_fired();
  });
  EXPECT_EQ(runs, 1u);
  // Header plus payload would pass the end of a 32-bit address space.
  void *p = nullptr;
  if (sizeof(void *) == 4) {
    EXPECT_EQ(lib_itc_alloc(h, 0xFFFFFFFFu, &p), LIB_ITC_ENOMEM);
    EXPECT_EQ(p, nullptr);
  }
  EXPECT_EQ(lib_itc_close(&h), 0);
}

// A server's close allocates its client's notice, then the clean-up timer: every failure in
// turn, with one message in a queue of one (the wake message still finds room: the queue's
// limit holds data messages only); then a close without the timer from inside the server's own
// callback. A lost notice and a failed timer are error traces on the module "ITC"; the clean-up
// happens all the same, nothing stays behind.
TEST_F(ItcFault, CloseCleansUpWithoutItsTimer) {
  ASSERT_EQ(any_module_dt_init(&lib_amdt, "ITC"), 0);
  const lib_itc_attr_t one = {0, 1, 8192};
  uint32_t client = 0;
  ASSERT_EQ(open(&client, "t", LIB_ITC_CLIENT), 0u);
  struct Ctx {
    uint32_t server;
    bool close_in_callback;
  } ctx{0, false};
  auto cb = [](uint32_t, uint32_t, void *cookie) {
    auto *c = static_cast<Ctx *>(cookie);
    if (c->close_in_callback) {
      FaultScope fault(2);
      EXPECT_EQ(lib_itc_close(&c->server), 0);
      EXPECT_TRUE(fault_fired());
    }
  };
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    EXPECT_EQ(lib_itc_open(&ctx.server, "t", LIB_ITC_SERVER, &one, dm.dm, cb, &ctx), 0u);
    pump(dm.dm);
    EXPECT_EQ(send_text(client, 0, "x"), 0);
    kro_probe_journal_start();
    std::string out;
    {
      zel_test::StdoutCapture capture;
      {
        FaultScope fault(n);
        EXPECT_EQ(lib_itc_close(&ctx.server), 0);
      }
      out = capture.take();
    }
    kro_probe_journal_stop();
    std::string traces;
    for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
      const std::string e = kro_probe_journal_entry(i);
      if (e.rfind("_kro_dt_log_filter_adv ITC.error", 0) == 0) {
        traces += e.substr(e.find(": ITC: ") + 7);
      }
    }
    // n == 1: the client's notice; n == 2: the timer.
    const std::string function = n == 1   ? "lib_itc_post_msg: "
                                 : n == 2 ? "lib_itc_queue_entry_destroy: "
                                          : "";
    const std::string message = n == 1   ? "malloc failed\n"
                                : n == 2 ? "kro_dm_timer_register failed\n"
                                         : "";
    EXPECT_TRUE(function.empty() ? traces.empty() : traces.rfind(function, 0) == 0) << traces;
    EXPECT_EQ(traces.find(": 12: " + message) != std::string::npos, !message.empty());
    EXPECT_EQ(out, message.empty() ? "" : message + "\n");
    pump(dm.dm);
    return fault_fired();
  });
  EXPECT_EQ(runs, 2u);
  const long before = zel_test::fault_live_blocks();
  // A timer that cannot be armed is deleted, and the queue carries the clean-up instead.
  ASSERT_EQ(lib_itc_open(&ctx.server, "t", LIB_ITC_SERVER, &one, dm.dm, cb, &ctx), 0u);
  pump(dm.dm);
  EXPECT_EQ(send_text(client, 0, "x"), 0);
  {
    zel_test::StdoutCapture capture;
    g_settime_fails = true;
    EXPECT_EQ(lib_itc_close(&ctx.server), 0);
    g_settime_fails = false;
    EXPECT_EQ(capture.take(), "kro_dm_timer_settime failed\n\n");
  }
  pump(dm.dm);
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  ctx.close_in_callback = true;
  ASSERT_EQ(lib_itc_open(&ctx.server, "t", LIB_ITC_SERVER, &one, dm.dm, cb, &ctx), 0u);
  pump(dm.dm);  // the connection event is delivered, and the callback closes
  EXPECT_EQ(ctx.server, 0u);
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  EXPECT_EQ(lib_itc_close(&client), 0);
}

}  // namespace
