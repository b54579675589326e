// The configuration string byte for byte and in one allocation (objects used on several threads
// at once), the append primitive's cut, every allocation failure with its result and trace point.
// (Refusals and their trace points are in the bad-input table.)
#include <gtest/gtest.h>
#include <kro/probe.h>
#include <zel/config.h>
#include <zel/trace.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/fault.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_allocated_size(const volatile void *p);
#endif

// The object's layout is shared with external providers: 40 bytes on 32-bit, 56 on 64-bit.
static_assert(offsetof(zel_util_config_t, provider) == 11 &&
              offsetof(zel_util_config_t, config_str) == 24 &&
              offsetof(zel_util_config_t, prov_cfg_strcat) == 24 + 3 * sizeof(void *) &&
              sizeof(zel_util_config_t) == 24 + 4 * sizeof(void *));

namespace {

using Config = std::unique_ptr<zel_util_config_t, void (*)(zel_util_config_t *)>;
using Op = std::function<int32_t(zel_util_config_t *)>;

Config make(const char *loc = "loc1", const char *prov = "snmp") {
  static const bool registered = (zel_cfg_string_dt_init_once(), true);
  (void)registered;
  return Config(zel_util_config_create(loc, prov), zel_util_config_destroy);
}

Op ctx(const char *c) {
  return [=](zel_util_config_t *cf) { return zel_util_snmp_add_context(cf, c); };
}
Op obj(const char *n, const char *o) {
  return [=](zel_util_config_t *cf) { return zel_util_snmp_add_object(cf, n, o); };
}
Op inst(const char *n, zel_snmp_instance_type_t t, const char *oid, const char *end = nullptr,
        int32_t count = 0) {
  return
      [=](zel_util_config_t *cf) { return zel_util_snmp_add_instance(cf, n, t, oid, end, count); };
}

constexpr zel_snmp_instance_type_t kExact = ZEL_SNMP_INSTANCE_EXACT,
                                   kWild = ZEL_SNMP_INSTANCE_WILDCARD,
                                   kRep = ZEL_SNMP_INSTANCE_REPEAT,
                                   kRange = ZEL_SNMP_INSTANCE_RANGE;

// Each string byte for byte, built in one allocation of its length plus the terminator; a build
// frees the string replaced by the one before it. Objects are independent: four threads build,
// render and destroy them at once, with a refused (traced) addition in between.
TEST(SnmpString, ByteForByte) {
  const std::string o80(80, '1'), n32(32, 'n'), c256(256, 'c'), k257(257, 'c'), h = "/loc1/snmp//";
  const struct {
    const char *label;
    std::vector<Op> ops;  // each must return 0
    std::string expected;
  } rows[] = {
      {"worked example",
       {obj("ifCounters", "1.3.6.1.2.1.2.2.1.10"), obj("ifCounters", "1.3.6.1.2.1.2.2.1.16"),
        inst("ports", kRange, "1", "24"), inst("ports", kRange, "101", "124"), ctx("ctxA")},
       h + "/ifCounters;1.3.6.1.2.1.2.2.1.10,1.3.6.1.2.1.2.2.1.16/ports;range;1-24,101-124/ctxA"},
      {"an empty context leaves it unset", {ctx(""), ctx("ctxA")}, h + "/;/;;/ctxA"},
      {"texts at their limits",
       {obj(n32.c_str(), o80.c_str()), inst(n32.c_str(), kRange, o80.c_str(), o80.c_str()),
        ctx(c256.c_str())},
       h + "/" + n32 + ";" + o80 + "/" + n32 + ";range;" + o80 + "-" + o80 + "/" + c256},
      {"exact ignores end OID and count",
       {inst("x", kExact, "1.3.6.1.2.1.1.5.0", k257.c_str(), 7)},
       h + "/;/x;exact;1.3.6.1.2.1.1.5.0"},
      {"repeats",
       {inst("r", kRep, "5", k257.c_str(), 10), inst("r", kRep, "7", 0, -1),
        inst("r", kRep, "", 0, INT32_MIN)},
       h + "/;/r;repeat;5-10,7--1,--2147483648"},
      {"wildcards",
       {inst("w", kWild, nullptr), inst("w", kWild, nullptr), inst("w", kWild, "1")},
       h + "/;/w;wildcard;,,1"},
      {"separators are not escaped",
       {obj("a/b;c", "1,2"), obj("a/b;c", "-/"), inst("i;j", kRange, "1-2", "3,4"), ctx("x/y")},
       h + "/a/b;c;1,2,-//i;j;range;1-2-3,4/x/y"},
      {"empty names: renamed, elements kept",
       {obj("", "1"), obj("o", "2"), inst("", kExact, "1"), inst("i", kExact, "2")},
       h + "/o;1,2/i;exact;1,2"},
  };
  const auto check = [&rows] {
    for (const auto &r : rows) {
      SCOPED_TRACE(r.label);
      Config c = make();
      for (const Op &op : r.ops) {
        ASSERT_EQ(op(c.get()), 0);
      }
      ASSERT_EQ(inst("n", 5, "1")(c.get()), ZEL_CFG_ETYPE);  // refused and traced: no change
      const char *first = zel_util_config_string_get(c.get());
      zel_test::fault_arm(0);
      const char *built = zel_util_config_string_get(c.get());
      EXPECT_EQ(zel_test::fault_allocations(), 1u);
      ASSERT_NE(built, nullptr);
      EXPECT_EQ(built, r.expected);
      EXPECT_STREQ(first, built);  // the replaced string stays readable until the next build
#if defined(__SANITIZE_ADDRESS__)
      EXPECT_EQ(__sanitizer_get_allocated_size(built), r.expected.size() + 1);
#endif
    }
  };
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&check] {
      for (int i = 0; i < 50; ++i) check();
    });
  }
}

