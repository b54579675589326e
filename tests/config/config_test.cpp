// The configuration string byte for byte in one allocation (objects used on several threads at
// once), the append primitive's cut, every allocation failure with its result and trace point.
#include <gtest/gtest.h>
#include <kro/probe.h>
#include <zel/config.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <cstdio>
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

Config make() {  // the trace module is left unregistered: its points log all the same
  return Config(zel_util_config_create("loc1", "snmp"), zel_util_config_destroy);
}
Op ctx(const char *c) {
  return [=](zel_util_config_t *cf) { return zel_util_snmp_add_context(cf, c); };
}
Op obj(const char *n, const char *o) {
  return [=](zel_util_config_t *cf) { return zel_util_snmp_add_object(cf, n, o); };
}
Op inst(const char *n, int t, const char *oid, const char *end = nullptr, int32_t count = 0) {
  return [=](zel_util_config_t *cf) {
    return zel_util_snmp_add_instance(cf, n, zel_snmp_instance_type_t(t), oid, end, count);
  };
}

// Each string byte for byte (exact: no end or count; "": no context; the corpus has the rest), in
// one allocation of its length and terminator, the one replaced kept until the next; on 4 threads.
TEST(SnmpString, ByteForByte) {
  const std::string o80(80, '1'), n32(32, 'n'), c256(256, 'c'), h = "/loc1/snmp//";
  const std::pair<std::vector<Op>, std::string> rows[] = {
      {{obj("if", "1.10"), obj("if", "1.16"), inst("p", ZEL_SNMP_INSTANCE_RANGE, "1", "24"),
        inst("p", ZEL_SNMP_INSTANCE_RANGE, "101", "124"), ctx(""), ctx("ctxA")},
       h + "/if;1.10,1.16/p;range;1-24,101-124/ctxA"},
      {{obj(n32.c_str(), o80.c_str()),  // texts at their limits
        inst(n32.c_str(), ZEL_SNMP_INSTANCE_RANGE, o80.c_str(), o80.c_str()), ctx(c256.c_str())},
       h + "/" + n32 + ";" + o80 + "/" + n32 + ";range;" + o80 + "-" + o80 + "/" + c256},
      {{inst("x", ZEL_SNMP_INSTANCE_EXACT, "1.5", "2", 7)}, h + "/;/x;exact;1.5"}};
  const auto check = [&rows] {
    for (int i = 0; i < 150; ++i) {
      const auto &[ops, expected] = rows[i % 3];
      Config c = make();
      for (const Op &op : ops) ASSERT_EQ(op(c.get()), 0) << expected;
      const char *first = zel_util_config_string_get(c.get());
      zel_test::fault_arm(0);
      const char *built = zel_util_config_string_get(c.get());
      EXPECT_EQ(zel_test::fault_allocations(), 1u);
      EXPECT_EQ(built ? built : "(null)", expected);
      EXPECT_STREQ(first, built);  // the replaced string stays readable until the next build
#if defined(__SANITIZE_ADDRESS__)
      EXPECT_EQ(__sanitizer_get_allocated_size(built), expected.size() + 1);
#endif
    }
  };
  std::jthread a(check), b(check), c(check), d(check);
}

// The append primitive, an outside provider's only writer, counts, appends and cuts at the room.
TEST(CfgStrcat, AppendsAndCutsAtTheRoomLeft) {
  for (auto [before, counter, src, want, left] : {std::tuple{"", 8, "abc", "abc", 5},
                                                  {"ab", 6, "cdefg", "abcdefg", 0},
                                                  {"ab", 6, "cdefghij", "abcdefg", 0}}) {
    char buf[9] = {};  // room for 8 characters, and a guard byte
    cfg_strcat(strcat(buf, before), src, &counter);
    EXPECT_EQ(std::tuple(std::string(buf), counter, buf[8]), std::tuple(want, left, '\0')) << src;
  }
}

// Each failing allocation of `call`: "<result> <function>: <code>: <message>", string after, "|".
std::string failures(const Op &call, const Op &prepare = nullptr) {
  std::string out;
  zel_test::fault_sweep([&](unsigned n) {
    Config c = make();
    if (prepare) prepare(c.get());
    kro_probe_journal_start();
    zel_test::fault_arm(n);
    std::string line = std::to_string(call(c.get())) + " ";
    const bool hit = zel_test::fault_fired();
    zel_test::fault_disarm();
    for (int i = 0, fn = 0, at = 0; const char *e = kro_probe_journal_entry(i); ++i, at = 0) {
      sscanf(e, "_kro_dt_log_filter_adv %*[^:]: %*[^:]: %n%*[^:]: %*d: %n", &fn, &at);
      if (at > 0) line += std::string(e + fn, strchr(e + fn, ':')) + ": " + (e + at);
    }
    const char *s = zel_util_config_string_get(c.get());
    if (hit) out += line + (s ? s : "(null)") + "|";
    return hit;
  });
  return out;
}

// A first addition allocates the provider part (result 4), then the element (5; the list's name
// and type stay stored). A failed string build keeps no string, and the next build works.
TEST(ConfigFault, EveryAllocation) {
  const std::string part = "4 initialize_prov_cfg: 5: memory allocation failed\n(null)|",
                    failed = ": 5: memory allocation failed\n";
  EXPECT_EQ(failures([](zel_util_config_t *) { return make() ? 0 : ZEL_CFG_ENOMEM; }),
            "5 zel_util_config_create: 5: memory allocation failure\n(null)|");
  EXPECT_EQ(failures(ctx("x")), part);
  EXPECT_EQ(failures(obj("n", "1")),
            part + "5 zel_util_snmp_add_object" + failed + "/loc1/snmp///n;/;;|");
  EXPECT_EQ(failures(inst("r", ZEL_SNMP_INSTANCE_REPEAT, "5", nullptr, 3)),
            part + "5 zel_util_snmp_add_instance" + failed + "/loc1/snmp///;/r;repeat;|");
  const Op build = [](zel_util_config_t *c) {  // 5 when it fails and keeps no string
    return zel_util_config_string_get(c) || c->config_str ? 0 : 5;
  };
  EXPECT_EQ(failures(build, [&](zel_util_config_t *c) { return obj("n", "o")(c) + build(c); }),
            "5 zel_util_config_string_get" + failed + "/loc1/snmp///n;o/;;|");
}

}  // namespace
