// The SNMP provider: every refusal with its result and trace point, and the configuration
// string byte for byte.
#include <functional>

#include "config_test_util.h"
#include "support/fault.h"

using namespace cfg_test;

namespace {

using Op = std::function<int32_t(zel_util_config_t *)>;
constexpr zel_snmp_instance_type_t kExact = ZEL_SNMP_INSTANCE_EXACT,
                                   kWild = ZEL_SNMP_INSTANCE_WILDCARD,
                                   kRep = ZEL_SNMP_INSTANCE_REPEAT,
                                   kRange = ZEL_SNMP_INSTANCE_RANGE;
const std::string k33(33, 'n'), k81s(81, 'o'), k257s(257, 'c');
const char *const k81 = k81s.c_str(), *const k257 = k257s.c_str();

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
void foreign_free(zel_util_config_t *) {}
void foreign_strcat(zel_util_config_t *, char *, int32_t *) {}
const Op kForeign = [](zel_util_config_t *cf) {  // another provider attaches first
  cf->prov_cfg = cf;
  cf->prov_cfg_free = foreign_free;
  cf->prov_cfg_strcat = foreign_strcat;
  return 0;
};

const char *const kCtxLong = "context string exceeded max limit\n",
                  *const kObjLong = "object list name/object string exceeds max limit\n",
                  *const kStart = "start oid exceeded max limit\n";

struct FailRow {
  const char *label;  // begins with the operation: ctx, obj or inst
  Op setup, call;     // setup (may be empty) must return 0
  int32_t result;
  const char *after = "(null)";  // the string afterwards; "(null)": still no provider part
  const char *msg = nullptr;     // the trace point's message, or none
  int code = 0;
};

const FailRow kFailRows[] = {
    {"ctx: config NULL", {}, [](auto *) { return zel_util_snmp_add_context(nullptr, "c"); }, 1},
    {"ctx: context NULL", {}, ctx(nullptr), 1},
    {"ctx: 257 chars", {}, ctx(k257), 3, "(null)", kCtxLong, 3},
    {"ctx: other provider", kForeign, ctx("c"), 4, "/loc1/snmp//"},
    {"ctx: already set", ctx("first"), ctx("second"), 9, "/loc1/snmp///;/;;/first"},
    {"obj: config NULL", {}, [](auto *) { return zel_util_snmp_add_object(nullptr, "n", "o"); }, 1},
    {"obj: name NULL", {}, obj(nullptr, "o"), 1},
    {"obj: object NULL", {}, obj("n", nullptr), 1},
    {"obj: name 33", {}, obj(k33.c_str(), "o"), 3, "(null)", kObjLong, 3},
    {"obj: object 81", {}, obj("n", k81), 3, "(null)", kObjLong, 3},
    {"obj: other provider", kForeign, obj("n", "o"), 4, "/loc1/snmp//"},
    {"obj: name case", obj("ifX", "1"), obj("ifx", "2"), 11, "/loc1/snmp///ifX;1/;;",
     "different object list name\n", 45},
    {"obj: name prefix", obj("ifX", "1"), obj("if", "2"), 11, "/loc1/snmp///ifX;1/;;",
     "different object list name\n", 45},
    {"inst: config NULL",
     {},
     [](auto *) { return zel_util_snmp_add_instance(nullptr, "n", 1, "1", 0, 0); },
     4},
    {"inst: name NULL", {}, inst(nullptr, kExact, "1"), 4},
    {"inst: name 33",
     {},
     inst(k33.c_str(), kExact, "1"),
     3,
     "(null)",
     "instance list name exceeded max limit\n",
     3},
    {"inst: range end NULL, start too long", {}, inst("n", kRange, k81), 15},
    {"inst: range both too long",
     {},
     inst("n", kRange, k81, k81),
     15,
     "(null)",
     "end oid exceeded max limit\n",
     3},
    {"inst: range start too long", {}, inst("n", kRange, k81, "2"), 15, "(null)", kStart, 3},
    {"inst: range start NULL", {}, inst("n", kRange, nullptr, "2"), 15},
    {"inst: exact OID NULL", {}, inst("n", kExact, nullptr), 15},
    {"inst: repeat OID NULL", {}, inst("n", kRep, nullptr), 15},
    {"inst: exact OID 81", {}, inst("n", kExact, k81), 15, "(null)", kStart, 3},
    {"inst: repeat OID 81", {}, inst("n", kRep, k81), 15, "(null)", kStart, 3},
    {"inst: wildcard OID 81",
     {},
     inst("n", kWild, k81),
     15,
     "(null)",
     "wildcard oid exceeded max limit\n",
     3},
    {"inst: type 0", {}, inst("n", 0, "1"), 31, "(null)", "unknown type\n", 26},
    {"inst: type 5", {}, inst("n", 5, "1"), 31, "(null)", "unknown type\n", 26},
    {"inst: other provider", kForeign, inst("n", kExact, "1"), 4, "/loc1/snmp//"},
    {"inst: name mismatch", inst("p", kRange, "1", "2"), inst("q", kExact, "1"), 11,
     "/loc1/snmp///;/p;range;1-2", "instance list name mismatch\n", 44},
    {"inst: type mismatch", inst("p", kRange, "1", "2"), inst("p", kExact, "1"), 11,
     "/loc1/snmp///;/p;range;1-2", "type mismatch\n", 46},
    {"inst: empty-named list renamed with another type", inst("", kExact, "1"),
     inst("x", kRep, "2"), 11, "/loc1/snmp///;/;exact;1", "type mismatch\n", 46},
};

}  // namespace

