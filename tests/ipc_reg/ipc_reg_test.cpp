// The IPC client registry: what each operation prints and journals, the name and id limits,
// equal keys, the four hash callbacks (caught on their way into the platform tables: the two
// create calls are wrapped at link time), allocation failures and threads.
#include <host/probe.h>
#include <kro/probe.h>
#include <pthread.h>
#include <zel/ipc_reg.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdio>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(zel_ipc_reg_top_t) == 12 && offsetof(zel_ipc_reg_top_t, inited) == 8);
static_assert(sizeof(zel_ipc_reg_t) == 124 && offsetof(zel_ipc_reg_t, id) == 8 &&
              offsetof(zel_ipc_reg_t, name) == 12 && offsetof(zel_ipc_reg_t, data) == 116);
#else
static_assert(sizeof(zel_ipc_reg_top_t) == 24 && offsetof(zel_ipc_reg_top_t, inited) == 16);
static_assert(sizeof(zel_ipc_reg_t) == 136 && offsetof(zel_ipc_reg_t, id) == 16 &&
              offsetof(zel_ipc_reg_t, name) == 20 && offsetof(zel_ipc_reg_t, data) == 124);
#endif

namespace {

// Atomic: the threads test sets up registries on several threads at once.
std::atomic<kro_hashset_hash_fn> g_set_hash, g_map_hash;
std::atomic<kro_hashset_match_fn> g_set_match, g_map_match;

}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_kro_hashset_create(kro_hashset_t **, uint32_t, size_t, kro_hashset_hash_fn,
                              kro_hashset_match_fn, uint32_t);
int __real_kro_hashmap_create(kro_hashmap_t **, uint32_t, kro_hashset_hash_fn, kro_hashset_match_fn,
                              uint32_t);
int __wrap_kro_hashset_create(kro_hashset_t **set, uint32_t hint, size_t link_offset,
                              kro_hashset_hash_fn hash, kro_hashset_match_fn match,
                              uint32_t flags) {
  g_set_hash = hash;
  g_set_match = match;
  return __real_kro_hashset_create(set, hint, link_offset, hash, match, flags);
}
int __wrap_kro_hashmap_create(kro_hashmap_t **map, uint32_t hint, kro_hashset_hash_fn hash,
                              kro_hashset_match_fn match, uint32_t flags) {
  g_map_hash = hash;
  g_map_match = match;
  return __real_kro_hashmap_create(map, hint, hash, match, flags);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using zel_test::FaultScope;
using zel_test::StdoutCapture;

const std::string k_name100(100, 'n');
const std::string k_in = "entering\n\n";

std::vector<std::string> log_calls() {
  std::vector<std::string> out;
  for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
    const std::string e = kro_probe_journal_entry(i);
    if (e.rfind("_kro_dt_log_filter_adv ", 0) == 0) {
      out.push_back(e);
    }
  }
  return out;
}

// Whether a journalled filtered-log call reads "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.<flag> 0
// 0 0 0 0 slot=<slot> <tid>: ZEL-IPC-REG-MGR: <function>: <line>: <code>: <message>\n" with this
// thread's id; hands back the slot.
bool is_log(const std::string &e, const std::string &flag, const std::string &function,
            const std::string &code, const std::string &message, std::string *slot) {
  char got_flag[16] = "", got_slot[32] = "", got_function[64] = "";
  unsigned tid = 0, line = 0;
  int at = -1;
  sscanf(e.c_str(),  // NOLINT(cert-err34-c): a mismatch leaves `at` negative
         "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.%15s 0 0 0 0 0 slot=%31s %u: ZEL-IPC-REG-MGR: "
         "%63[^:]: %u: %n",
         got_flag, got_slot, &tid, got_function, &line, &at);
  *slot = got_slot;
  return at >= 0 && flag == got_flag && tid == static_cast<unsigned>(pthread_self()) &&
         function == got_function &&
         e.substr(static_cast<size_t>(at)) == code + ": " + message + "\n";
}

