// Trace points, observed through the platform stand-in's journal. (The module switches are
// covered by the bad-input tables.)
#include <gtest/gtest.h>
#include <host/probe.h>
#include <kro/probe.h>
#include <zel/trace.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"
#include "trace/trace_point.h"

namespace {

any_module_dt_t test_mod;

// Sites of their own, so that their function names and lines are known.
int trace_entering() {
  ZEL_TRACE(test_mod, ZEL_TRACE_TRACE, 0, "entering\n");
  return __LINE__ - 1;
}
int trace_bad(int a, const char *b) {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, -7, "bad %d %s\n", a, b);
  return __LINE__ - 1;
}

// Each row passes a site of a record never registered (its flag reads as off), or of TEST-MOD
// with the level's flag on or off and the host's answers given. Every pass echoes and ends in
// the filtered log (one slot per site); only an error with both answers "yes" reaches the
// history, whose copy is cut to 511 characters.
TEST(TracePoint, StepsFormatsAndTheHistoryCut) {
  struct Row {
    bool registered, error, on;
    int subtype_check, chk_int;
    std::vector<std::string> calls;  // before the filtered log
  };
  // clang-format off
  const Row rows[] = {
      {false, true, false, 0, 1, {"kro_dt_flag_enabled (none) -> 0"}},
      {true, false, false, 0, 1, {"kro_dt_flag_enabled TEST-MOD.trace -> 0"}},
      {true, true, true, 0, 1, {"kro_dt_flag_enabled TEST-MOD.error -> 1",
       "hvlog_hist_event_subtype_check 0x730000 102 -> 0", "hvlog_hist_event 0x730000 15",
       "hvlog_chk_int 102 0 0 1 -> 1", "trcout 1 hvlog_dbg_modname 0 bad 42 x\n\n"}},
      {true, false, true, 1, 0, {"kro_dt_flag_enabled TEST-MOD.trace -> 1",
       "hvlog_hist_event_subtype_check 0x730000 104 -> 1", "hvlog_chk_int 104 0 0 1 -> 0"}},
  };
  // clang-format on
  std::vector<std::string> slots;  // one site passed by rows 0 and 2, another by rows 1 and 3
  for (const Row &row : rows) {
    SCOPED_TRACE(row.calls.front());
    if (row.registered && test_mod.name == nullptr) {
      ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
    }
    const kro_dt_flag_t flag = row.error ? test_mod.error_flag : test_mod.trace_flag;
    if (row.registered) {
      row.on ? kro_dt_flag_enable(flag, "TEST-MOD") : kro_dt_flag_disable(flag, "TEST-MOD");
    }
    host_probe_set_subtype_check(row.subtype_check);
    host_probe_set_chk_int(row.chk_int);
    kro_probe_journal_start();
    zel_test::StdoutCapture out;
    zel_test::fault_arm(0);
    const int line = row.error ? trace_bad(42, "x") : trace_entering();
    EXPECT_EQ(zel_test::fault_allocations(), 0U);
    EXPECT_EQ(out.take(), row.error ? "bad 42 x\n\n" : "entering\n\n");
    std::vector<std::string> j;
    for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) j.emplace_back(e);
    ASSERT_EQ(j.size(), row.calls.size() + 1);
    EXPECT_EQ(std::vector<std::string>(j.begin(), j.end() - 1), row.calls);
    const std::string module = row.registered ? "TEST-MOD" : "(null)",
                      flag_name =
                          row.registered ? module + (row.error ? ".error" : ".trace") : "(none)",
                      head = "_kro_dt_log_filter_adv " + flag_name + " 0 0 0 0 0 slot=";
    const size_t end = j.back().find(' ', head.size());
    EXPECT_EQ(j.back().substr(0, head.size()), head);
    slots.push_back(j.back().substr(head.size(), end - head.size()));
    EXPECT_EQ(j.back().substr(end + 1),
              std::to_string(static_cast<unsigned>(pthread_self())) + ": " + module +
                  (row.error ? ": trace_bad: " : ": trace_entering: ") + std::to_string(line) +
                  (row.error ? ": -7: bad 42 x\n" : ": 0: entering\n"));
  }
  EXPECT_TRUE(slots[0] == slots[2] && slots[1] == slots[3] && slots[0] != slots[1]);
  ASSERT_EQ(host_probe_history_count(), 1U);  // row 2's
  unsigned char rec[600];
  uint32_t id = 0, len = 0, subtype = 0;
  ASSERT_EQ(host_probe_history_get(0, &id, &len, rec, sizeof rec), 0);
  memcpy(&subtype, rec, 4);
  EXPECT_EQ(std::tuple(id, len, subtype),
            std::tuple(ZEL_TRACE_EVENT_ID, 15U, ZEL_TRACE_SUBTYPE_ERROR));
  EXPECT_EQ(std::string(reinterpret_cast<char *>(rec) + 4, 11), std::string("bad 42 x\n\n\0", 11));
  const std::string text(599, 'a');  // 600 characters with the newline
  host_probe_set_subtype_check(0);
  zel_test::StdoutCapture out;
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, 5, "%s\n", text.c_str());
  EXPECT_EQ(out.take(), text + "\n\n");
  ASSERT_EQ(host_probe_history_get(1, nullptr, &len, rec, sizeof rec), 0);
  EXPECT_EQ(std::tuple(len, strnlen(reinterpret_cast<char *>(rec) + 4, 512)),
            std::tuple(516U, 511U));
}

// Threads share one site's log slot: every pass echoes, and the slot's rate limit lets at
// most KRO_DT_LOG_RATE entries a second through (two windows when a boundary falls inside).
TEST(TraceThreads, ConcurrentPassesShareTheSlot) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  static std::atomic<unsigned> written{0};
  kro_dt_log_set_sink([](const char *, size_t, void *) { written.fetch_add(1); }, nullptr);
  zel_test::StdoutCapture out;
  std::vector<std::thread> pool;
  for (int t = 0; t < 4; ++t) {
    pool.emplace_back([] {
      for (int i = 0; i < 100; ++i) trace_bad(i, "t");
    });
  }
  for (auto &th : pool) th.join();
  const std::string text = out.take();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 800);  // "bad i t\n\n" 400 times
  kro_dt_log_set_sink(nullptr, nullptr);
  EXPECT_GE(written.load(), 1U);
  EXPECT_LE(written.load(), 2 * KRO_DT_LOG_RATE);
}

}  // namespace
