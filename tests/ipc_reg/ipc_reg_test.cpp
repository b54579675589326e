// The registry through its public operations: set-up, registrations and their limits, lookups,
// equal keys, what a user sees on standard output, and the trace points in the journal.
#include <host/probe.h>
#include <kro/probe.h>
#include <pthread.h>
#include <zel/ipc_reg.h>

#include <cctype>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <string>

#include "ipc_reg/ipc_reg_support.h"
#include "support/capture.h"

namespace {

using IpcRegistry = zel_test::RegistryTest;
using zel_test::StdoutCapture;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(zel_ipc_reg_top_t) == 12 && offsetof(zel_ipc_reg_top_t, inited) == 8);
static_assert(sizeof(zel_ipc_reg_t) == 124 && offsetof(zel_ipc_reg_t, id) == 8);
static_assert(offsetof(zel_ipc_reg_t, name) == 12 && offsetof(zel_ipc_reg_t, data) == 116);
static_assert(offsetof(zel_ipc_reg_t, reserved) == 120);
#else
static_assert(sizeof(zel_ipc_reg_top_t) == 24 && offsetof(zel_ipc_reg_top_t, inited) == 16);
static_assert(sizeof(zel_ipc_reg_t) == 136 && offsetof(zel_ipc_reg_t, id) == 16);
static_assert(offsetof(zel_ipc_reg_t, name) == 20 && offsetof(zel_ipc_reg_t, data) == 124);
static_assert(offsetof(zel_ipc_reg_t, reserved) == 128);
#endif
static_assert(offsetof(zel_ipc_reg_t, link) == 0 && sizeof(zel_ipc_reg_t::name) == 101);

const std::string k_name100(100, 'n');

TEST(IpcRegMgr, RegistersTheModuleOnceBeforeTheFirstTrace) {
  kro_probe_journal_start();
  zel_ipc_reg_top_t a{}, b{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&a), ZEL_IPC_REG_OK);
  ASSERT_EQ(zel_ipc_reg_mgr_init(&b), ZEL_IPC_REG_OK);
  const auto all = zel_test::journal();
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.front(), "any_module_dt_init " ZEL_IPC_REG_MODULE_NAME);
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  EXPECT_EQ(zel_test::journal("any_module_dt_init").size(), 1u);
  EXPECT_EQ(a.inited, 1u);
  EXPECT_NE(a.set, b.set);
  zel_ipc_reg_mgr_cleanup(&a);
  zel_ipc_reg_mgr_cleanup(&b);
  EXPECT_EQ(a.set, nullptr);
  EXPECT_EQ(a.map, nullptr);
  EXPECT_EQ(a.inited, 1u);
}

TEST(IpcRegMgr, NullTopRecord) {
  StdoutCapture out;
  EXPECT_EQ(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL);
  EXPECT_EQ(out.take(), "entering\n\nipc reg top cannot be null\n\n");
  zel_ipc_reg_mgr_cleanup(nullptr);
  EXPECT_EQ(out.take(), "entering\n\nipc reg top cannot be null\n\n");
}

TEST(IpcRegMgr, InitTracesTheTableCreation) {
  zel_ipc_reg_top_t top{};
  StdoutCapture out;
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  EXPECT_EQ(out.take(), "entering\n\nhashset create\n\nhashmap create\n\n");
  zel_ipc_reg_mgr_cleanup(&top);
  EXPECT_EQ(out.take(), "entering\n\n");
}

// A registry set up again after its cleanup starts empty.
TEST(IpcRegMgr, InitAfterCleanupStartsEmpty) {
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  zel_ipc_reg_t *e = zel_ipc_reg_new("one", 1, 0);
  zel_ipc_reg_add(&top, e);
  zel_ipc_reg_mgr_cleanup(&top);  // e stays the caller's, untouched
  EXPECT_EQ(e->id, 1u);
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 1), nullptr);
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "one"), nullptr);
  zel_ipc_reg_mgr_cleanup(&top);
  zel_ipc_reg_cleanup(e);
}

struct NewRow {
  const char *label;
  std::string name;
  bool null_name;
  uint32_t id;
  bool ok;
  std::string stdout_text;
};

