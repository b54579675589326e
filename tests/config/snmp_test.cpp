// The SNMP provider: every failure with its result and trace point, and the configuration
// string byte for byte.
#include <gtest/gtest.h>
#include <host/probe.h>

#include <functional>

#include "config_test_util.h"
#include "support/capture.h"

using namespace cfg_test;

namespace {

using Op = std::function<int32_t(zel_util_config_t *)>;
constexpr zel_snmp_instance_type_t kExact = ZEL_SNMP_INSTANCE_EXACT,
                                   kWild = ZEL_SNMP_INSTANCE_WILDCARD,
                                   kRep = ZEL_SNMP_INSTANCE_REPEAT,
                                   kRange = ZEL_SNMP_INSTANCE_RANGE;
const std::string k33 = text(33), k81 = text(81), k257 = text(257, 'c');

void foreign_free(zel_util_config_t *) {}
void foreign_strcat(zel_util_config_t *, char *, int32_t *) {}

Op ctx(const char *c, bool null_cfg = false) {
  return
      [=](zel_util_config_t *cf) { return zel_util_snmp_add_context(null_cfg ? nullptr : cf, c); };
}
Op obj(const char *n, const char *o, bool null_cfg = false) {
  return [=](zel_util_config_t *cf) {
    return zel_util_snmp_add_object(null_cfg ? nullptr : cf, n, o);
  };
}
Op inst(const char *n, zel_snmp_instance_type_t t, const char *oid, const char *end = nullptr,
        int32_t count = 0, bool null_cfg = false) {
  return [=](zel_util_config_t *cf) {
    return zel_util_snmp_add_instance(null_cfg ? nullptr : cf, n, t, oid, end, count);
  };
}
Op foreign() {
  return [](zel_util_config_t *cf) {
    cf->prov_cfg = cf;
    cf->prov_cfg_free = foreign_free;
    cf->prov_cfg_strcat = foreign_strcat;
    return 0;
  };
}

struct FailRow {
  const char *label;
  Op setup;  // run first, must succeed; nullptr for a fresh object
  Op call;
  int32_t result;
  const char *msg;  // nullptr: no trace point
  int code;
  const char *after;  // the string after the call; "(null)": still no provider part
};

const char *const kCtxFn = "zel_util_snmp_add_context", *const kObjFn = "zel_util_snmp_add_object",
                  *const kInstFn = "zel_util_snmp_add_instance";

const char *fn_of(const FailRow &r) {
  return strstr(r.label, "ctx") ? kCtxFn : strstr(r.label, "obj") ? kObjFn : kInstFn;
}

const FailRow kFailRows[] = {
    {"ctx: config NULL", nullptr, ctx("c", true), 1, nullptr, 0, "(null)"},
    {"ctx: context NULL", nullptr, ctx(nullptr), 1, nullptr, 0, "(null)"},
    {"ctx: 257 chars", nullptr, ctx(k257.c_str()), 3, "context string exceeded max limit\n", 3,
     "(null)"},
    {"ctx: other provider", foreign(), ctx("c"), 4, nullptr, 0, "/loc1/snmp//"},
    {"ctx: already set", ctx("first"), ctx("second"), 9, nullptr, 0, "/loc1/snmp///;/;;/first"},
    {"obj: config NULL", nullptr, obj("n", "o", true), 1, nullptr, 0, "(null)"},
    {"obj: name NULL", nullptr, obj(nullptr, "o"), 1, nullptr, 0, "(null)"},
    {"obj: object NULL", nullptr, obj("n", nullptr), 1, nullptr, 0, "(null)"},
    {"obj: name 33", nullptr, obj(k33.c_str(), "o"), 3,
     "object list name/object string exceeds max limit\n", 3, "(null)"},
    {"obj: object 81", nullptr, obj("n", k81.c_str()), 3,
     "object list name/object string exceeds max limit\n", 3, "(null)"},
    {"obj: other provider", foreign(), obj("n", "o"), 4, nullptr, 0, "/loc1/snmp//"},
    {"obj: name case", obj("ifCounters", "1"), obj("ifcounters", "2"), 11,
     "different object list name\n", 45, "/loc1/snmp///ifCounters;1/;;"},
    {"obj: name prefix", obj("ifCounters", "1"), obj("if", "2"), 11, "different object list name\n",
     45, "/loc1/snmp///ifCounters;1/;;"},
    {"inst: config NULL", nullptr, inst("n", kExact, "1", nullptr, 0, true), 4, nullptr, 0,
     "(null)"},
    {"inst: name NULL", nullptr, inst(nullptr, kExact, "1"), 4, nullptr, 0, "(null)"},
    {"inst: name 33", nullptr, inst(k33.c_str(), kExact, "1"), 3,
     "instance list name exceeded max limit\n", 3, "(null)"},
    {"inst: range end NULL, start too long", nullptr, inst("n", kRange, k81.c_str()), 15, nullptr,
     0, "(null)"},
    {"inst: range both too long", nullptr, inst("n", kRange, k81.c_str(), k81.c_str()), 15,
     "end oid exceeded max limit\n", 3, "(null)"},
    {"inst: range start too long", nullptr, inst("n", kRange, k81.c_str(), "2"), 15,
     "start oid exceeded max limit\n", 3, "(null)"},
    {"inst: range start NULL", nullptr, inst("n", kRange, nullptr, "2"), 15, nullptr, 0, "(null)"},
    {"inst: exact OID NULL", nullptr, inst("n", kExact, nullptr), 15, nullptr, 0, "(null)"},
    {"inst: repeat OID NULL", nullptr, inst("n", kRep, nullptr), 15, nullptr, 0, "(null)"},
    {"inst: exact OID 81", nullptr, inst("n", kExact, k81.c_str()), 15,
     "start oid exceeded max limit\n", 3, "(null)"},
    {"inst: repeat OID 81", nullptr, inst("n", kRep, k81.c_str()), 15,
     "start oid exceeded max limit\n", 3, "(null)"},
    {"inst: wildcard OID 81", nullptr, inst("n", kWild, k81.c_str()), 15,
     "wildcard oid exceeded max limit\n", 3, "(null)"},
    {"inst: type 0", nullptr, inst("n", 0, "1"), 31, "unknown type\n", 26, "(null)"},
    {"inst: type 5", nullptr, inst("n", 5, "1"), 31, "unknown type\n", 26, "(null)"},
    {"inst: other provider", foreign(), inst("n", kExact, "1"), 4, nullptr, 0, "/loc1/snmp//"},
    {"inst: name mismatch", inst("ports", kRange, "1", "2"), inst("other", kExact, "1"), 11,
     "instance list name mismatch\n", 44, "/loc1/snmp///;/ports;range;1-2"},
    {"inst: type mismatch", inst("ports", kRange, "1", "2"), inst("ports", kExact, "1"), 11,
     "type mismatch\n", 46, "/loc1/snmp///;/ports;range;1-2"},
    {"inst: empty-name list renamed to another type", inst("", kExact, "1"), inst("x", kRep, "2"),
     11, "type mismatch\n", 46, "/loc1/snmp///;/;exact;1"},
};

}  // namespace

