// The IPC client registry: messages and trace points, equal keys on threads, allocation failures.
#include <host/probe.h>
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"

// The records are the callers': their layout is fixed for both word sizes.
constexpr size_t kP = sizeof(void *);
static_assert(sizeof(zel_ipc_reg_top_t) == 3 * kP && offsetof(zel_ipc_reg_top_t, inited) == 2 * kP);
static_assert(sizeof(zel_ipc_reg_t) == 112 + 3 * kP && offsetof(zel_ipc_reg_t, id) == 2 * kP &&
              offsetof(zel_ipc_reg_t, name) == 2 * kP + 4 &&
              offsetof(zel_ipc_reg_t, data) == 2 * kP + 108);

namespace {

// The last filtered-log entry journalled, as "<flag> <function>: <code>: <message>".
std::string last_log() {
  std::string last;
  char flag[8], fn[40];
  for (int i = 0, at = 0; const char *e = kro_probe_journal_entry(i); ++i, at = 0) {
    sscanf(e, "_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.%7s %*[^:]: %*[^:]: %39[^:]: %*d: %n", flag,
           fn, &at);
    if (at > 0) last = flag + (" " + std::string(fn)) + ": " + (e + at);
  }
  return last;
}

// One client's life, message for message (ids printed signed), and each step's last trace point.
TEST(IpcReg, MessagesAndTracePointsOfOneCycle) {
  kro_probe_journal_start();
  zel_test::StdoutCapture out;
  const auto said = [&out](const std::string &function, const std::vector<std::string> &lines) {
    std::string want;
    for (const std::string &line : lines) want += line + "\n\n";
    EXPECT_EQ(out.take(), want);
    EXPECT_EQ(last_log(), "trace zel_ipc_reg_" + function + ": 0: " + lines.back() + "\n");
  };
  zel_ipc_reg_top_t top{};
  ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
  said("mgr_init", {"entering", "hashset create", "hashmap create"});
  zel_ipc_reg_t *e = zel_ipc_reg_new("alpha", 0xffffffffu, 0);
  said("new", {"entering", "ipc reg id -1 allocated to ipc client alpha"});
  zel_ipc_reg_add(&top, e);
  said("hashmap_calc", {"entering", "adding ipc client alpha:-1 to db", "ipc reg id is :-1",
                        "ipc reg name is :alpha"});
  EXPECT_EQ(zel_ipc_reg_get_by_name(top, "alpha"), e);
  said("hashmap_matcher", {"entering", "searching ipc reg db by name alpha",
                           "ipc reg name is :alpha", "The value 1:alpha 2:alpha"});
  EXPECT_EQ(zel_ipc_reg_get_by_id(top, 0xffffffffu), e);
  said("hashset_matcher", {"searching ipc reg db by ipc client id -1", "ipc reg id is :-1",
                           "The value 1:-1:, 2 :-1:"});
  zel_ipc_reg_delete(&top, e);
  said("hashmap_calc", {"entering", "deleting ipc client alpha:-1 from db", "ipc reg id is :-1",
                        "ipc reg name is :alpha"});
  zel_ipc_reg_cleanup(e);
  zel_ipc_reg_mgr_cleanup(&top);
  said("mgr_cleanup", {"entering", "entering"});
  EXPECT_TRUE(top.set == nullptr && top.map == nullptr && top.inited == 1u);
}

// Threads racing through their first set-up register the module once; each runs a registry of
// its own against a model: a lookup finds the newest with the key (names cut at 100 characters).
TEST(IpcReg, ThreadsRunRegistriesAgainstAModelOfEqualKeys) {
  zel_test::StdoutCapture quiet;
  const std::string k100(100, 'n'), names[] = {"a", "b", "twin", k100, k100.substr(0, 99) + "m"};
  const uint32_t ids[] = {1, 2, 5, 0x80000000u, 0xffffffffu};
  const auto run = [&](unsigned t) {
    zel_ipc_reg_top_t top{};
    ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
    std::vector<zel_ipc_reg_t *> linked;
    std::mt19937 rng(t);
    for (int step = 0; step < 3000 || !linked.empty(); ++step) {  // then deletes them all
      const unsigned r = step < 3000 ? rng() % 100 : 99;
      if (linked.empty() || r < (step % 1000 < 600 ? 60u : 25u)) {
        zel_ipc_reg_t *e = zel_ipc_reg_new(names[rng() % 5].c_str(), ids[rng() % 5], 0);
        zel_ipc_reg_add(&top, linked.emplace_back(e));
      } else {
        const auto victim = linked.begin() + static_cast<std::ptrdiff_t>(rng() % linked.size());
        zel_ipc_reg_delete(&top, *victim);
        zel_ipc_reg_cleanup(*victim);
        linked.erase(victim);
      }
      for (int k = 0; k < 5; ++k) {
        zel_ipc_reg_t *by_id = nullptr, *by_name = nullptr;  // the newest with each key
        for (zel_ipc_reg_t *e : linked) {
          by_id = e->id == ids[k] ? e : by_id;
          by_name = e->name == names[k] ? e : by_name;
        }
        ASSERT_EQ(zel_ipc_reg_get_by_id(top, ids[k]), by_id);
        ASSERT_EQ(zel_ipc_reg_get_by_name(top, (names[k] + (k > 2 ? "tail" : "")).c_str()),
                  by_name);
      }
      ASSERT_EQ(zel_ipc_reg_get_by_name(top, k100.substr(0, 99).c_str()), nullptr);
    }
    zel_ipc_reg_mgr_cleanup(&top);
  };
  { std::jthread a(run, 0), b(run, 1), c(run, 2), d(run, 3); }
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
}

// Each allocation of a cycle fails in turn with its error trace (code 5): the set-up's (a failed
// set leaves `map` alone), new's, and an add's name pair (not reported: found by id only).
TEST(IpcRegFault, EveryAllocationOfACycleFailsCleanly) {
  zel_test::StdoutCapture quiet;
  kro_probe_journal_start();
  int init_failures = 0;
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    zel_ipc_reg_top_t top{nullptr, reinterpret_cast<kro_hashmap_t *>(&top), 0};
    zel_test::FaultScope fault(n);
    if (zel_ipc_reg_mgr_init(&top) != ZEL_IPC_REG_OK) {  // the set's two blocks first
      EXPECT_TRUE(top.set == nullptr && top.inited == 1u &&
                  (++init_failures > 2 || top.map == reinterpret_cast<kro_hashmap_t *>(&top)));
      EXPECT_EQ(last_log(), "error zel_ipc_reg_mgr_init: 5: memory allocation failure\n");
      return true;
    }
    zel_ipc_reg_t *e = zel_ipc_reg_new("client", 2, 0);  // when NULL, refused below
    EXPECT_TRUE(e || last_log() == "error zel_ipc_reg_new: 5: unable to allocate ipc reg\n");
    zel_ipc_reg_add(&top, e);
    EXPECT_EQ(zel_ipc_reg_get_by_name(top, "client"), zel_test::fault_fired() ? nullptr : e);
    zel_ipc_reg_delete(&top, e);
    EXPECT_EQ(zel_ipc_reg_get_by_id(top, 2), nullptr);
    zel_ipc_reg_cleanup(e);
    zel_ipc_reg_mgr_cleanup(&top);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(runs, 6u);  // the set and the map (two blocks each), the registration, its pair
}

}  // namespace
