// Trace points and module switches, observed through the platform stand-in's journal.
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

std::vector<std::string> journal() {
  std::vector<std::string> out;
  for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
    out.emplace_back(kro_probe_journal_entry(i));
  }
  return out;
}

// Sites of their own, so that their function names and lines are known.
int trace_entering() {
  ZEL_TRACE(test_mod, ZEL_TRACE_TRACE, 0, "entering\n");
  return __LINE__ - 1;
}
int trace_bad(int a, const char *b) {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, -7, "bad %d %s\n", a, b);
  return __LINE__ - 1;
}
void trace_text(const char *text) {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, 5, "%s\n", text);
}

// A filtered-log entry is exact but for the site's slot (returned); the thread id leads the
// message.
std::string expect_log(const std::string &entry, const std::string &flag, const std::string &tail) {
  const std::string head = "_kro_dt_log_filter_adv " + flag + " 0 0 0 0 0 slot=";
  EXPECT_EQ(entry.compare(0, head.size(), head), 0) << entry;
  const size_t end = entry.find(' ', head.size());
  EXPECT_EQ(entry.substr(end + 1),
            std::to_string(static_cast<unsigned>(pthread_self())) + ": " + tail);
  return entry.substr(head.size(), end - head.size());
}

TEST(TracePoint, StepsFollowTheFlagAndTheHostAnswers) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  struct Row {
    bool error, on;
    int subtype_check, chk_int;
    std::vector<std::string> calls;  // before the filtered log
  };
  // clang-format off
  const Row rows[] = {
      {false, false, 0, 1, {"kro_dt_flag_enabled TEST-MOD.trace -> 0"}},
      {true, true, 0, 1, {"kro_dt_flag_enabled TEST-MOD.error -> 1",
       "hvlog_hist_event_subtype_check 0x730000 102 -> 0", "hvlog_hist_event 0x730000 15",
       "hvlog_chk_int 102 0 0 1 -> 1", "trcout 1 hvlog_dbg_modname 0 bad 42 x\n\n"}},
      {false, true, 1, 0, {"kro_dt_flag_enabled TEST-MOD.trace -> 1",
       "hvlog_hist_event_subtype_check 0x730000 104 -> 1", "hvlog_chk_int 104 0 0 1 -> 0"}},
  };
  // clang-format on
  std::vector<std::string> slots;  // rows 0 and 2 pass the same site
  for (const Row &row : rows) {
    SCOPED_TRACE(row.calls.front());
    const kro_dt_flag_t flag = row.error ? test_mod.error_flag : test_mod.trace_flag;
    row.on ? kro_dt_flag_enable(flag, "TEST-MOD") : kro_dt_flag_disable(flag, "TEST-MOD");
    host_probe_set_subtype_check(row.subtype_check);
    host_probe_set_chk_int(row.chk_int);
    kro_probe_journal_start();
    zel_test::StdoutCapture out;
    zel_test::fault_arm(0);
    const int line = row.error ? trace_bad(42, "x") : trace_entering();
    EXPECT_EQ(zel_test::fault_allocations(), 0U);
    EXPECT_EQ(out.take(), row.error ? "bad 42 x\n\n" : "entering\n\n");
    const auto j = journal();
    ASSERT_EQ(j.size(), row.calls.size() + 1);
    EXPECT_EQ(std::vector<std::string>(j.begin(), j.end() - 1), row.calls);
    const std::string at = std::to_string(line);
    slots.push_back(expect_log(j.back(), row.error ? "TEST-MOD.error" : "TEST-MOD.trace",
                               row.error ? "TEST-MOD: trace_bad: " + at + ": -7: bad 42 x\n"
                                         : "TEST-MOD: trace_entering: " + at + ": 0: entering\n"));
  }
  EXPECT_TRUE(slots[0] == slots[2] && slots[0] != slots[1]);
  ASSERT_EQ(host_probe_history_count(), 1U);  // the error row's
  unsigned char rec[600];
  uint32_t id = 0, len = 0, subtype = 0;
  ASSERT_EQ(host_probe_history_get(0, &id, &len, rec, sizeof rec), 0);
  EXPECT_EQ(id, ZEL_TRACE_EVENT_ID);
  ASSERT_EQ(len, 15U);  // subtype, "bad 42 x\n\n" and its terminator
  memcpy(&subtype, rec, 4);
  EXPECT_EQ(subtype, ZEL_TRACE_SUBTYPE_ERROR);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(rec) + 4, 11), std::string("bad 42 x\n\n\0", 11));
}

TEST(TracePoint, LongTextIsCutInHistoryOnly) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  zel_test::StdoutCapture out;
  const std::string text(599, 'a');  // 600 characters with its newline
  trace_text(text.c_str());
  EXPECT_EQ(out.take(), text + "\n\n");
  unsigned char rec[600];
  uint32_t len = 0;
  ASSERT_EQ(host_probe_history_get(0, nullptr, &len, rec, sizeof rec), 0);
  EXPECT_EQ(len, 516U);
  EXPECT_EQ(strnlen(reinterpret_cast<char *>(rec) + 4, 512), 511U);
}

TEST(TracePoint, UnregisteredRecordIsOff) {
  test_mod = {};
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  const int line = trace_bad(1, "y");
  EXPECT_EQ(out.take(), "bad 1 y\n\n");
  const auto j = journal();
  ASSERT_EQ(j.size(), 2U);
  EXPECT_EQ(j[0], "kro_dt_flag_enabled (none) -> 0");
  expect_log(j[1], "(none)", "(null): trace_bad: " + std::to_string(line) + ": -7: bad 1 y\n");
}

TEST(TraceSwitch, BothFlagsAreWrittenTraceFirst) {
  static_assert(sizeof(any_module_dt_t) == 5 * sizeof(void *) &&
                offsetof(any_module_dt_t, trace_flag) == 2 * sizeof(void *) &&
                offsetof(any_module_dt_t, error_flag) == 3 * sizeof(void *));
  zel_cfg_string_dt_init_once();
  zel_ipc_reg_init_once();
  EXPECT_STREQ(zel_conf_str_amdt.name, "ZEL-CFG-STR");
  struct Module {
    void (*set)(unsigned);
    std::string name;
  };
  const Module modules[] = {{zel_cfg_string_dbg_set, "ZEL-CFG-STR"},
                            {zel_ipc_reg_dbg_set, "ZEL-IPC-REG-MGR"}};
  for (const Module &m : modules) {
    for (unsigned mask : {0U, 1U, 2U, 3U, 4U, 7U}) {
      SCOPED_TRACE(m.name + " mask " + std::to_string(mask));
      kro_probe_journal_start();
      m.set(mask);
      const auto op = [&](unsigned bit) {
        return std::string("kro_dt_flag_") + ((mask & bit) != 0 ? "enable " : "disable ") + m.name;
      };
      EXPECT_EQ(journal(),
                (std::vector<std::string>{op(1) + ".trace " + m.name, op(2) + ".error " + m.name}));
    }
  }
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