TEST(SnmpAdd, EveryFailureRow) {
  register_module();
  for (const FailRow &r : kFailRows) {
    SCOPED_TRACE(r.label);
    Config c = make();
    if (r.setup) {
      ASSERT_EQ(r.setup(c.get()), 0);
    }
    kro_probe_journal_start();
    EXPECT_EQ(r.call(c.get()), r.result);
    const auto log = logged();
    ASSERT_EQ(log.size(), r.msg ? 1u : 0u);
    if (r.msg != nullptr) {
      EXPECT_EQ(log[0].msg, r.msg);
      EXPECT_EQ(log[0].code, r.code);
      EXPECT_EQ(log[0].func, fn_of(r));
      EXPECT_EQ(log[0].module, "ZEL-CFG-STR");
      EXPECT_EQ(log[0].flag, "ZEL-CFG-STR.error");
    }
    EXPECT_EQ(str(c.get()), r.after);  // a foreign part writes nothing after the header
  }
}

// A full list refuses the 1025th element, frees it and says so.
TEST(SnmpAdd, FullListsRefuseAndFree) {
  register_module();
  Config c = make();
  for (int i = 0; i < ZEL_SNMP_LIST_CAPACITY; ++i) {
    ASSERT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), 0);
    ASSERT_EQ(zel_util_snmp_add_instance(c.get(), "n", kWild, nullptr, nullptr, 0), 0);
  }
  const std::string before = str(c.get());
  kro_probe_journal_start();
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), ZEL_CFG_EFULL);
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "n", kWild, "1", nullptr, 0), ZEL_CFG_EFULL);
  const auto log = logged();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].msg, "object list full\n");
  EXPECT_EQ(log[1].msg, "instance list full\n");
  EXPECT_EQ(log[1].code, ZEL_CFG_EFULL);
  EXPECT_EQ(str(c.get()), before);
}

