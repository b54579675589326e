// Bad input to the configuration objects and SNMP additions: NULL and overlong texts, bad OIDs and
// types, disagreeing or full lists, a part counting badly. Rows give their error trace points.
#include <kro/probe.h>
#include <zel/config.h>
#include <zel/trace.h>

#include <cstdio>

#include "support/bad_input.h"

namespace {

constexpr auto kExact = ZEL_SNMP_INSTANCE_EXACT, kRange = ZEL_SNMP_INSTANCE_RANGE;
const std::string k33(ZEL_SNMP_LIST_NAME_MAX + 1, 'x'), k81(ZEL_SNMP_OID_MAX + 1, 'x');
const char *const k33s = k33.c_str(), *const k81s = k81.c_str();
zel_util_config_t *g_cfg, *g_bad, *g_full;  // bare; counting badly; with everything full
std::string g_full_str;

const auto ctx = zel_util_snmp_add_context;
const auto obj = zel_util_snmp_add_object;
int32_t inst(zel_util_config_t *c, const char *name, int type, const char *oid,
             const char *end = nullptr) {
  return zel_util_snmp_add_instance(c, name, zel_snmp_instance_type_t(type), oid, end, 0);
}
void bad_strcat(zel_util_config_t *, char *dst, int32_t *counter) {
  if (dst == nullptr) *counter = INT32_MIN;
}
// The trace points as "<code>: <message>", and every object as it was.
void left_alone(const zel_bad_input::Row &row) {
  std::string log;
  for (int i = 0, at = 0; const char *e = kro_probe_journal_entry(i); ++i, at = 0) {
    sscanf(e, "_kro_dt_log_filter_adv %*[^:]: %*[^:]: %*[^:]: %*d: %n", &at);
    if (at > 0) log += e + at;
  }
  EXPECT_EQ(log, row.log ? row.log : log);
  EXPECT_TRUE(g_cfg->prov_cfg == nullptr && zel_util_config_string_get(g_cfg) == nullptr);
  EXPECT_EQ(zel_util_config_string_get(g_full), g_full_str);
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_util_config_create(nullptr, "p"), nullptr),
    ZEL_BAD_ROW(zel_util_config_create("01234567890", "p"), nullptr,
                "3: location/provider string exceeded max limit\n"),
    ZEL_BAD_ROW(ctx(g_cfg, std::string(ZEL_SNMP_CONTEXT_MAX + 1, 'x').c_str()), ZEL_CFG_ETOOLONG,
                "3: context string exceeded max limit\n"),
    ZEL_BAD_ROW(obj(g_cfg, "L", nullptr), ZEL_CFG_EMISSING),
    ZEL_BAD_ROW(obj(g_cfg, k33s, "o"), ZEL_CFG_ETOOLONG,
                "3: object list name/object string exceeds max limit\n"),
    ZEL_BAD_ROW(inst(nullptr, "I", kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_cfg, k33s, kExact, "1"), ZEL_CFG_ETOOLONG,
                "3: instance list name exceeded max limit\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", 5, "1"), ZEL_CFG_ETYPE, "26: unknown type\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, k81s, k81s), ZEL_CFG_EOID,  // the end first
                "3: end oid exceeded max limit\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, k81s, "2"), ZEL_CFG_EOID,
                "3: start oid exceeded max limit\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", ZEL_SNMP_INSTANCE_WILDCARD, k81s), ZEL_CFG_EOID,
                "3: wildcard oid exceeded max limit\n"),
    ZEL_BAD_ROW(ctx(g_full, "second"), ZEL_CFG_EEXIST, ""),
    ZEL_BAD_ROW(obj(g_full, "if", "2"), ZEL_CFG_EMISMATCH, "45: different object list name\n"),
    ZEL_BAD_ROW(obj(g_full, "ifX", "2"), ZEL_CFG_EFULL, "28: object list full\n"),
    ZEL_BAD_ROW(inst(g_full, "q", kRange, "1", "2"), ZEL_CFG_EMISMATCH,
                "44: instance list name mismatch\n"),
    ZEL_BAD_ROW(inst(g_full, "p", kExact, "1"), ZEL_CFG_EMISMATCH, "46: type mismatch\n"),
    ZEL_BAD_ROW(inst(g_full, "p", kRange, "1", "2"), ZEL_CFG_EFULL, "28: instance list full\n"),
    ZEL_BAD_ROW(obj(g_bad, "L", "o"), ZEL_CFG_EPROVIDER),  // not its own part's operations
    ZEL_BAD_ROW(zel_util_config_string_get(g_bad), nullptr),
};

TEST(BadInput, Config) {
  g_cfg = zel_util_config_create("loc1", "snmp");
  g_bad = zel_util_config_create("l", "p");
  g_full = zel_util_config_create("l", "p");
  int32_t res = obj(g_bad, "L", "o") | ctx(g_full, "first");
  for (int i = 0; i < ZEL_SNMP_LIST_CAPACITY; ++i) {
    res |= obj(g_full, "ifX", "1") | inst(g_full, "p", kRange, "1", "2");
  }
  ASSERT_EQ(res, ZEL_CFG_OK);
  g_full_str = zel_util_config_string_get(g_full);
  g_bad->prov_cfg_strcat = bad_strcat;
  zel_bad_input::run_traced(kRows, zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME,
                            kro_probe_journal_start, left_alone);
  g_bad->prov_cfg_strcat = g_full->prov_cfg_strcat;
  for (zel_util_config_t *cfg : {g_cfg, g_bad, g_full}) zel_util_config_destroy(cfg);
}

}  // namespace
