// Trace points, observed through the platform stand-in's journal.
#include <gtest/gtest.h>
#include <host/probe.h>
#include <kro/probe.h>
#include <zel/trace.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

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

// The calls journalled since the start, each ending in "|"; the log's "<slot> <thread>" cut out.
std::string journal(std::string &slot) {
  std::string all;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) all += e + std::string("|");
  const size_t at = all.find(" slot=") + 6, end = all.find(": ", at);
  slot = all.substr(at, end - at);
  kro_probe_journal_start();
  return all.erase(at, end - at);
}

// Each pass echoes and ends in the filtered log (one slot per site, shared by threads); only an
// error with both host answers "yes" reaches the history, whose copy is cut to 511 characters.
TEST(TracePoint, StepsFormatsHistoryCutAndThreadsSharingTheSlot) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  kro_dt_flag_enable(test_mod.trace_flag, "TEST-MOD");
  const std::string text(592, 'a');  // 600 characters with "bad 5 " and the newline
  std::string slots[3];
  host_probe_set_chk_int(1);
  zel_test::StdoutCapture out;
  kro_probe_journal_start();
  zel_test::fault_arm(0);
  int line = trace_bad(42, "x");
  EXPECT_EQ(journal(slots[0]),
            "kro_dt_flag_enabled TEST-MOD.error -> 1|hvlog_hist_event_subtype_check 0x730000 102 "
            "-> 0|hvlog_hist_event 0x730000 15|hvlog_chk_int 102 0 0 1 -> 1|trcout 1 "
            "hvlog_dbg_modname 0 bad 42 x\n\n|_kro_dt_log_filter_adv TEST-MOD.error 0 0 0 0 0 "
            "slot=: TEST-MOD: trace_bad: " +
                std::to_string(line) + ": -7: bad 42 x\n|");
  trace_bad(5, text.c_str());
  journal(slots[1]);
  host_probe_set_subtype_check(1);
  host_probe_set_chk_int(0);
  line = trace_entering();
  EXPECT_EQ(journal(slots[2]),
            "kro_dt_flag_enabled TEST-MOD.trace -> 1|hvlog_hist_event_subtype_check 0x730000 104 "
            "-> 1|hvlog_chk_int 104 0 0 1 -> 0|_kro_dt_log_filter_adv TEST-MOD.trace 0 0 0 0 0 "
            "slot=: TEST-MOD: trace_entering: " +
                std::to_string(line) + ": 0: entering\n|");
  EXPECT_EQ(zel_test::fault_allocations(), 0U);
  EXPECT_EQ(out.take(), "bad 42 x\n\nbad 5 " + text + "\n\nentering\n\n");
  EXPECT_TRUE(slots[0] == slots[1] && slots[0] != slots[2]);
  char rec[600];
  uint32_t id = 0, len = 0, subtype = ZEL_TRACE_SUBTYPE_ERROR;
  ASSERT_EQ(host_probe_history_get(0, &id, &len, rec, sizeof rec), 0);
  EXPECT_TRUE(id == ZEL_TRACE_EVENT_ID && memcmp(rec, &subtype, 4) == 0);
  EXPECT_EQ(std::string(rec + 4, len - 4), std::string("bad 42 x\n\n", 11));
  ASSERT_EQ(host_probe_history_get(1, nullptr, &len, rec, sizeof rec), 0);
  EXPECT_EQ(std::tuple(len, strnlen(rec + 4, 512)), std::tuple(516U, 511U));
  // Threads share the slot: at most KRO_DT_LOG_RATE entries a second (or two windows) pass.
  static std::atomic<unsigned> written{0};
  kro_dt_log_set_sink([](const char *, size_t, void *) { written.fetch_add(1); }, nullptr);
  {
    const auto pass = [] {
      for (int i = 0; i < 100; ++i) trace_bad(i, "t");
    };
    std::jthread a(pass), b(pass), c(pass), d(pass);
  }
  EXPECT_EQ(std::ranges::count(out.take(), '\n'), 800);  // "bad i t\n\n" 400 times
  EXPECT_TRUE(written.load() >= 1U && written.load() <= 2 * KRO_DT_LOG_RATE) << written.load();
}

}  // namespace
