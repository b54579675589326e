// Trace points and module switches, observed through the platform stand-in's journal.
#include <gtest/gtest.h>
#include <host/probe.h>
#include <kro/probe.h>
#include <zel/trace.h>

#include <cstring>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"
#include "trace/trace_point.h"

namespace {

std::vector<std::string> journal() {
  std::vector<std::string> out;
  for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
    out.emplace_back(kro_probe_journal_entry(i));
  }
  return out;
}

bool starts_with(const std::string &s, const std::string &prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

size_t count_prefix(const std::vector<std::string> &j, const std::string &prefix) {
  size_t n = 0;
  for (const auto &e : j) {
    n += starts_with(e, prefix) ? 1 : 0;
  }
  return n;
}

any_module_dt_t test_mod;

// Sites of their own, so their function names and lines are known.
int trace_entering() {
  ZEL_TRACE(test_mod, ZEL_TRACE_TRACE, 0, "entering\n");
  return __LINE__ - 1;
}

int trace_error_with_args(int a, const char *b) {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, -7, "bad %d %s\n", a, b);
  return __LINE__ - 1;
}

void trace_long(const char *text) {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, 5, "%s\n", text);
}

void trace_same_text_twice() {
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, 1, "same\n");
  ZEL_TRACE(test_mod, ZEL_TRACE_ERROR, 2, "same\n");
}

class TracePoint : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
    host_probe_history_clear();
    kro_probe_journal_start();
  }
  void TearDown() override { kro_probe_journal_stop(); }
};

TEST_F(TracePoint, FlagOffEchoesAndLogsOnly) {
  kro_dt_flag_disable(test_mod.trace_flag, "TEST-MOD");
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  const int line = trace_entering();
  EXPECT_EQ(out.take(), "entering\n\n");
  const auto j = journal();
  ASSERT_EQ(j.size(), 2U);
  EXPECT_EQ(j[0], "kro_dt_flag_enabled TEST-MOD.trace -> 0");
  char slot_text[64];
  const std::string expected_tail =
      ": TEST-MOD: trace_entering: " + std::to_string(line) + ": 0: entering\n";
  EXPECT_TRUE(starts_with(j[1], "_kro_dt_log_filter_adv TEST-MOD.trace 0 0 0 0 0 slot=")) << j[1];
  EXPECT_NE(j[1].find(expected_tail), std::string::npos) << j[1];
  // The thread id comes first, unsigned.
  const size_t id_at = j[1].find(' ', j[1].find("slot=")) + 1;
  snprintf(slot_text, sizeof slot_text, "%u: ", static_cast<unsigned>(pthread_self()));
  EXPECT_EQ(j[1].compare(id_at, strlen(slot_text), slot_text), 0) << j[1];
  EXPECT_EQ(host_probe_history_count(), 0U);
}

TEST_F(TracePoint, FlagOnWritesHistoryAndDebugPrintInOrder) {
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  host_probe_set_chk_int(1);
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  const int line = trace_error_with_args(42, "x");
  EXPECT_EQ(out.take(), "bad 42 x\n\n");
  const auto j = journal();
  ASSERT_EQ(j.size(), 6U);
  EXPECT_EQ(j[0], "kro_dt_flag_enabled TEST-MOD.error -> 1");
  EXPECT_EQ(j[1], "hvlog_hist_event_subtype_check 0x730000 102 -> 0");
  EXPECT_EQ(j[2], "hvlog_hist_event 0x730000 15");  // 4 + strlen("bad 42 x\n\n") + 1
  EXPECT_EQ(j[3], "hvlog_chk_int 102 0 0 1 -> 1");
  EXPECT_EQ(j[4], "trcout 1 hvlog_dbg_modname 0 bad 42 x\n\n");
  EXPECT_NE(
      j[5].find(": TEST-MOD: trace_error_with_args: " + std::to_string(line) + ": -7: bad 42 x\n"),
      std::string::npos)
      << j[5];

  unsigned char rec[600];
  uint32_t id = 0;
  uint32_t len = 0;
  ASSERT_EQ(host_probe_history_get(0, &id, &len, rec, sizeof rec), 0);
  EXPECT_EQ(id, ZEL_TRACE_EVENT_ID);
  ASSERT_EQ(len, 15U);
  uint32_t subtype = 0;
  memcpy(&subtype, rec, 4);
  EXPECT_EQ(subtype, ZEL_TRACE_SUBTYPE_ERROR);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(rec) + 4, 11), std::string("bad 42 x\n\n\0", 11));
}

TEST_F(TracePoint, SkippedHistoryStillAsksDebugPrint) {
  kro_dt_flag_enable(test_mod.trace_flag, "TEST-MOD");
  host_probe_set_subtype_check(1);
  host_probe_set_chk_int(1);
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  trace_entering();
  const auto j = journal();
  EXPECT_EQ(count_prefix(j, "hvlog_hist_event 0x"), 0U);
  EXPECT_EQ(count_prefix(j, "hvlog_chk_int 104 0 0 1"), 1U);
  EXPECT_EQ(count_prefix(j, "trcout 1 hvlog_dbg_modname 0 entering\n\n"), 1U);
  EXPECT_EQ(host_probe_history_count(), 0U);
}

TEST_F(TracePoint, LongMessageIsCutInHistoryOnly) {
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  const std::string text(599, 'a');  // formats to 600 characters with its newline
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  trace_long(text.c_str());
  EXPECT_EQ(out.take(), text + "\n\n");
  unsigned char rec[600];
  uint32_t len = 0;
  ASSERT_EQ(host_probe_history_get(0, nullptr, &len, rec, sizeof rec), 0);
  EXPECT_EQ(len, 516U);
  EXPECT_EQ(strnlen(reinterpret_cast<char *>(rec) + 4, 512), 511U);
}

