// The IPC client registry: what each operation prints and journals, lookups with equal keys
// against a model on several threads at once, allocation failures. (Refusals are in the
// bad-input table.)
#include <host/probe.h>
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <gtest/gtest.h>

#include <barrier>
#include <cstddef>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"

// The records are the callers': their layout is fixed for both word sizes.
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

const std::string k_in = "entering\n\n", k100(100, 'n');

// The last filtered-log call journalled, as "<flag> <function>: <code>: <message>", read from
// "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.<flag> 0 0 0 0 0 slot=<slot> <tid>: ZEL-IPC-REG-MGR:
// <function>: <line>: <code>: <message>\n".
std::string last_log() {
  const std::string head = "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.",
                    module = ": ZEL-IPC-REG-MGR: ";
  for (size_t i = kro_probe_journal_count(); i-- > 0;) {
    const std::string e = kro_probe_journal_entry(i);
    if (e.starts_with(head)) {
      const size_t function = e.find(module) + module.size(), line = e.find(": ", function) + 2;
      return e.substr(head.size(), e.find(' ', head.size()) - head.size()) + " " +
             e.substr(function, line - function) + e.substr(e.find(": ", line) + 2);
    }
  }
  return "";
}

// One client through its whole life, message for message (the hash callbacks' lines included),
// and the filtered-log call each step ends with: the callbacks trace under their own names.
TEST(IpcReg, MessagesAndTracePointsOfOneCycle) {
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  const auto said = [&out](const std::string &want, const std::string &log) {
    EXPECT_EQ(out.take(), want);
    EXPECT_EQ(last_log(), log);
  };
  const std::string t = "trace zel_ipc_reg_";
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  said(k_in + "hashset create\n\nhashmap create\n\n", t + "mgr_init: 0: hashmap create\n");
  EXPECT_STREQ(kro_probe_journal_entry(0), "any_module_dt_init " ZEL_IPC_REG_MODULE_NAME);
  zel_ipc_reg_t *e = zel_ipc_reg_new("alpha", 7, 0);
  said(k_in + "ipc reg id 7 allocated to ipc client alpha\n\n",
       t + "new: 0: ipc reg id 7 allocated to ipc client alpha\n");
  zel_ipc_reg_add(&top, e);
  said(k_in + "adding ipc client alpha:7 to db\n\nipc reg id is :7\n\nipc reg name is :alpha\n\n",
       t + "hashmap_calc: 0: ipc reg name is :alpha\n");
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "alpha"), e);
  said(k_in + "searching ipc reg db by name alpha\n\nipc reg name is :alpha\n\n" +
           "The value 1:alpha 2:alpha\n\n",
       t + "hashmap_matcher: 0: The value 1:alpha 2:alpha\n");
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 7), e);
  said("searching ipc reg db by ipc client id 7\n\nipc reg id is :7\n\nThe value 1:7:, 2 :7:\n\n",
       t + "hashset_matcher: 0: The value 1:7:, 2 :7:\n");
  zel_ipc_reg_delete(&top, e);
  said(k_in + "deleting ipc client alpha:7 from db\n\nipc reg id is :7\n\n" +
           "ipc reg name is :alpha\n\n",
       t + "hashmap_calc: 0: ipc reg name is :alpha\n");
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 0), nullptr);
  said("searching ipc reg db by ipc client id 0\n\nipc reg id is :0\n\n",
       t + "hashset_calc: 0: ipc reg id is :0\n");
  zel_ipc_reg_cleanup(e);
  said(k_in, t + "cleanup: 0: entering\n");
  e = zel_ipc_reg_new(k100.c_str(), 0xffffffffu, 0);  // names of 1 to 100 characters, ids not 0
  said(k_in + "ipc reg id -1 allocated to ipc client " + k100 + "\n\n",  // printed with %d
       t + "new: 0: ipc reg id -1 allocated to ipc client " + k100 + "\n");
  zel_ipc_reg_cleanup(e);
  zel_ipc_reg_mgr_cleanup(&top);
  said(k_in + k_in, t + "mgr_cleanup: 0: entering\n");
  EXPECT_TRUE(top.set == nullptr && top.map == nullptr && top.inited == 1u);
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);  // the module is registered once
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  zel_ipc_reg_mgr_cleanup(&top);
}