TEST(IpcRegNew, LimitsInOrder) {
  const std::string bad = "entering\n\nipc reg registration invalid input params\n\n";
  const NewRow rows[] = {
      {"plain", "client", false, 7, true,
       "entering\n\nipc reg id 7 allocated to ipc client client\n\n"},
      {"100 characters", k_name100, false, 1, true,
       "entering\n\nipc reg id 1 allocated to ipc client " + k_name100 + "\n\n"},
      {"one character, largest id", "x", false, 0xffffffffu, true,
       "entering\n\nipc reg id -1 allocated to ipc client x\n\n"},
      {"101 characters", k_name100 + "n", false, 1, false, bad},
      {"empty", "", false, 1, false, bad},
      {"NULL", "", true, 1, false, bad},
      {"id 0", "client", false, 0, false, bad},
      {"NULL and id 0", "", true, 0, false, bad},
  };
  for (const NewRow &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    zel_ipc_reg_t *e = zel_ipc_reg_new(row.null_name ? nullptr : row.name.c_str(), row.id, 99);
    EXPECT_EQ(out.take(), row.stdout_text);
    ASSERT_EQ(e != nullptr, row.ok);
    if (e != nullptr) {
      EXPECT_EQ(std::string(e->name), row.name);
      EXPECT_EQ(e->id, row.id);
      EXPECT_EQ(e->data, 99u);
      EXPECT_EQ(e->reserved, 0u);
      EXPECT_EQ(e->link.next, nullptr);
    }
    zel_ipc_reg_cleanup(e);
  }
}

TEST(IpcRegCleanup, NullOnlyTraces) {
  StdoutCapture out;
  zel_ipc_reg_cleanup(nullptr);
  EXPECT_EQ(out.take(), "entering\n\n");
}

// One client through its whole life, message for message, the callbacks' lines included.
TEST(IpcRegOutput, OneCycleMessageForMessage) {
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  StdoutCapture out;
  zel_ipc_reg_t *e = zel_ipc_reg_new("alpha", 7, 0);
  EXPECT_EQ(out.take(), "entering\n\nipc reg id 7 allocated to ipc client alpha\n\n");
  zel_ipc_reg_add(&top, e);
  EXPECT_EQ(out.take(),
            "entering\n\nadding ipc client alpha:7 to db\n\nipc reg id is :7\n\n"
            "ipc reg name is :alpha\n\n");
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 7), e);
  EXPECT_EQ(out.take(),
            "searching ipc reg db by ipc client id 7\n\nipc reg id is :7\n\n"
            "The value 1:7:, 2 :7:\n\n");
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "alpha"), e);
  EXPECT_EQ(out.take(),
            "entering\n\nsearching ipc reg db by name alpha\n\nipc reg name is :alpha\n\n"
            "The value 1:alpha 2:alpha\n\n");
  zel_ipc_reg_delete(&top, e);
  EXPECT_EQ(out.take(),
            "entering\n\ndeleting ipc client alpha:7 from db\n\nipc reg id is :7\n\n"
            "ipc reg name is :alpha\n\n");
  zel_ipc_reg_cleanup(e);
  EXPECT_EQ(out.take(), "entering\n\n");
  zel_ipc_reg_mgr_cleanup(&top);
}

TEST_F(IpcRegistry, LookupsFollowTheRegistrationsState) {
  zel_ipc_reg_t *made = make("made", 3, 5);
  EXPECT_EQ(by_id(3), nullptr);  // allocated, not linked
  EXPECT_EQ(by_name("made"), nullptr);
  zel_ipc_reg_t *e = add("linked", 4);
  EXPECT_EQ(by_id(4), e);
  EXPECT_EQ(by_name("linked"), e);
  EXPECT_EQ(by_name(""), nullptr);
  EXPECT_EQ(by_name("linke"), nullptr);
  EXPECT_EQ(by_name("linkedx"), nullptr);
  del(e);
  EXPECT_EQ(by_id(4), nullptr);
  EXPECT_EQ(by_name("linked"), nullptr);
  EXPECT_EQ(std::string(e->name), "linked");
  EXPECT_EQ(e->id, 4u);
  EXPECT_EQ(made->data, 5u);
}