// One client through its whole life, message for message (the callbacks' lines included), then
// the same run's filtered-log calls in order, each site with a slot of its own.
TEST(IpcReg, MessagesAndTracePointsOfOneCycle) {
  kro_probe_journal_start();
  StdoutCapture out;
  const auto said = [&out](const std::string &want) { EXPECT_EQ(out.take(), want); };
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  said(k_in + "hashset create\n\nhashmap create\n\n");
  EXPECT_STREQ(kro_probe_journal_entry(0), "any_module_dt_init " ZEL_IPC_REG_MODULE_NAME);
  EXPECT_EQ(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL);
  said(k_in + "ipc reg top cannot be null\n\n");
  zel_ipc_reg_t *e = zel_ipc_reg_new("alpha", 7, 0);
  said(k_in + "ipc reg id 7 allocated to ipc client alpha\n\n");
  zel_ipc_reg_add(&top, e);
  said(k_in + "adding ipc client alpha:7 to db\n\nipc reg id is :7\n\nipc reg name is :alpha\n\n");
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "alpha"), e);
  said(k_in + "searching ipc reg db by name alpha\n\nipc reg name is :alpha\n\n" +
       "The value 1:alpha 2:alpha\n\n");
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 7), e);
  said("searching ipc reg db by ipc client id 7\n\nipc reg id is :7\n\nThe value 1:7:, 2 :7:\n\n");
  zel_ipc_reg_add(&top, nullptr);
  said(k_in + "invalid input params\n\n");
  zel_ipc_reg_delete(&top, e);
  said(k_in + "deleting ipc client alpha:7 from db\n\nipc reg id is :7\n\n" +
       "ipc reg name is :alpha\n\n");
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 0), nullptr);
  said("searching ipc reg db by ipc client id 0\n\nipc reg id is :0\n\n");
  zel_ipc_reg_cleanup(e);
  said(k_in);
  zel_ipc_reg_mgr_cleanup(nullptr);
  said(k_in + "ipc reg top cannot be null\n\n");
  zel_ipc_reg_mgr_cleanup(&top);
  said(k_in);
  EXPECT_TRUE(top.set == nullptr && top.map == nullptr && top.inited == 1u);
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);  // the module is registered once
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  zel_ipc_reg_mgr_cleanup(&top);
  kro_probe_journal_stop();

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
      {"error", "zel_ipc_reg_add", "26", "invalid input params"},
      {"trace", "zel_ipc_reg_delete", "0", "deleting ipc client alpha:7 from db"},
      {"trace", "zel_ipc_reg_cleanup", "0", "entering"},
  };
  const auto calls = log_calls();
  std::vector<std::string> slots;
  size_t at = 0;  // the rows appear in this order, other calls in between
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.function) + ": " + row.message);
    std::string slot;
    while (at < calls.size() &&
           !is_log(calls[at], row.flag, row.function, row.code, row.message, &slot)) {
      ++at;
    }
    ASSERT_LT(at++, calls.size());
    slots.push_back(slot);
  }
  std::sort(slots.begin(), slots.end());
  EXPECT_EQ(std::unique(slots.begin(), slots.end()), slots.end());
}

TEST(IpcReg, NewTakesNamesOf1To100CharactersAndNonZeroIds) {
  const std::string n101 = k_name100 + "n";
  const struct {
    const char *label, *name;
    uint32_t id;
    const char *shown_id;  // NULL: refused
  } rows[] = {
      {"100 characters", k_name100.c_str(), 1, "1"},
      {"largest id, printed with %d", "x", 0xffffffffu, "-1"},
      {"101 characters", n101.c_str(), 1, nullptr},
      {"empty", "", 1, nullptr},
      {"id 0", "client", 0, nullptr},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    zel_ipc_reg_t *e = zel_ipc_reg_new(row.name, row.id, 99);
    if (row.shown_id == nullptr) {
      EXPECT_EQ(e, nullptr);
      EXPECT_EQ(out.take(), k_in + "ipc reg registration invalid input params\n\n");
      continue;
    }
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(out.take(), k_in + "ipc reg id " + row.shown_id + " allocated to ipc client " +
                              row.name + "\n\n");
    EXPECT_TRUE(e->name == std::string(row.name) && e->id == row.id && e->data == 99u);
    zel_ipc_reg_cleanup(e);
  }
}

// One quiet registry per test. Registrations made through add() and not del()eted are deleted
// at the end; then the tables must be empty and nothing may stay allocated.
class IpcRegistry : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(zel_ipc_reg_mgr_init(&top_), ZEL_IPC_REG_OK); }
  void TearDown() override {
    for (zel_ipc_reg_t *e : linked_) {
      zel_ipc_reg_delete(&top_, e);
    }
    EXPECT_EQ(kro_hashset_count(top_.set) + kro_hashmap_count(top_.map), 0u);
    for (zel_ipc_reg_t *e : linked_) {
      zel_ipc_reg_cleanup(e);
    }
    zel_ipc_reg_mgr_cleanup(&top_);
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before_);
  }
  zel_ipc_reg_t *add(const std::string &name, uint32_t id) {
    zel_ipc_reg_t *e = linked_.emplace_back(zel_ipc_reg_new(name.c_str(), id, 0));
    zel_ipc_reg_add(&top_, e);
    return e;
  }
  void del(zel_ipc_reg_t *e) {
    zel_ipc_reg_delete(&top_, e);
    zel_ipc_reg_cleanup(e);
    linked_.erase(std::find(linked_.begin(), linked_.end(), e));
  }
  zel_ipc_reg_t *by_id(uint32_t id) const { return zel_ipc_reg_get_by_id(top_, id); }
  zel_ipc_reg_t *by_name(const std::string &name) const {
    return zel_ipc_reg_get_by_name(top_, name.c_str());
  }

  StdoutCapture quiet_;
  long live_before_ = zel_test::fault_live_blocks();
  zel_ipc_reg_top_t top_{};
  std::vector<zel_ipc_reg_t *> linked_;
};