TEST_F(TracePoint, EachSiteHasItsOwnSlot) {
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  trace_same_text_twice();
  trace_same_text_twice();
  std::vector<std::string> slots;
  for (const auto &e : journal()) {
    if (starts_with(e, "_kro_dt_log_filter_adv")) {
      const size_t at = e.find("slot=");
      slots.push_back(e.substr(at, e.find(' ', at) - at));
    }
  }
  ASSERT_EQ(slots.size(), 4U);
  EXPECT_NE(slots[0], slots[1]);
  EXPECT_EQ(slots[0], slots[2]);
  EXPECT_EQ(slots[1], slots[3]);
}

TEST(TraceUnregistered, AllZeroRecordDoesNotFail) {
  any_module_dt_t saved = test_mod;
  memset(&test_mod, 0, sizeof test_mod);
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  trace_error_with_args(1, "y");
  EXPECT_EQ(out.take(), "bad 1 y\n\n");
  const auto j = journal();
  ASSERT_EQ(j.size(), 2U);
  EXPECT_EQ(j[0], "kro_dt_flag_enabled (none) -> 0");
  kro_probe_journal_stop();
  test_mod = saved;
}

TEST(TracePointMemory, AllocatesNothing) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  host_probe_set_chk_int(1);
  zel_test::StdoutCapture out;
  zel_test::fault_arm(0);
  trace_error_with_args(3, "z");
  EXPECT_EQ(zel_test::fault_allocations(), 0U);
}

struct SwitchCase {
  unsigned mask;
  const char *trace_op;
  const char *error_op;
};

TEST(TraceSwitch, BothFlagsWrittenTraceFirst) {
  zel_cfg_string_dt_init_once();
  zel_ipc_reg_init_once();
  const SwitchCase cases[] = {
      {0, "disable", "disable"}, {1, "enable", "disable"},  {2, "disable", "enable"},
      {3, "enable", "enable"},   {4, "disable", "disable"}, {7, "enable", "enable"},
  };
  struct Module {
    void (*set)(unsigned);
    const any_module_dt_t *rec;
    const char *name;
  };
  const Module modules[] = {{zel_cfg_string_dbg_set, &zel_conf_str_amdt, "ZEL-CFG-STR"},
                            {zel_ipc_reg_dbg_set, &zel_ipc_reg_mgr_amdt, "ZEL-IPC-REG-MGR"}};
  for (const Module &m : modules) {
    for (const SwitchCase &c : cases) {
      SCOPED_TRACE(std::string(m.name) + " mask " + std::to_string(c.mask));
      kro_probe_journal_start();
      m.set(c.mask);
      const auto j = journal();
      ASSERT_EQ(j.size(), 2U);
      EXPECT_EQ(j[0], std::string("kro_dt_flag_") + c.trace_op + " " + m.name + ".trace " + m.name);
      EXPECT_EQ(j[1], std::string("kro_dt_flag_") + c.error_op + " " + m.name + ".error " + m.name);
      EXPECT_EQ(kro_dt_flag_enabled(m.rec->trace_flag) != 0, (c.mask & 1U) != 0);
      EXPECT_EQ(kro_dt_flag_enabled(m.rec->error_flag) != 0, (c.mask & 2U) != 0);
    }
  }
  kro_probe_journal_stop();
}

TEST(TraceRecords, StartAllZeroAndRegisterWithTheirNames) {
  const any_module_dt_t zero{};
  EXPECT_EQ(memcmp(&lib_amdt, &zero, sizeof zero), 0);
  EXPECT_EQ(memcmp(&zel_conf_str_amdt, &zero, sizeof zero), 0);
  zel_cfg_string_dt_init_once();
  EXPECT_STREQ(zel_conf_str_amdt.name, "ZEL-CFG-STR");
  EXPECT_EQ(host_probe_registrations("ZEL-CFG-STR"), 1U);
  static_assert(sizeof(any_module_dt_t) == 5 * sizeof(void *), "five pointer-sized words");
  static_assert(offsetof(any_module_dt_t, trace_flag) == 2 * sizeof(void *));
  static_assert(offsetof(any_module_dt_t, error_flag) == 3 * sizeof(void *));
}

// Threads share one site's log slot; the filtered log's rate limit lets at most
// KRO_DT_LOG_RATE entries per second through for that site, and every pass echoes.
TEST(TraceThreads, ConcurrentSitesShareOnlyTheSlot) {
  ASSERT_EQ(any_module_dt_init(&test_mod, "TEST-MOD"), 0);
  kro_dt_flag_enable(test_mod.error_flag, "TEST-MOD");
  static std::atomic<unsigned> written{0};
  kro_dt_log_set_sink([](const char *, size_t, void *) { written.fetch_add(1); }, nullptr);
  constexpr int threads = 4;
  constexpr int per_thread = 100;
  {
    zel_test::StdoutCapture out;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
      pool.emplace_back([] {
        for (int i = 0; i < per_thread; ++i) {
          trace_error_with_args(i, "t");
        }
      });
    }
    for (auto &th : pool) {
      th.join();
    }
    const std::string text = out.take();
    size_t lines = 0;
    for (size_t at = text.find("bad "); at != std::string::npos; at = text.find("bad ", at + 1)) {
      ++lines;
    }
    EXPECT_EQ(lines, static_cast<size_t>(threads * per_thread));
  }
  kro_dt_log_set_sink(nullptr, nullptr);
  // A second boundary may fall inside the run: at most two windows' worth.
  EXPECT_GE(written.load(), 1U);
  EXPECT_LE(written.load(), 2 * KRO_DT_LOG_RATE);
}

}  // namespace