TEST(SnmpString, WorkedExample) {
  Config c = make();
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6.1.2.1.2.2.1.10"), 0);
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "ifCounters", "1.3.6.1.2.1.2.2.1.16"), 0);
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "ports", kRange, "1", "24", 0), 0);
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "ports", kRange, "101", "124", 0), 0);
  EXPECT_EQ(zel_util_snmp_add_context(c.get(), "ctxA"), 0);
  const std::string s = str(c.get());
  EXPECT_EQ(s,
            "/loc1/snmp///ifCounters;1.3.6.1.2.1.2.2.1.10,1.3.6.1.2.1.2.2.1.16/ports;range;1-24,"
            "101-124/ctxA");
  EXPECT_EQ(s.size(), 95u);
}

TEST(SnmpString, ByteForByte) {
  const std::string o80 = text(80, '1'), n32 = text(32, 'n'), c256 = text(256, 'c');
  struct Row {
    const char *label;
    std::vector<Op> ops;  // each must return 0
    std::string expected;
  } rows[] = {
      {"nothing added but an empty context", {ctx("")}, "/loc1/snmp///;/;;"},
      {"context only", {ctx(""), ctx("ctxA")}, "/loc1/snmp///;/;;/ctxA"},
      {"256-char context", {ctx(c256.c_str())}, "/loc1/snmp///;/;;/" + c256},
      {"one object", {obj("x", "1.3")}, "/loc1/snmp///x;1.3/;;"},
      {"limit-length name and object",
       {obj(n32.c_str(), o80.c_str())},
       "/loc1/snmp///" + n32 + ";" + o80 + "/;;"},
      {"one exact",
       {inst("x", kExact, "1.3.6.1.2.1.1.5.0")},
       "/loc1/snmp///;/x;exact;1.3.6.1.2.1.1.5.0"},
      {"exact ignores end OID and count",
       {inst("x", kExact, "1", k257.c_str(), 7)},
       "/loc1/snmp///;/x;exact;1"},
      {"repeat with negative count",
       {inst("rows", kRep, "5", nullptr, 10), inst("rows", kRep, "7", nullptr, -1)},
       "/loc1/snmp///;/rows;repeat;5-10,7--1"},
      {"repeat extremes",
       {inst("r", kRep, "1", nullptr, INT32_MIN), inst("r", kRep, "", nullptr, 0)},
       "/loc1/snmp///;/r;repeat;1--2147483648,-0"},
      {"wildcards without OID",
       {inst("all", kWild, nullptr), inst("all", kWild, nullptr)},
       "/loc1/snmp///;/all;wildcard;,"},
      {"wildcard with an 80-char OID",
       {inst("w", kWild, o80.c_str())},
       "/loc1/snmp///;/w;wildcard;" + o80},
      {"range at the limits",
       {inst("r", kRange, o80.c_str(), o80.c_str())},
       "/loc1/snmp///;/r;range;" + o80 + "-" + o80},
      {"separators are not escaped",
       {obj("a/b;c", "1,2"), obj("a/b;c", "-/"), inst("i;j", kRange, "1-2", "3,4"), ctx("x/y")},
       "/loc1/snmp///a/b;c;1,2,-//i;j;range;1-2-3,4/x/y"},
      {"empty names rename and keep",
       {obj("", "1"), obj("named", "2"), inst("", kExact, "1"), inst("i", kExact, "2")},
       "/loc1/snmp///named;1,2/i;exact;1,2"},
  };
  for (const Row &r : rows) {
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

// The trace point's steps as seen by the platform, for one row with the error flag on.
TEST(SnmpAdd, TracePointEchoesAndRecordsHistory) {
  register_module();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_ERROR);
  host_probe_history_clear();
  Config c = make();
  zel_test::StdoutCapture out;
  EXPECT_EQ(zel_util_snmp_add_instance(c.get(), "n", 9, "1", nullptr, 0), ZEL_CFG_ETYPE);
  EXPECT_EQ(out.take(), "unknown type\n\n");
  ASSERT_EQ(host_probe_history_count(), 1u);
  uint32_t id = 0, len = 0;
  char rec[32] = {};
  ASSERT_EQ(host_probe_history_get(0, &id, &len, rec, sizeof rec), 0);
  EXPECT_EQ(id, ZEL_TRACE_EVENT_ID);
  EXPECT_EQ(len, 4 + strlen("unknown type\n\n") + 1);
  EXPECT_STREQ(rec + 4, "unknown type\n\n");
}
