// The registry through its public operations: set-up, registrations and their limits, lookups,
// equal keys, what a user sees on standard output, and the trace points in the journal.
#include <host/probe.h>
#include <kro/probe.h>
#include <pthread.h>
#include <zel/ipc_reg.h>

#include <cctype>
#include <cstddef>
#include <algorithm>
#include <functional>
#include <optional>
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

// The first set-up registers the module before its first trace; later ones do not. Tear-down
// releases both tables, and a set-up on the same record starts an empty registry.
TEST(IpcRegMgr, SetUpAndTearDown) {
  kro_probe_journal_start();
  zel_ipc_reg_top_t top{};
  StdoutCapture out;
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  EXPECT_EQ(out.take(), "entering\n\nhashset create\n\nhashmap create\n\n");
  EXPECT_EQ(zel_test::journal().front(), "any_module_dt_init " ZEL_IPC_REG_MODULE_NAME);
  zel_ipc_reg_t *e = zel_ipc_reg_new("one", 1, 0);
  zel_ipc_reg_add(&top, e);
  out.take();
  zel_ipc_reg_mgr_cleanup(&top);  // e is neither visited nor freed
  EXPECT_EQ(out.take(), "entering\n\n");
  EXPECT_EQ(top.set, nullptr);
  EXPECT_EQ(top.map, nullptr);
  EXPECT_EQ(top.inited, 1u);
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 1), nullptr);
  zel_ipc_reg_mgr_cleanup(&top);
  zel_ipc_reg_cleanup(e);
}

TEST(IpcRegMgr, NullRecordsOnlyTrace) {
  const struct {
    const char *label;
    std::function<void()> call;
    const char *output;
  } rows[] = {
      {"init", [] { EXPECT_EQ(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL); },
       "entering\n\nipc reg top cannot be null\n\n"},
      {"tear-down", [] { zel_ipc_reg_mgr_cleanup(nullptr); },
       "entering\n\nipc reg top cannot be null\n\n"},
      {"release", [] { zel_ipc_reg_cleanup(nullptr); }, "entering\n\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    row.call();
    EXPECT_EQ(out.take(), row.output);
  }
}

TEST(IpcRegNew, LimitsInOrder) {
  const struct {
    const char *label;
    std::optional<std::string> name;  // nullopt: NULL
    uint32_t id;
    std::string output;  // after "entering"; empty: refused
  } rows[] = {
      {"plain", "client", 7, "ipc reg id 7 allocated to ipc client client\n\n"},
      {"100 characters", k_name100, 1,
       "ipc reg id 1 allocated to ipc client " + k_name100 + "\n\n"},
      {"largest id, printed with %d", "x", 0xffffffffu,
       "ipc reg id -1 allocated to ipc client x\n\n"},
      {"101 characters", k_name100 + "n", 1, ""},
      {"empty", "", 1, ""},
      {"NULL", std::nullopt, 1, ""},
      {"id 0", "client", 0, ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    zel_ipc_reg_t *e = zel_ipc_reg_new(row.name ? row.name->c_str() : nullptr, row.id, 99);
    const std::string text = out.take();
    if (row.output.empty()) {
      EXPECT_EQ(e, nullptr);
      EXPECT_EQ(text, "entering\n\nipc reg registration invalid input params\n\n");
      continue;
    }
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(text, "entering\n\n" + row.output);
    EXPECT_EQ(e->name, *row.name);
    EXPECT_EQ(e->id, row.id);
    EXPECT_EQ(e->data, 99u);
    EXPECT_EQ(e->reserved, 0u);
    zel_ipc_reg_cleanup(e);
  }
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
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 0), nullptr);  // traces the search only, and the hash
  EXPECT_EQ(out.take(), "searching ipc reg db by ipc client id 0\n\nipc reg id is :0\n\n");
  zel_ipc_reg_cleanup(e);
  EXPECT_EQ(out.take(), "entering\n\n");
  zel_ipc_reg_mgr_cleanup(&top);
}

TEST_F(IpcRegistry, LookupsFindLinkedRegistrationsOnly) {
  zel_ipc_reg_t *made = make("made", 3, 5);
  zel_ipc_reg_t *e = add("linked", 4);
  EXPECT_EQ(by_id(3), nullptr);
  EXPECT_EQ(by_name("made"), nullptr);
  EXPECT_EQ(by_id(4), e);
  EXPECT_EQ(by_name("linked"), e);
  for (const char *miss : {"", "linke", "linkedx"}) {
    EXPECT_EQ(by_name(miss), nullptr) << miss;
  }
  del(e);
  EXPECT_EQ(by_id(4), nullptr);
  EXPECT_EQ(by_name("linked"), nullptr);
  EXPECT_STREQ(e->name, "linked");
  EXPECT_EQ(e->id, 4u);
  EXPECT_EQ(made->data, 5u);
}

