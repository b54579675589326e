// Allocation failures: every allocation of open, close, alloc and the notifications is failed
// in turn; each failure gives its documented result and leaves nothing allocated. The clean-up
// timer's failures show as trace points on lib_amdt and the clean-up still happens.
#include <host/module_dt.h>
#include <kro/probe.h>
#include <zel/itc.h>
#include <zel/trace.h>

#include "itc_test_util.h"
#include "support/capture.h"
#include "support/fault.h"

namespace {

using itc_test::Dm;
using itc_test::pump;
using itc_test::Recorder;
using zel_test::fault_fired;
using zel_test::fault_sweep;
using zel_test::FaultScope;

class ItcFault : public ::testing::Test {
 protected:
  void SetUp() override {
    // The process-wide name service and the manager's timer heap live on: make them first.
    uint32_t h = 0;
    ASSERT_EQ(lib_itc_open(&h, "warm", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &rec),
              0u);
    ASSERT_EQ(lib_itc_close(&h), 0);
    pump(dm.dm);
  }
  uint32_t open(uint32_t *h, const char *name, int32_t role, const lib_itc_attr_t *attr = nullptr) {
    return lib_itc_open(h, name, role, attr, dm.dm, Recorder::callback, &rec);
  }
  // The entries the journal holds for the channels' trace points, in order.
  static std::vector<std::string> itc_traces() {
    std::vector<std::string> out;
    for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
      const std::string e = kro_probe_journal_entry(i);
      if (e.rfind("_kro_dt_log_filter_adv ITC.error", 0) == 0) {
        out.push_back(e.substr(e.find(": ITC: ") + 7));
      }
    }
    return out;
  }

  Dm dm;
  Recorder rec;
};

TEST_F(ItcFault, OpenReleasesWhatItBoundWhenAnAllocationFails) {
  uint32_t server = 0, c1 = 0;
  ASSERT_EQ(open(&server, "s", LIB_ITC_SERVER), 0u);
  ASSERT_EQ(open(&c1, "s", LIB_ITC_CLIENT), 0u);
  pump(dm.dm);
  struct Row {
    const char *what;
    const char *name;
    int32_t role;
    unsigned allocations;  // the open's allocations, notifications included
  };
  // A new name: the entry, its slot array and its storage, the record, the queue. A client of
  // a served name: the record, the queue and two notifications. A server meeting a client: the
  // record, the queue and two notifications.
  const Row rows[] = {
      {"server of a new name", "fresh", LIB_ITC_SERVER, 5},
      {"client of a served name", "s", LIB_ITC_CLIENT, 4},
      {"server meeting a client", "c", LIB_ITC_SERVER, 4},
  };
  uint32_t lonely = 0;
  ASSERT_EQ(open(&lonely, "c", LIB_ITC_CLIENT), 0u);
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    const unsigned runs = fault_sweep([&](unsigned n) {
      uint32_t h = 0xabcd;
      uint32_t rc;
      {
        FaultScope fault(n);
        rc = open(&h, row.name, row.role);
      }
      if (rc != 0) {
        EXPECT_TRUE(fault_fired());
        EXPECT_EQ(h, 0xabcdu);
        // Refused while binding (16), for the record or the queue (12).
        EXPECT_TRUE(rc == LIB_ITC_EBUSY || rc == LIB_ITC_ENOMEM) << rc;
      } else {
        EXPECT_EQ(lib_itc_close(&h), 0);  // a dropped notification does not fail the open
      }
      pump(dm.dm);
      return fault_fired();
    });
    EXPECT_EQ(runs, row.allocations);
  }
  // After all that the names are as before: "fresh" is free, "s" and "c" have their channels.
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "s", LIB_ITC_SERVER), static_cast<uint32_t>(LIB_ITC_EBUSY));
  ASSERT_EQ(open(&h, "c", LIB_ITC_SERVER), 0u);
  ASSERT_EQ(lib_itc_close(&h), 0);
  for (uint32_t *p : {&lonely, &c1, &server}) {
    EXPECT_EQ(lib_itc_close(p), 0);
  }
}