TEST_F(IpcRegistry, LookupByIdZeroTracesOnlyTheSearch) {
  add("a", 1);
  StdoutCapture out;
  EXPECT_EQ(by_id(0), nullptr);
  EXPECT_EQ(out.take(), "searching ipc reg db by ipc client id 0\n\nipc reg id is :0\n\n");
}

TEST_F(IpcRegistry, InvalidArgumentsChangeNothing) {
  zel_ipc_reg_t *e = add("kept", 9);
  zel_ipc_reg_t *spare = make("spare", 10);
  const std::string bad = "entering\n\ninvalid input params\n\n";
  struct Row {
    const char *label;
    void (*op)(zel_ipc_reg_top_t *, zel_ipc_reg_t *);
    zel_ipc_reg_top_t *top;
    zel_ipc_reg_t *entry;
  } rows[] = {
      {"add, NULL top", zel_ipc_reg_add, nullptr, spare},
      {"add, NULL entry", zel_ipc_reg_add, &top_, nullptr},
      {"delete, NULL top", zel_ipc_reg_delete, nullptr, e},
      {"delete, NULL entry", zel_ipc_reg_delete, &top_, nullptr},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    row.op(row.top, row.entry);
    EXPECT_EQ(out.take(), bad);
    EXPECT_EQ(kro_hashset_count(top_.set), 1u);
    EXPECT_EQ(kro_hashmap_count(top_.map), 1u);
    EXPECT_EQ(by_id(9), e);
  }
  StdoutCapture out;
  EXPECT_EQ(zel_ipc_reg_get_by_name(top_, nullptr), nullptr);
  EXPECT_EQ(out.take(), bad);
}

// A name of exactly 100 characters is stored, hashed and compared whole; a longer lookup name
// finds the registration named by its first 100 characters.
TEST_F(IpcRegistry, NameLimitEndToEnd) {
  const std::string other = k_name100.substr(0, 99) + "m";  // differs in the last character
  zel_ipc_reg_t *e = add(k_name100, 1);
  zel_ipc_reg_t *o = add(other, 2);
  EXPECT_EQ(std::string(e->name), k_name100);
  EXPECT_EQ(by_name(k_name100), e);
  EXPECT_EQ(by_name(other), o);
  EXPECT_EQ(by_name(k_name100.substr(0, 99)), nullptr);
  EXPECT_EQ(by_name(other + "tail"), o);
  const std::string longer = k_name100 + std::string(50, 'z');
  StdoutCapture out;
  EXPECT_EQ(by_name(longer), e);
  // The search shows the caller's name unshortened; the key the table hashes has 100.
  EXPECT_EQ(out.take(), "entering\n\nsearching ipc reg db by name " + longer +
                            "\n\nipc reg name is :" + k_name100 + "\n\nThe value 1:" + k_name100 +
                            " 2:" + k_name100 + "\n\n");
}

// Registrations sharing an id or a name: the newest is found, and deleting any one of them
// leaves each other one reachable, by id and by name, in both directions.
TEST_F(IpcRegistry, EqualIdsAndNamesStayReachable) {
  zel_ipc_reg_t *a = add("a", 1);
  zel_ipc_reg_t *b = add("b", 1);  // same id as a
  zel_ipc_reg_t *c = add("a", 2);  // same name as a
  EXPECT_EQ(by_id(1), b);
  EXPECT_EQ(by_name("a"), c);
  EXPECT_EQ(by_name("b"), b);
  del(a);  // the oldest of both groups
  EXPECT_EQ(by_id(1), b);
  EXPECT_EQ(by_name("a"), c);
  del(c);
  EXPECT_EQ(by_name("a"), nullptr);
  EXPECT_EQ(by_id(2), nullptr);
  zel_ipc_reg_add(&top_, a);  // back again, now the newest of id 1
  linked_.push_back(a);
  EXPECT_EQ(by_id(1), a);
  EXPECT_EQ(by_name("a"), a);
  del(a);
  EXPECT_EQ(by_id(1), b);
}