// The exported append primitive counts, appends and cuts at the room left (an outside provider
// writes through it alone; the string builds never cut).
TEST(CfgStrcat, AppendsAndCutsAtTheRoomLeft) {
  for (auto [before, counter, src, want, left] : {std::tuple{"", 8, "abc", "abc", 5},
                                                  {"ab", 6, "cdefg", "abcdefg", 0},
                                                  {"ab", 6, "cdefghij", "abcdefg", 0}}) {
    SCOPED_TRACE(std::string(before) + " + " + src);
    char buf[9] = {};  // room for 8 characters, and a guard byte
    strcpy(buf, before);
    cfg_strcat(buf, src, &counter);
    EXPECT_EQ(std::tuple(std::string(buf), counter, buf[8]), std::tuple(want, left, '\0'));
  }
}

// Each allocation of `call` fails in turn, on an object `prepare` built: for each failure, its
// result, its one error trace point ("<function>: <code>: <message>") and the string afterwards.
std::vector<std::string> failures(const Op &prepare, const Op &call) {
  std::vector<std::string> out;
  zel_test::fault_sweep([&](unsigned n) {
    Config c = make();
    prepare(c.get());
    kro_probe_journal_start();
    zel_test::fault_arm(n);
    const int32_t res = call(c.get());
    const bool hit = zel_test::fault_fired();
    zel_test::fault_disarm();
    EXPECT_TRUE(hit || res == ZEL_CFG_OK) << res;
    std::string line = "?";
    for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) {
      const std::string entry = e, module = ": ZEL-CFG-STR: ";
      const size_t at = entry.find(module) + module.size(), end = entry.find(": ", at);
      if (entry.starts_with("_kro_dt_log_filter_adv ZEL-CFG-STR.error ")) {
        line = line == "?" ? entry.substr(at, end - at) + entry.substr(entry.find(": ", end + 2))
                           : "more than one";
      }
    }
    const char *s = zel_util_config_string_get(c.get());
    if (hit) out.push_back(std::to_string(res) + " " + line + (s ? s : "(null)"));
    return hit;
  });
  return out;
}

// A first addition allocates the provider part (result 4) and then, for objects and instances,
// the element (result 5; the list's name and type stay stored). A failed string build keeps no
// string, and the next build works.
TEST(ConfigFault, EveryAllocation) {
  using Traces = std::vector<std::string>;
  const Op none = [](zel_util_config_t *) { return 0; };
  const std::string part = "4 initialize_prov_cfg: 5: memory allocation failed\n(null)",
                    failed = ": 5: memory allocation failed\n";
  EXPECT_EQ(failures(none, [](zel_util_config_t *) { return make("l", "p") ? 0 : ZEL_CFG_ENOMEM; }),
            Traces{"5 zel_util_config_create: 5: memory allocation failure\n(null)"});
  EXPECT_EQ(failures(none, ctx("x")), Traces{part});
  EXPECT_EQ(failures(none, obj("n", "1")),
            (Traces{part, "5 zel_util_snmp_add_object" + failed + "/loc1/snmp///n;/;;"}));
  EXPECT_EQ(failures(none, inst("r", kRep, "5", nullptr, 3)),
            (Traces{part, "5 zel_util_snmp_add_instance" + failed + "/loc1/snmp///;/r;repeat;"}));
  const Op built = [](zel_util_config_t *c) {  // a string to be replaced
    return zel_util_snmp_add_object(c, "n", "o") + (zel_util_config_string_get(c) ? 0 : 1);
  };
  EXPECT_EQ(failures(built,
                     [](zel_util_config_t *c) {
                       return zel_util_config_string_get(c) || c->config_str ? 0 : 5;
                     }),
            Traces{"5 zel_util_config_string_get" + failed + "/loc1/snmp///n;o/;;"});
}

}  // namespace