TEST_F(ItcFault, AllocWritesNothingWhenTheBlockCannotBeHad) {
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "a", LIB_ITC_CLIENT), 0u);
  const unsigned runs = fault_sweep([&](unsigned n) {
    void *p = reinterpret_cast<void *>(0x1);
    int rc;
    {
      FaultScope fault(n);
      rc = lib_itc_alloc(h, 100, &p);
    }
    if (fault_fired()) {
      EXPECT_EQ(rc, LIB_ITC_ENOMEM);
      EXPECT_EQ(p, reinterpret_cast<void *>(0x1));
    } else {
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(lib_itc_free(h, p), 0);
    }
    return fault_fired();
  });
  EXPECT_EQ(runs, 1u);
  if (sizeof(void *) == 4) {
    // Header plus payload would pass the end of the address space.
    void *p = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(lib_itc_alloc(h, 0xFFFFFFFFu, &p), LIB_ITC_ENOMEM);
    EXPECT_EQ(p, reinterpret_cast<void *>(0x1));
  }
  EXPECT_EQ(lib_itc_close(&h), 0);
}

TEST_F(ItcFault, CloseTracesTimerFailuresAndStillCleansUp) {
  ASSERT_EQ(any_module_dt_init(&lib_amdt, "ITC"), 0);
  uint32_t server = 0;
  ASSERT_EQ(open(&server, "t", LIB_ITC_SERVER), 0u);
  // A client's close allocates the server's notice, then the timer.
  const unsigned runs = fault_sweep([&](unsigned n) {
    uint32_t h = 0;
    EXPECT_EQ(open(&h, "t", LIB_ITC_CLIENT), 0u);
    pump(dm.dm);
    kro_probe_journal_start();
    int rc;
    std::string out;
    {
      zel_test::StdoutCapture capture;
      {
        FaultScope fault(n);
        rc = lib_itc_close(&h);
      }
      out = capture.take();
    }
    kro_probe_journal_stop();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(h, 0u);
    if (n == 2) {
      const auto traces = itc_traces();
      EXPECT_EQ(traces.size(), 1u);
      const std::string t = traces.empty() ? "" : traces[0];
      EXPECT_EQ(t.rfind("lib_itc_queue_entry_destroy: ", 0), 0u) << t;
      EXPECT_NE(t.find(": 12: kro_dm_timer_register failed\n"), std::string::npos) << t;
      EXPECT_EQ(out, "kro_dm_timer_register failed\n\n");
    } else {
      EXPECT_EQ(itc_traces().size(), 0u);
      EXPECT_EQ(out, "");
    }
    pump(dm.dm);  // the clean-up happens all the same
    return fault_fired();
  });
  EXPECT_EQ(runs, 2u);
  EXPECT_EQ(lib_itc_close(&server), 0);
}

TEST_F(ItcFault, CleanUpWithoutTimerFromInsideTheCallbackAndOnAFullQueue) {
  // A server whose queue holds one message closes without a timer (its close allocates the
  // client's notice, then the timer, which fails): from inside its own callback, and from the
  // test thread while its queue is full, so that the wake message finds no room. The clean-up
  // still happens and nothing stays behind.
  const lib_itc_attr_t one = {0, 1, 8192};
  uint32_t client = 0;
  ASSERT_EQ(open(&client, "full", LIB_ITC_CLIENT), 0u);
  pump(dm.dm);
  for (bool from_callback : {true, false}) {
    SCOPED_TRACE(from_callback);
    const long before = zel_test::fault_live_blocks();
    struct Ctx {
      uint32_t server;
      bool close_in_callback;
    } ctx{0, from_callback};
    auto cb = [](uint32_t, uint32_t, void *cookie) {
      auto *c = static_cast<Ctx *>(cookie);
      if (c->close_in_callback) {
        FaultScope fault(2);
        EXPECT_EQ(lib_itc_close(&c->server), 0);
        EXPECT_TRUE(fault_fired());
      }
    };
    ASSERT_EQ(lib_itc_open(&ctx.server, "full", LIB_ITC_SERVER, &one, dm.dm, cb, &ctx), 0u);
    pump(dm.dm);  // the connection event is delivered (and, from the callback, closes)
    if (!from_callback) {
      ASSERT_EQ(itc_test::send_text(client, 0, "x"), 0);
      FaultScope fault(2);
      EXPECT_EQ(lib_itc_close(&ctx.server), 0);
      EXPECT_TRUE(fault_fired());
    }
    pump(dm.dm);
    EXPECT_EQ(ctx.server, 0u);
    EXPECT_EQ(zel_test::fault_live_blocks(), before);
  }
  EXPECT_EQ(lib_itc_close(&client), 0);
}

}  // namespace
