// Every allocation failure, with its result, its trace point and nothing leaked; and objects
// used on several threads at once.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "config_test_util.h"
#include "support/fault.h"

using namespace cfg_test;

namespace {

// Sweeps `call` on a fresh object (made outside the armed window): the Nth allocation fails,
// and `check(n, result, object)` checks that failure; the sweep stops at the first success.
unsigned sweep(const std::function<int32_t(zel_util_config_t *)> &call,
               const std::function<void(unsigned, int32_t, zel_util_config_t *)> &check) {
  return zel_test::fault_sweep([&](unsigned n) {
    Config c = make();
    kro_probe_journal_start();
    int32_t res;
    bool hit;
    {
      zel_test::FaultScope scope(n);
      res = call(c.get());
      hit = zel_test::fault_fired();
    }
    if (hit) {
      check(n, res, c.get());
    } else {
      EXPECT_EQ(res, ZEL_CFG_OK);
    }
    return hit;
  });
}

void expect_trace(const char *func, const char *msg) {
  const auto log = logged();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].func, func);
  EXPECT_EQ(log[0].msg, msg);
  EXPECT_EQ(log[0].code, ZEL_CFG_ENOMEM);
}

}  // namespace

TEST(ConfigFault, Create) {
  register_module();
  const unsigned n = zel_test::fault_sweep([](unsigned nth) {
    kro_probe_journal_start();
    zel_test::FaultScope scope(nth);
    Config c = make();
    const bool hit = zel_test::fault_fired();
    if (hit) {
      EXPECT_EQ(c, nullptr);
      expect_trace("zel_util_config_create", "memory allocation failure\n");
    }
    return hit;
  });
  EXPECT_EQ(n, 1u);
}

// First addition: the provider part (result 4), then the element (result 5, the name stays).
TEST(ConfigFault, Additions) {
  register_module();
  struct Row {
    const char *label, *func;
    std::function<int32_t(zel_util_config_t *)> call;
    unsigned allocations;
    const char *name_kept;  // the string after an element failure
  } rows[] = {
      {"context", "zel_util_snmp_add_context",
       [](zel_util_config_t *c) { return zel_util_snmp_add_context(c, "ctxA"); }, 1, nullptr},
      {"object", "zel_util_snmp_add_object",
       [](zel_util_config_t *c) { return zel_util_snmp_add_object(c, "objs", "1.3"); }, 2,
       "/loc1/snmp///objs;/;;"},
      {"instance", "zel_util_snmp_add_instance",
       [](zel_util_config_t *c) {
         return zel_util_snmp_add_instance(c, "rows", ZEL_SNMP_INSTANCE_REPEAT, "5", nullptr, 3);
       },
       2, "/loc1/snmp///;/rows;repeat;"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.label);
    const unsigned n = sweep(r.call, [&](unsigned nth, int32_t res, zel_util_config_t *c) {
      if (nth == 1) {
        EXPECT_EQ(res, ZEL_CFG_EPROVIDER);
        expect_trace("initialize_prov_cfg", "memory allocation failed\n");
        EXPECT_EQ(c->prov_cfg, nullptr);
        EXPECT_EQ(zel_util_config_string_get(c), nullptr);
      } else {
        EXPECT_EQ(res, ZEL_CFG_ENOMEM);
        expect_trace(r.func, "memory allocation failed\n");
        EXPECT_EQ(str(c), r.name_kept);
      }
    });
    EXPECT_EQ(n, r.allocations);
  }
}

TEST(ConfigFault, StringBuild) {
  register_module();
  const unsigned n = zel_test::fault_sweep([](unsigned nth) {
    Config c = make();
    zel_util_snmp_add_object(c.get(), "n", "o");
    zel_util_config_string_get(c.get());  // a string to be replaced
    kro_probe_journal_start();
    zel_test::FaultScope scope(nth);
    const char *s = zel_util_config_string_get(c.get());
    const bool hit = zel_test::fault_fired();
    if (hit) {
      EXPECT_EQ(s, nullptr);
      EXPECT_EQ(c->config_str, nullptr);
      expect_trace("zel_util_config_string_get", "memory allocation failed\n");
      EXPECT_EQ(str(c.get()), "/loc1/snmp///n;o/;;");  // the next build works again
    }
    return hit;
  });
  EXPECT_EQ(n, 1u);
}

// Whole configurations built, rendered and destroyed on four threads at once, with failing
// (traced) additions in between.
TEST(ConfigThreads, IndependentObjectsInParallel) {
  register_module();
  constexpr int kThreads = 4, kRounds = 200;
  const std::string expected =
      "/loc1/snmp///ifCounters;1.3.6.1.2.1.2.2.1.10/ports;range;1-24,101-124/ctxA";
  int matched[kThreads] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        Config c = make();
        zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6.1.2.1.2.2.1.10");
        zel_util_snmp_add_object(c.get(), "other", "1");  // traced mismatch
        zel_util_snmp_add_instance(c.get(), "ports", ZEL_SNMP_INSTANCE_RANGE, "1", "24", 0);
        zel_util_snmp_add_instance(c.get(), "ports", ZEL_SNMP_INSTANCE_RANGE, "101", "124", 0);
        zel_util_snmp_add_context(c.get(), "ctxA");
        matched[t] += zel_util_config_string_get(c.get()) == expected ? 1 : 0;
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
