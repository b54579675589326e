// Bad input to the configuration objects, the append primitive and the SNMP additions: NULL,
// overlong, maximal and empty texts, missing OIDs, unknown instance types, additions that
// disagree with what an object holds or find its lists full, and a provider part whose text
// operation counts badly. Each refusal changes no object; a row gives the error trace points
// its call makes as "<function>: <code>: <message>" lines, where they are checked.
#include <kro/probe.h>
#include <zel/config.h>
#include <zel/trace.h>

#include "support/bad_input.h"

namespace {

constexpr auto kExact = ZEL_SNMP_INSTANCE_EXACT, kRange = ZEL_SNMP_INSTANCE_RANGE;
constexpr auto kRepeat = ZEL_SNMP_INSTANCE_REPEAT, kWild = ZEL_SNMP_INSTANCE_WILDCARD;
const std::string k11 = std::string(11, 'x'), k33 = std::string(ZEL_SNMP_LIST_NAME_MAX + 1, 'x'),
                  k81 = std::string(ZEL_SNMP_OID_MAX + 1, 'x'),
                  k257 = std::string(ZEL_SNMP_CONTEXT_MAX + 1, 'x'),
                  kHuge = std::string(1 << 20, 'x');
const char *const k33s = k33.c_str(), *const k81s = k81.c_str(), *const kHugeS = kHuge.c_str();
#define OBJ "zel_util_snmp_add_object: "
#define INST "zel_util_snmp_add_instance: "
const char *const kCreate =
                      "zel_util_config_create: 3: location/provider string exceeded max limit\n",
                  *const kObjLong = OBJ "3: object list name/object string exceeds max limit\n",
                  *const kCtxLong =
                      "zel_util_snmp_add_context: 3: context string exceeded max limit\n",
                  *const kStart = INST "3: start oid exceeded max limit\n",
                  *const kType = INST "46: type mismatch\n";
// Bare; with an SNMP part; whose part counts badly; with a context and both lists full.
zel_util_config_t *g_cfg, *g_snmp, *g_bad, *g_full;
std::string g_snmp_str, g_full_str;
char g_buf[4];
int32_t g_count;

const auto ctx = zel_util_snmp_add_context;
const auto obj = zel_util_snmp_add_object;
int32_t inst(zel_util_config_t *cfg, const char *name, uint32_t type, const char *oid,
             const char *end = nullptr) {
  return zel_util_snmp_add_instance(cfg, name, static_cast<zel_snmp_instance_type_t>(type), oid,
                                    end, INT32_MIN);
}
// Whether the object has no provider part; then releases it.
bool bare(zel_util_config_t *cfg) {
  const bool none = cfg->prov_cfg == nullptr && cfg->config_str == nullptr &&
                    zel_util_config_string_get(cfg) == nullptr;
  zel_util_config_destroy(cfg);
  return none;
}
// What the counter holds after appending `text` to an empty buffer with the counter at `start`.
int32_t counted(int32_t start, const char *text) {
  g_count = start;
  cfg_strcat(g_buf, text, &g_count);
  return g_count;
}
// What the SNMP part's text operation counts for no object.
int32_t snmp_counted() {
  g_count = 0;
  g_snmp->prov_cfg_strcat(nullptr, nullptr, &g_count);
  return g_count;
}
void bad_strcat(zel_util_config_t *, char *dst, int32_t *counter) {
  if (dst == nullptr) *counter = INT32_MIN;
}
void start() {
  kro_probe_journal_start();
}
// The filtered log's "... slot=<slot> <thread>: <module>: <function>: <line>: <code>: <message>"
// of each trace point, without the line and what comes before the function.
void left_alone(const zel_bad_input::Row &row) {
  std::string log;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) {
    std::string s = e;
    if (!s.starts_with("_kro_dt_log_filter_adv ")) continue;
    s = s.substr(s.find(": ", s.find(": ", s.find(" slot=")) + 2) + 2);
    const size_t line = s.find(": ") + 2;
    log += s.substr(0, line) + s.substr(s.find(": ", line) + 2);
  }
  if (row.log != nullptr) {
    EXPECT_EQ(log, row.log);
  }
  EXPECT_STREQ(g_buf, "");
  EXPECT_TRUE(g_cfg->prov_cfg == nullptr && zel_util_config_string_get(g_cfg) == nullptr);
  EXPECT_EQ(zel_util_config_string_get(g_snmp), g_snmp_str);
  EXPECT_EQ(zel_util_config_string_get(g_full), g_full_str);
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_util_config_create(nullptr, "p"), nullptr),
    ZEL_BAD_ROW(zel_util_config_create("l", nullptr), nullptr),
    ZEL_BAD_ROW(zel_util_config_create(k11.c_str(), "p"), nullptr, kCreate),
    ZEL_BAD_ROW(zel_util_config_create("l", k11.c_str()), nullptr, kCreate),
    ZEL_BAD_ROW(zel_util_config_create(kHugeS, kHugeS), nullptr, kCreate),
    ZEL_BAD_ROW(bare(zel_util_config_create("", "")), true),
    ZEL_BAD_ROW(bare(zel_util_config_create("0123456789", "0123456789")), true),
    ZEL_BAD_ROW(zel_util_config_string_get(nullptr), nullptr),
    ZEL_BAD_ROW(zel_util_config_destroy(nullptr), 0),
    ZEL_BAD_ROW(cfg_strcat(nullptr, nullptr, nullptr), 0),
    ZEL_BAD_ROW(cfg_strcat(g_buf, "ab", nullptr), 0),
    ZEL_BAD_ROW(counted(4, nullptr), 4),
    ZEL_BAD_ROW(counted(INT32_MIN, "ab"), 0),  // no room left
    ZEL_BAD_ROW(ctx(nullptr, "c"), ZEL_CFG_EMISSING),
    ZEL_BAD_ROW(ctx(g_cfg, nullptr), ZEL_CFG_EMISSING),
    ZEL_BAD_ROW(obj(nullptr, "L", "o"), ZEL_CFG_EMISSING),
    ZEL_BAD_ROW(obj(g_cfg, "L", nullptr), ZEL_CFG_EMISSING),
    ZEL_BAD_ROW(ctx(g_cfg, k257.c_str()), ZEL_CFG_ETOOLONG, kCtxLong),
    ZEL_BAD_ROW(obj(g_cfg, k33s, "o"), ZEL_CFG_ETOOLONG, kObjLong),
    ZEL_BAD_ROW(obj(g_cfg, "L", k81s), ZEL_CFG_ETOOLONG, kObjLong),
    ZEL_BAD_ROW(obj(g_cfg, kHugeS, kHugeS), ZEL_CFG_ETOOLONG, kObjLong),
    ZEL_BAD_ROW(inst(g_cfg, k33s, kExact, "1"), ZEL_CFG_ETOOLONG,
                INST "3: instance list name exceeded max limit\n"),
    ZEL_BAD_ROW(inst(nullptr, "I", kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_cfg, nullptr, kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_cfg, "I", 0, "1"), ZEL_CFG_ETYPE),
    ZEL_BAD_ROW(inst(g_cfg, "I", 5, "1"), ZEL_CFG_ETYPE, INST "26: unknown type\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", kExact, nullptr), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kExact, k81s), ZEL_CFG_EOID, kStart),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRepeat, nullptr), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, "1"), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, k81s), ZEL_CFG_EOID, ""),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, k81s, k81s), ZEL_CFG_EOID,  // the end first
                INST "3: end oid exceeded max limit\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, k81s, "2"), ZEL_CFG_EOID, kStart),
    ZEL_BAD_ROW(inst(g_cfg, "I", kWild, k81s), ZEL_CFG_EOID,
                INST "3: wildcard oid exceeded max limit\n"),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, nullptr, "2"), ZEL_CFG_EOID),
    ZEL_BAD_ROW(ctx(g_full, "second"), ZEL_CFG_EEXIST, ""),
    ZEL_BAD_ROW(obj(g_full, "if", "2"), ZEL_CFG_EMISMATCH, OBJ "45: different object list name\n"),
    ZEL_BAD_ROW(obj(g_full, "ifX", "2"), ZEL_CFG_EFULL, OBJ "28: object list full\n"),
    ZEL_BAD_ROW(inst(g_full, "q", kRange, "1", "2"), ZEL_CFG_EMISMATCH,
                INST "44: instance list name mismatch\n"),
    ZEL_BAD_ROW(inst(g_full, "p", kExact, "1"), ZEL_CFG_EMISMATCH, kType),
    ZEL_BAD_ROW(inst(g_full, "p", kRange, "1", "2"), ZEL_CFG_EFULL,
                INST "28: instance list full\n"),
    // An empty list name is renamed by the next addition, but not to another type.
    ZEL_BAD_ROW(inst(g_snmp, "x", kRepeat, "2"), ZEL_CFG_EMISMATCH, kType),
    ZEL_BAD_ROW(snmp_counted(), 0),
    ZEL_BAD_ROW(g_snmp->prov_cfg_free(nullptr), 0),
    ZEL_BAD_ROW(g_snmp->prov_cfg_free(g_cfg), 0),  // no SNMP part to free
    ZEL_BAD_ROW(ctx(g_bad, "c"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(obj(g_bad, "L", "o"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_bad, "I", kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(zel_util_config_string_get(g_bad), nullptr),
};

TEST(BadInput, Config) {
  g_cfg = zel_util_config_create("loc1", "snmp");
  g_snmp = zel_util_config_create("l", "p");
  g_bad = zel_util_config_create("l", "p");
  g_full = zel_util_config_create("l", "p");
  int32_t res = obj(g_snmp, "L", "o") | inst(g_snmp, "", kExact, "1") | obj(g_bad, "L", "o");
  res |= ctx(g_full, "first");
  for (int i = 0; i < ZEL_SNMP_LIST_CAPACITY; ++i) {
    res |= obj(g_full, "ifX", "1") | inst(g_full, "p", kRange, "1", "2");
  }
  ASSERT_EQ(res, ZEL_CFG_OK);
  g_snmp_str = zel_util_config_string_get(g_snmp);
  g_full_str = zel_util_config_string_get(g_full);
  EXPECT_EQ(g_snmp_str, "/l/p///L;o/;exact;1");
  g_bad->prov_cfg_strcat = bad_strcat;
  zel_bad_input::run_traced(kRows, zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, start, left_alone);
  g_bad->prov_cfg_strcat = g_snmp->prov_cfg_strcat;
  for (zel_util_config_t *cfg : {g_cfg, g_snmp, g_bad, g_full}) zel_util_config_destroy(cfg);
}

}  // namespace