TEST(SnmpAdd, EveryRefusal) {
  for (const FailRow &r : kFailRows) {
    SCOPED_TRACE(r.label);
    Config c = make();
    ASSERT_EQ(r.setup ? r.setup(c.get()) : 0, 0);
    kro_probe_journal_start();
    EXPECT_EQ(r.call(c.get()), r.result);
    if (r.msg != nullptr) {
      const char *op = strncmp(r.label, "ctx", 3) == 0   ? "context"
                       : strncmp(r.label, "obj", 3) == 0 ? "object"
                                                         : "instance";
      expect_one_trace(("zel_util_snmp_add_" + std::string(op)).c_str(), r.msg, r.code);
    } else {
      EXPECT_EQ(logged().size(), 0u);
    }
    EXPECT_EQ(str(c.get()), r.after);  // a foreign part writes nothing after the header
  }
}

// A full list refuses the next element, frees it and says so.
TEST(SnmpAdd, FullListsRefuseAndFree) {
  Config c = make();
  for (int i = 0; i < ZEL_SNMP_LIST_CAPACITY; ++i) {
    ASSERT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), 0);
    ASSERT_EQ(zel_util_snmp_add_instance(c.get(), "n", kWild, nullptr, nullptr, 0), 0);
  }
  const std::string before = str(c.get());
  const long live = zel_test::fault_live_blocks();
  kro_probe_journal_start();
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), ZEL_CFG_EFULL);
  expect_one_trace("zel_util_snmp_add_object", "object list full\n", ZEL_CFG_EFULL);
  kro_probe_journal_start();
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "n", kWild, "1", nullptr, 0), ZEL_CFG_EFULL);
  expect_one_trace("zel_util_snmp_add_instance", "instance list full\n", ZEL_CFG_EFULL);
  EXPECT_EQ(zel_test::fault_live_blocks(), live);
  EXPECT_EQ(str(c.get()), before);
}

TEST(SnmpString, WorkedExample) {
  Config c = make();
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6.1.2.1.2.2.1.10"), 0);
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6.1.2.1.2.2.1.16"), 0);
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "ports", kRange, "1", "24", 0), 0);
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "ports", kRange, "101", "124", 0), 0);
  EXPECT_EQ(zel_util_snmp_add_context(c.get(), "ctxA"), 0);
  zel_test::fault_arm(0);
  const char *built = zel_util_config_string_get(c.get());
  EXPECT_EQ(zel_test::fault_allocations(), 1u);
  expect_block_size(built, 96);
  EXPECT_STREQ(built,
               "/loc1/snmp///ifCounters;1.3.6.1.2.1.2.2.1.10,1.3.6.1.2.1.2.2.1.16/ports;range;"
               "1-24,101-124/ctxA");
  EXPECT_EQ(strlen(built), 95u);
}

TEST(SnmpString, ByteForByte) {
  const std::string o80(80, '1'), n32(32, 'n'), c256(256, 'c'), h = "/loc1/snmp//";
  const struct {
    const char *label;
    std::vector<Op> ops;  // each must return 0
    std::string expected;
  } rows[] = {
      {"nothing but an empty context", {ctx("")}, h + "/;/;;"},
      {"context after an empty one", {ctx(""), ctx("ctxA")}, h + "/;/;;/ctxA"},
      {"texts at their limits",
       {obj(n32.c_str(), o80.c_str()), inst(n32.c_str(), kRange, o80.c_str(), o80.c_str()),
        ctx(c256.c_str())},
       h + "/" + n32 + ";" + o80 + "/" + n32 + ";range;" + o80 + "-" + o80 + "/" + c256},
      {"exact ignores end OID and count",
       {inst("x", kExact, "1.3.6.1.2.1.1.5.0", k257, 7)},
       h + "/;/x;exact;1.3.6.1.2.1.1.5.0"},
      {"repeats",
       {inst("r", kRep, "5", k257, 10), inst("r", kRep, "7", 0, -1),
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
  for (const auto &r : rows) {
    SCOPED_TRACE(r.label);
    Config c = make();
    for (const Op &op : r.ops) {
      ASSERT_EQ(op(c.get()), 0);
    }
    EXPECT_EQ(str(c.get()), r.expected);
  }
  Config bare = make("", "");
  ASSERT_EQ(zel_util_snmp_add_context(bare.get(), ""), 0);
  EXPECT_EQ(str(bare.get()), "/////;/;;");
}