TEST_F(IpcRegistry, InvalidArgumentsChangeNothing) {
  zel_ipc_reg_t *e = add("kept", 9);
  zel_ipc_reg_t *spare = make("spare", 10);
  const struct {
    const char *label;
    std::function<void()> call;
  } rows[] = {
      {"add, NULL top", [&] { zel_ipc_reg_add(nullptr, spare); }},
      {"add, NULL entry", [&] { zel_ipc_reg_add(&top_, nullptr); }},
      {"delete, NULL top", [&] { zel_ipc_reg_delete(nullptr, e); }},
      {"delete, NULL entry", [&] { zel_ipc_reg_delete(&top_, nullptr); }},
      {"lookup, NULL name", [&] { EXPECT_EQ(zel_ipc_reg_get_by_name(top_, nullptr), nullptr); }},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    row.call();
    EXPECT_EQ(out.take(), "entering\n\ninvalid input params\n\n");
    EXPECT_EQ(kro_hashset_count(top_.set), 1u);
    EXPECT_EQ(kro_hashmap_count(top_.map), 1u);
    EXPECT_EQ(by_id(9), e);
  }
}

// A name of exactly 100 characters is stored, hashed and compared whole; a longer lookup name
// finds the registration named by its first 100 characters.
TEST_F(IpcRegistry, NameLimitEndToEnd) {
  const std::string other = k_name100.substr(0, 99) + "m";  // differs in the last character
  zel_ipc_reg_t *e = add(k_name100, 1);
  zel_ipc_reg_t *o = add(other, 2);
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

// Registrations sharing an id (with other names) and registrations sharing a name (with other
// ids), interleaved with others so that both tables grow several times: after every add and
// every delete, in a scrambled order, the newest remaining one of each group is found.
TEST_F(IpcRegistry, EqualKeysStayReachableAcrossGrowth) {
  StdoutCapture quiet;
  constexpr size_t k_dups = 24;
  std::vector<zel_ipc_reg_t *> same_id, same_name;
  uint32_t next_id = 100;
  for (size_t i = 0; i < k_dups; ++i) {
    same_id.push_back(add("id-twin-" + std::to_string(i), 5));
    same_name.push_back(add("twin", next_id++));
    for (int f = 0; f < 6; ++f, ++next_id) {
      add("filler" + std::to_string(next_id), next_id);
    }
    ASSERT_EQ(by_id(5), same_id.back());
    ASSERT_EQ(by_name("twin"), same_name.back());
  }
  const auto newest = [](const std::vector<zel_ipc_reg_t *> &group) {
    return group.empty() ? nullptr : group.back();
  };
  for (size_t step = 0; step < 2 * k_dups; ++step) {
    auto &group = step % 2 == 0 ? same_id : same_name;
    const size_t victim = (step * 7 + 3) % group.size();
    del(group[victim]);
    group.erase(group.begin() + static_cast<std::ptrdiff_t>(victim));
    ASSERT_EQ(by_id(5), newest(same_id)) << step;
    ASSERT_EQ(by_name("twin"), newest(same_name)) << step;
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

// Whether a journalled filtered-log call is "_kro_dt_log_filter_adv <flag> 0 0 0 0 0 slot=<slot>
// <tid>: ZEL-IPC-REG-MGR: <function>: <line>: <code>: <message>\n"; hands back the slot.
bool log_entry_matches(const std::string &entry, const std::string &flag, const std::string &tid,
                       const std::string &function, const std::string &code,
                       const std::string &message, std::string *slot) {
  const std::string head = "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR." + flag + " 0 0 0 0 0 slot=";
  const size_t slot_end = entry.find(' ', head.size());
  const std::string fields = tid + ": ZEL-IPC-REG-MGR: " + function + ": ";
  if (entry.rfind(head, 0) != 0 || slot_end == std::string::npos ||
      entry.compare(slot_end + 1, fields.size(), fields) != 0) {
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
  const struct {
    const char *flag, *function, *code, *message;
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
  std::vector<std::string> entering_slots;
  size_t at = 0;  // the rows appear in this order, other calls in between
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.function) + ": " + row.message);
    std::string slot;
    while (at < calls.size() && !log_entry_matches(calls[at], row.flag, tid, row.function, row.code,
                                                   row.message, &slot)) {
      ++at;
    }
    ASSERT_LT(at++, calls.size());
    if (std::string(row.message) == "entering") {
      entering_slots.push_back(slot);
    }
  }
  // Every site owns its slot, even for the same message.
  std::sort(entering_slots.begin(), entering_slots.end());
  EXPECT_EQ(std::unique(entering_slots.begin(), entering_slots.end()), entering_slots.end());
}

}  // namespace