// Threads racing through their first set-up register the module once, each going on only once
// it is. Each runs a registry of its own through random adds, deletes and lookups against a
// list in the order first added: a lookup finds the newest with the key (names of 100
// characters differing in the last, looked up longer and shorter); the tables grow and shrink.
TEST(IpcReg, ThreadsRunRegistriesAgainstAModelOfEqualKeys) {
  zel_test::StdoutCapture quiet;
  const long live_before = zel_test::fault_live_blocks();
  const std::string names[] = {"a", "b", "twin", k100, k100.substr(0, 99) + "m"};
  const uint32_t ids[] = {1, 2, 5, 0x80000000u, 0xffffffffu};
  std::barrier start(4);
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      zel_ipc_reg_top_t top{};
      ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
      ASSERT_TRUE(zel_ipc_reg_mgr_amdt.name != nullptr &&
                  zel_ipc_reg_mgr_amdt.error_flag != nullptr);
      std::vector<zel_ipc_reg_t *> linked;
      const auto newest = [&linked](auto same) {
        const auto it = std::find_if(linked.rbegin(), linked.rend(), same);
        return it == linked.rend() ? nullptr : *it;
      };
      std::mt19937 rng(t);
      for (int step = 0; step < 3000; ++step) {
        const unsigned r = rng() % 100;
        if (linked.empty() || r < (step % 1000 < 600 ? 60u : 25u)) {
          zel_ipc_reg_t *e = zel_ipc_reg_new(names[rng() % 5].c_str(), ids[rng() % 5], 0);
          zel_ipc_reg_add(&top, linked.emplace_back(e));
        } else if (r < 70) {
          zel_ipc_reg_add(&top, linked[rng() % linked.size()]);  // changes nothing
        } else {
          const auto victim = linked.begin() + static_cast<std::ptrdiff_t>(rng() % linked.size());
          zel_ipc_reg_delete(&top, *victim);
          zel_ipc_reg_cleanup(*victim);
          linked.erase(victim);
        }
        for (int k = 0; k < 5; ++k) {
          const std::string &n = names[k];
          ASSERT_EQ(zel_ipc_reg_get_by_id(top, ids[k]),
                    newest([&](zel_ipc_reg_t *e) { return e->id == ids[k]; }))
              << step;
          ASSERT_EQ(zel_ipc_reg_get_by_name(top, (n + (n.size() == 100 ? "tail" : "")).c_str()),
                    newest([&](zel_ipc_reg_t *e) { return e->name == n; }))
              << step;
        }
        ASSERT_EQ(zel_ipc_reg_get_by_name(top, k100.substr(0, 99).c_str()), nullptr);
      }
      for (zel_ipc_reg_t *e : linked) {
        zel_ipc_reg_delete(&top, e);
        zel_ipc_reg_cleanup(e);
      }
      EXPECT_EQ(kro_hashset_count(top.set) + kro_hashmap_count(top.map), 0u);
      zel_ipc_reg_mgr_cleanup(&top);
    });
  }
  threads.clear();  // joins them
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
}

// Every allocation of a client's cycle in turn, each failure with its output and error trace
// (code 5): of the set-up (a failed set leaves `map` as it was, a failed map frees the set
// again), of new, and of an add's name pair (not reported: the registration is found by id
// only, and its delete unlinks it from the set).
TEST(IpcRegFault, EveryAllocationOfACycleFailsCleanly) {
  zel_test::StdoutCapture out;
  kro_probe_journal_start();
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    SCOPED_TRACE(n);
    zel_ipc_reg_top_t top{};
    top.map = reinterpret_cast<kro_hashmap_t *>(&top);
    out.take();
    zel_test::FaultScope fault(n);
    if (zel_ipc_reg_mgr_init(&top) != ZEL_IPC_REG_OK) {
      const std::string text = out.take();
      const bool set_failed = text.find("hashmap create") == std::string::npos;
      EXPECT_TRUE(top.set == nullptr && top.inited == 1u &&
                  (!set_failed || top.map == reinterpret_cast<kro_hashmap_t *>(&top)));
      EXPECT_EQ(text, k_in + "hashset create\n\n" + (set_failed ? "" : "hashmap create\n\n") +
                          "memory allocation failure\n\n");
      EXPECT_EQ(last_log(), "error zel_ipc_reg_mgr_init: 5: memory allocation failure\n");
      return true;
    }
    out.take();
    zel_ipc_reg_t *e = zel_ipc_reg_new("client", 2, 0);
    if (e == nullptr) {
      EXPECT_EQ(out.take(), k_in + "unable to allocate ipc reg\n\n");
      EXPECT_EQ(last_log(), "error zel_ipc_reg_new: 5: unable to allocate ipc reg\n");
    } else {
      zel_ipc_reg_add(&top, e);
      EXPECT_EQ(zel_ipc_reg_get_by_id(top, 2), e);
      EXPECT_EQ(zel_ipc_reg_get_by_name(top, "client"), zel_test::fault_fired() ? nullptr : e);
      zel_ipc_reg_delete(&top, e);
      EXPECT_EQ(zel_ipc_reg_get_by_id(top, 2), nullptr);
      zel_ipc_reg_cleanup(e);
    }
    zel_ipc_reg_mgr_cleanup(&top);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(runs, 6u);  // the set and the map (two blocks each), the registration, its pair
}

}  // namespace
