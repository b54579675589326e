// Every allocation failure, with its result, its trace point and nothing leaked; and objects
// used on several threads at once.
#include <functional>
#include <thread>

#include "config_test_util.h"
#include "support/fault.h"

using namespace cfg_test;

namespace {

// Sweeps the Nth allocation of `call` on an object that `prepare` builds outside the armed
// window; `failed(n, result, object)` checks each failure. Returns the allocations made.
unsigned sweep(const std::function<void(zel_util_config_t *)> &prepare,
               const std::function<int32_t(zel_util_config_t *)> &call,
               const std::function<void(unsigned, int32_t, zel_util_config_t *)> &failed) {
  return zel_test::fault_sweep([&](unsigned n) {
    Config c = make();
    prepare(c.get());
    kro_probe_journal_start();
    zel_test::fault_arm(n);
    const int32_t res = call(c.get());
    const bool hit = zel_test::fault_fired();
    zel_test::fault_disarm();
    if (hit) {
      failed(n, res, c.get());
    } else {
      EXPECT_EQ(res, ZEL_CFG_OK);
    }
    return hit;
  });
}

}  // namespace

TEST(ConfigFault, Create) {
  make();  // registers the module
  const unsigned n = zel_test::fault_sweep([](unsigned nth) {
    kro_probe_journal_start();
    zel_test::FaultScope scope(nth);
    Config c(zel_util_config_create("loc1", "snmp"));
    if (zel_test::fault_fired()) {
      EXPECT_EQ(c, nullptr);
      expect_one_trace("zel_util_config_create", "memory allocation failure\n", 5);
    }
    return zel_test::fault_fired();
  });
  EXPECT_EQ(n, 1u);
}

// A first addition allocates the provider part (its failure: result 4) and then, for objects
// and instances, the element (result 5; the list's name and type stay stored).
TEST(ConfigFault, Additions) {
  const struct {
    const char *func;
    std::function<int32_t(zel_util_config_t *)> call;
    unsigned allocations;
    const char *after_element_failure;
  } rows[] = {
      {"zel_util_snmp_add_context", [](auto *c) { return zel_util_snmp_add_context(c, "x"); }, 1,
       ""},
      {"zel_util_snmp_add_object", [](auto *c) { return zel_util_snmp_add_object(c, "n", "1"); }, 2,
       "/loc1/snmp///n;/;;"},
      {"zel_util_snmp_add_instance",
       [](auto *c) {
         return zel_util_snmp_add_instance(c, "r", ZEL_SNMP_INSTANCE_REPEAT, "5", nullptr, 3);
       },
       2, "/loc1/snmp///;/r;repeat;"},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.func);
    const unsigned n =
        sweep([](auto *) {}, r.call,
              [&](unsigned nth, int32_t res, auto *c) {
                if (nth == 1) {
                  EXPECT_EQ(res, ZEL_CFG_EPROVIDER);
                  expect_one_trace("initialize_prov_cfg", "memory allocation failed\n", 5);
                  EXPECT_EQ(c->prov_cfg, nullptr);
                  EXPECT_EQ(zel_util_config_string_get(c), nullptr);
                } else {
                  EXPECT_EQ(res, ZEL_CFG_ENOMEM);
                  expect_one_trace(r.func, "memory allocation failed\n", 5);
                  EXPECT_EQ(str(c), r.after_element_failure);
                }
              });
    EXPECT_EQ(n, r.allocations);
  }
}

// The string's buffer: the object then keeps no current string, and the next build works.
TEST(ConfigFault, StringBuild) {
  const unsigned n = sweep(
      [](auto *c) {
        zel_util_snmp_add_object(c, "n", "o");
        zel_util_config_string_get(c);  // a string to be replaced
      },
      [](auto *c) { return zel_util_config_string_get(c) ? ZEL_CFG_OK : ZEL_CFG_ENOMEM; },
      [](unsigned, int32_t, auto *c) {
        EXPECT_EQ(c->config_str, nullptr);
        expect_one_trace("zel_util_config_string_get", "memory allocation failed\n", 5);
        EXPECT_EQ(str(c), "/loc1/snmp///n;o/;;");
      });
  EXPECT_EQ(n, 1u);
}

// Whole configurations built, rendered and destroyed on four threads at once, with refused
// (traced) additions in between.
TEST(ConfigThreads, IndependentObjectsInParallel) {
  constexpr int kThreads = 4, kRounds = 200;
  make();
  int matched[kThreads] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&matched, t] {
      for (int i = 0; i < kRounds; ++i) {
        Config c(zel_util_config_create("loc1", "snmp"));
        zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6");
        zel_util_snmp_add_object(c.get(), "other", "1");  // refused, traced
        zel_util_snmp_add_instance(c.get(), "ports", ZEL_SNMP_INSTANCE_RANGE, "1", "24", 0);
        zel_util_snmp_add_context(c.get(), "ctxA");
        matched[t] += str(c.get()) == "/loc1/snmp///ifCounters;1.3.6/ports;range;1-24/ctxA";
      }
    });
  }
  for (std::thread &th : threads) {
    th.join();
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(matched[t], kRounds);
  }
}