// A name of exactly 100 characters is stored, hashed and compared whole; a longer lookup name
// finds the registration named by its first 100 characters, and the search shows it unshortened.
TEST_F(IpcRegistry, NameLimitEndToEnd) {
  const std::string other = k_name100.substr(0, 99) + "m";  // differs in the last character
  zel_ipc_reg_t *e = add(k_name100, 1);
  zel_ipc_reg_t *o = add(other, 2);
  EXPECT_EQ(by_name(k_name100), e);
  EXPECT_EQ(by_name(k_name100.substr(0, 99)), nullptr);
  EXPECT_EQ(by_name(other + "tail"), o);
  const std::string longer = k_name100 + std::string(50, 'z');
  quiet_.take();
  EXPECT_EQ(by_name(longer), e);
  EXPECT_EQ(quiet_.take(), k_in + "searching ipc reg db by name " + longer +
                               "\n\nipc reg name is :" + k_name100 +
                               "\n\nThe value 1:" + k_name100 + " 2:" + k_name100 + "\n\n");
}

// Registrations sharing an id (other names) and registrations sharing a name (other ids),
// interleaved with others so that both tables grow several times: after every add and every
// delete, in a scrambled order, the newest remaining one of each group is found. Adding a
// linked registration again changes nothing: one delete unlinks it for good.
TEST_F(IpcRegistry, EqualKeysStayReachableAcrossGrowth) {
  std::vector<zel_ipc_reg_t *> same_id, same_name;
  uint32_t next_id = 100;
  for (size_t i = 0; i < 24; ++i) {
    same_id.push_back(add("id-twin-" + std::to_string(i), 5));
    same_name.push_back(add("twin", next_id++));
    zel_ipc_reg_add(&top_, same_name.back());
    for (int f = 0; f < 6; ++f, ++next_id) {
      add("filler" + std::to_string(next_id), next_id);
    }
    ASSERT_EQ(by_id(5), same_id.back());
    ASSERT_EQ(by_name("twin"), same_name.back());
  }
  for (size_t step = 0; step < 48; ++step) {
    auto &group = step % 2 == 0 ? same_id : same_name;
    const size_t victim = (step * 7 + 3) % group.size();
    del(group[victim]);
    group.erase(group.begin() + static_cast<std::ptrdiff_t>(victim));
    ASSERT_EQ(by_id(5), same_id.empty() ? nullptr : same_id.back()) << step;
    ASSERT_EQ(by_name("twin"), same_name.empty() ? nullptr : same_name.back()) << step;
  }
}

// The hash callbacks given a NULL element: it hashes to 0 (silently in the set, traced in the
// map) and matches anything.
TEST_F(IpcRegistry, HashCallbacksTakeNullElements) {
  zel_ipc_reg_t *e = add("x", 1);
  quiet_.take();
  EXPECT_EQ(g_set_hash.load()(nullptr) + g_map_hash.load()(nullptr), 0u);
  EXPECT_EQ(quiet_.take(), "ipc reg null\n\n");
  for (kro_hashset_match_fn match : {g_set_match.load(), g_map_match.load()}) {
    EXPECT_EQ(match(nullptr, e) + match(e, nullptr), 2);
    EXPECT_EQ(quiet_.take(), "hash elements NULL\n\nhash elements NULL\n\n");
  }
}

// The last filtered-log call is an error-level trace of `function` with code 5 and `message`.
void expect_code5_error(const char *function, const std::string &message) {
  const auto calls = log_calls();
  std::string slot;
  EXPECT_TRUE(!calls.empty() && is_log(calls.back(), "error", function, "5", message, &slot));
}