// Many registrations with one id and one name, interleaved with others so that both tables
// grow several times: after every add and every delete (in a scrambled order) the newest
// remaining one is found by id and by name.
TEST_F(IpcRegistry, EqualKeysAcrossGrowth) {
  StdoutCapture quiet;
  constexpr int k_dups = 24;
  std::vector<zel_ipc_reg_t *> dups;
  for (int i = 0; i < k_dups; ++i) {
    dups.push_back(add("same", 5));
    for (int f = 0; f < 8; ++f) {
      const uint32_t id = static_cast<uint32_t>(100 + i * 8 + f);
      add("filler" + std::to_string(id), id);
    }
    ASSERT_EQ(by_id(5), dups.back());
    ASSERT_EQ(by_name("same"), dups.back());
  }
  std::vector<int> order(k_dups);
  std::iota(order.begin(), order.end(), 0);
  for (int i = 0; i < k_dups; ++i) {
    std::swap(order[static_cast<size_t>(i)], order[static_cast<size_t>((i * 7 + 3) % k_dups)]);
  }
  std::vector<bool> gone(k_dups, false);
  for (int victim : order) {
    SCOPED_TRACE(victim);
    del(dups[static_cast<size_t>(victim)]);
    gone[static_cast<size_t>(victim)] = true;
    zel_ipc_reg_t *newest = nullptr;
    for (int i = 0; i < k_dups; ++i) {
      newest = gone[static_cast<size_t>(i)] ? newest : dups[static_cast<size_t>(i)];
    }
    ASSERT_EQ(by_id(5), newest);
    ASSERT_EQ(by_name("same"), newest);
  }
}

// Adding a linked registration again changes nothing, so one delete unlinks it for good.
TEST_F(IpcRegistry, RepeatedAddIsHarmless) {
  zel_ipc_reg_t *e = add("twice", 3);
  zel_ipc_reg_add(&top_, e);
  EXPECT_EQ(kro_hashset_count(top_.set), 1u);
  EXPECT_EQ(kro_hashmap_count(top_.map), 1u);
  del(e);
  EXPECT_EQ(by_id(3), nullptr);
  EXPECT_EQ(by_name("twice"), nullptr);
}

TEST_F(IpcRegistry, CleanupLeavesLinkedRegistrationsToTheCaller) {
  zel_ipc_reg_t *e = add("left", 1);
  add("also", 2);
  StdoutCapture out;
  zel_ipc_reg_mgr_cleanup(&top_);
  EXPECT_EQ(out.take(), "entering\n\n");  // no callback runs: nothing is visited
  EXPECT_EQ(std::string(e->name), "left");
  EXPECT_EQ(zel_test::fault_live_blocks(), live_before_ + 2);  // the two registrations only
  linked_.clear();
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top_), ZEL_IPC_REG_OK);  // for the fixture's teardown
}

// Whether a journalled filtered-log call is "_kro_dt_log_filter_adv <flag> 0 0 0 0 0 slot=<slot>
// <tid>: ZEL-IPC-REG-MGR: <function>: <line>: <code>: <message>\n"; hands back the slot.
bool log_entry_matches(const std::string &entry, const std::string &flag, const std::string &tid,
                       const std::string &function, const std::string &code,
                       const std::string &message, std::string *slot) {
  const std::string head = "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR." + flag + " 0 0 0 0 0 slot=";
  if (entry.rfind(head, 0) != 0) {
    return false;
  }
  const size_t slot_end = entry.find(' ', head.size());
  const std::string fields = tid + ": ZEL-IPC-REG-MGR: " + function + ": ";
  if (slot_end == std::string::npos || entry.compare(slot_end + 1, fields.size(), fields) != 0) {
    return false;
  }
  size_t line_end = slot_end + 1 + fields.size();
  const size_t line_begin = line_end;
  while (line_end < entry.size() && isdigit(static_cast<unsigned char>(entry[line_end])) != 0) {
    ++line_end;
  }
  *slot = entry.substr(head.size(), slot_end - head.size());
  return line_end > line_begin && entry.substr(line_end) == ": " + code + ": " + message + "\n";
}