// Every allocation of the set-up in turn: a failed set leaves `map` as it was, a failed map
// frees the set again; the result is 5 with `inited` 1 either way, and nothing stays live.
TEST(IpcRegFault, InitFailsCleanlyAtEveryAllocation) {
  int failures[2] = {0, 0};  // of the set, of the map
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    SCOPED_TRACE(n);
    zel_ipc_reg_top_t top{};
    auto *const sentinel = reinterpret_cast<kro_hashmap_t *>(&top);
    top.map = sentinel;
    StdoutCapture out;
    kro_probe_journal_start();
    uint32_t rc;
    {
      FaultScope fault(n);
      rc = zel_ipc_reg_mgr_init(&top);
    }
    const std::string text = out.take();
    EXPECT_EQ(top.inited, 1u);
    if (!zel_test::fault_fired()) {
      EXPECT_EQ(rc, ZEL_IPC_REG_OK);
      zel_ipc_reg_mgr_cleanup(&top);
      return false;
    }
    EXPECT_EQ(rc, ZEL_IPC_REG_ENOMEM);
    EXPECT_EQ(top.set, nullptr);
    expect_code5_error("zel_ipc_reg_mgr_init", "memory allocation failure");
    const bool set_failed = text.find("hashmap create") == std::string::npos;
    ++failures[set_failed ? 0 : 1];
    EXPECT_TRUE(!set_failed || top.map == sentinel);
    EXPECT_EQ(text, k_in + "hashset create\n\n" + (set_failed ? "" : "hashmap create\n\n") +
                        "memory allocation failure\n\n");
    return true;
  });
  EXPECT_TRUE(failures[0] >= 1 && failures[1] >= 1);
  EXPECT_EQ(runs, static_cast<unsigned>(failures[0] + failures[1]));
}

TEST(IpcRegFault, NewFailsWithCode5AndNull) {
  zel_ipc_reg_init_once();  // the module, as zel_ipc_reg_mgr_init would have registered it
  StdoutCapture out;
  kro_probe_journal_start();
  {
    FaultScope fault(1);  // its only allocation
    EXPECT_EQ(zel_ipc_reg_new("client", 1, 0), nullptr);
  }
  EXPECT_EQ(out.take(), k_in + "unable to allocate ipc reg\n\n");
  expect_code5_error("zel_ipc_reg_new", "unable to allocate ipc reg");
}

// The add reports nothing when the name map cannot allocate its pair: the registration is then
// found by id only, and its delete unlinks it from the set and leaves the map as it is.
TEST_F(IpcRegistry, AddWhoseNamePairFailsIsFoundByIdOnly) {
  zel_ipc_reg_t *other = add("other", 1);
  zel_ipc_reg_t *e = zel_ipc_reg_new("client", 2, 0);
  {
    FaultScope fault(1);
    zel_ipc_reg_add(&top_, e);
    EXPECT_TRUE(zel_test::fault_fired());
  }
  EXPECT_EQ(by_id(2), e);
  EXPECT_EQ(by_name("client"), nullptr);
  zel_ipc_reg_delete(&top_, e);
  zel_ipc_reg_cleanup(e);
  EXPECT_EQ(by_id(2), nullptr);
  EXPECT_EQ(by_name("other"), other);
}

// Racing first set-ups register the trace module exactly once, and every caller goes on only
// once the registration has finished; then each thread runs a registry of its own through a
// cycle of many clients, and every lookup finds its own thread's registration.
TEST(IpcRegThreads, FirstInitsRaceAndRegistriesShareNothing) {
  constexpr int k_threads = 8;
  StdoutCapture quiet;
  const long live_before = zel_test::fault_live_blocks();
  std::vector<int> errors(k_threads, -1);
  std::barrier start(k_threads);
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      zel_ipc_reg_top_t top{};
      int bad = zel_ipc_reg_mgr_init(&top) == ZEL_IPC_REG_OK ? 0 : 1;
      bad += zel_ipc_reg_mgr_amdt.name != nullptr && zel_ipc_reg_mgr_amdt.error_flag != nullptr ? 0
                                                                                                : 1;
      std::vector<zel_ipc_reg_t *> mine;
      for (uint32_t id = 1; id <= 200; ++id) {
        const std::string name = "t" + std::to_string(t) + "-" + std::to_string(id);
        zel_ipc_reg_add(&top, mine.emplace_back(zel_ipc_reg_new(name.c_str(), id, 0)));
      }
      for (zel_ipc_reg_t *e : mine) {
        bad += zel_ipc_reg_get_by_id(top, e->id) == e && zel_ipc_reg_get_by_name(top, e->name) == e
                   ? 0
                   : 1;
      }
      for (zel_ipc_reg_t *e : mine) {
        zel_ipc_reg_delete(&top, e);
        zel_ipc_reg_cleanup(e);
      }
      zel_ipc_reg_mgr_cleanup(&top);
      errors[static_cast<size_t>(t)] = bad;
    });
  }
  for (std::thread &th : threads) {
    th.join();
  }
  EXPECT_EQ(errors, std::vector<int>(k_threads, 0));
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
}

}  // namespace