// The filtered log gets the level's flag, four 32-bit zeros, a 64-bit zero, the site's slot,
// then "<thread>: <module>: <function>: <line>: <code>: " and the message.
TEST(IpcRegJournal, FilteredLogLayout) {
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  zel_ipc_reg_t *e = zel_ipc_reg_new("alpha", 7, 0);
  kro_probe_journal_start();
  EXPECT_EQ(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL);
  zel_ipc_reg_add(&top, e);
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "alpha"), e);
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 7), e);
  zel_ipc_reg_delete(&top, e);
  zel_ipc_reg_cleanup(e);
  zel_ipc_reg_mgr_cleanup(&top);
  kro_probe_journal_stop();

  const std::string tid = std::to_string(static_cast<unsigned>(pthread_self()));
  struct Row {
    const char *flag;
    const char *function;
    const char *code;
    const char *message;
  } rows[] = {
      {"error", "zel_ipc_reg_mgr_init", "26", "ipc reg top cannot be null"},
      {"trace", "zel_ipc_reg_add", "0", "entering"},
      {"trace", "zel_ipc_reg_add", "0", "adding ipc client alpha:7 to db"},
      {"trace", "zel_ipc_reg_hashset_calc", "0", "ipc reg id is :7"},
      {"trace", "zel_ipc_reg_hashmap_calc", "0", "ipc reg name is :alpha"},
      {"trace", "zel_ipc_reg_get_by_name", "0", "entering"},
      {"trace", "zel_ipc_reg_hashmap_matcher", "0", "The value 1:alpha 2:alpha"},
      {"trace", "zel_ipc_reg_get_by_id", "0", "searching ipc reg db by ipc client id 7"},
      {"trace", "zel_ipc_reg_hashset_matcher", "0", "The value 1:7:, 2 :7:"},
      {"trace", "zel_ipc_reg_delete", "0", "deleting ipc client alpha:7 from db"},
      {"trace", "zel_ipc_reg_cleanup", "0", "entering"},
      {"trace", "zel_ipc_reg_mgr_cleanup", "0", "entering"},
  };
  const auto calls = zel_test::log_calls();
  std::vector<std::string> slots;
  size_t at = 0;  // rows appear in this order, other calls in between
  for (const Row &row : rows) {
    SCOPED_TRACE(std::string(row.function) + ": " + row.message);
    std::string slot;
    while (at < calls.size() && !log_entry_matches(calls[at], row.flag, tid, row.function, row.code,
                                                   row.message, &slot)) {
      ++at;
    }
    ASSERT_LT(at, calls.size());
    if (std::string(row.message) == "entering") {
      slots.push_back(slot);
    }
    ++at;
  }
  // Every site owns its slot, even for the same message.
  ASSERT_EQ(slots.size(), 4u);
  for (size_t i = 0; i < slots.size(); ++i) {
    for (size_t j = i + 1; j < slots.size(); ++j) {
      EXPECT_NE(slots[i], slots[j]);
    }
  }
}

// With the registry's flags on, a trace point also feeds the event history (subtype 104 at
// trace level, 102 at error level, the text with its extra newline and terminator).
TEST(IpcRegJournal, HistoryWhenTheFlagsAreOn) {
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  zel_ipc_reg_dbg_set(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR);
  host_probe_history_clear();
  zel_ipc_reg_cleanup(nullptr);
  EXPECT_EQ(zel_ipc_reg_new(nullptr, 1, 0), nullptr);
  ASSERT_EQ(host_probe_history_count(), 3u);
  struct Row {
    uint32_t subtype;
    const char *text;
  } rows[] = {{104, "entering\n\n"},
              {104, "entering\n\n"},
              {102, "ipc reg registration invalid input params\n\n"}};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    uint32_t id = 0, len = 0;
    unsigned char buf[600] = {};
    ASSERT_EQ(host_probe_history_get(i, &id, &len, buf, sizeof buf), 0);
    uint32_t subtype = 0;
    memcpy(&subtype, buf, 4);
    EXPECT_EQ(id, ZEL_TRACE_EVENT_ID);
    EXPECT_EQ(subtype, rows[i].subtype);
    EXPECT_EQ(len, 4 + strlen(rows[i].text) + 1);
    EXPECT_STREQ(reinterpret_cast<const char *>(buf + 4), rows[i].text);
  }
  zel_ipc_reg_dbg_set(0);
  zel_ipc_reg_mgr_cleanup(&top);
}

}  // namespace
