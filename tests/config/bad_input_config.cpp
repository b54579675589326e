// Bad input to the configuration objects, the append primitive and the SNMP additions: NULL,
// overlong, maximal and empty texts, missing OIDs, unknown instance types, and a provider part
// whose text operation counts badly. The table runs with the module unregistered, then in both
// trace modes.
#include <zel/config.h>
#include <zel/trace.h>

#include "support/bad_input.h"

namespace {

constexpr auto kExact = ZEL_SNMP_INSTANCE_EXACT, kRange = ZEL_SNMP_INSTANCE_RANGE;
constexpr auto kRepeat = ZEL_SNMP_INSTANCE_REPEAT;
const std::string k11 = std::string(11, 'x'), k33 = std::string(ZEL_SNMP_LIST_NAME_MAX + 1, 'x'),
                  k81 = std::string(ZEL_SNMP_OID_MAX + 1, 'x'),
                  k257 = std::string(ZEL_SNMP_CONTEXT_MAX + 1, 'x'),
                  kHuge = std::string(1 << 20, 'x');
const char *const k33s = k33.c_str(), *const k81s = k81.c_str(), *const kHugeS = kHuge.c_str();
zel_util_config_t *g_cfg, *g_snmp, *g_bad;  // bare; with an SNMP part; whose part counts badly
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
void left_alone(const zel_bad_input::Row &) {
  EXPECT_STREQ(g_buf, "");
  EXPECT_TRUE(g_cfg->prov_cfg == nullptr && zel_util_config_string_get(g_cfg) == nullptr);
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_util_config_create(nullptr, "p"), nullptr),
    ZEL_BAD_ROW(zel_util_config_create("l", nullptr), nullptr),
    ZEL_BAD_ROW(zel_util_config_create(k11.c_str(), "p"), nullptr),
    ZEL_BAD_ROW(zel_util_config_create("l", k11.c_str()), nullptr),
    ZEL_BAD_ROW(zel_util_config_create(kHugeS, kHugeS), nullptr),
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
    ZEL_BAD_ROW(ctx(g_cfg, k257.c_str()), ZEL_CFG_ETOOLONG),
    ZEL_BAD_ROW(obj(g_cfg, k33s, "o"), ZEL_CFG_ETOOLONG),
    ZEL_BAD_ROW(obj(g_cfg, "L", k81s), ZEL_CFG_ETOOLONG),
    ZEL_BAD_ROW(obj(g_cfg, kHugeS, kHugeS), ZEL_CFG_ETOOLONG),
    ZEL_BAD_ROW(inst(g_cfg, k33s, kExact, "1"), ZEL_CFG_ETOOLONG),
    ZEL_BAD_ROW(inst(nullptr, "I", kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_cfg, nullptr, kExact, "1"), ZEL_CFG_EPROVIDER),
    ZEL_BAD_ROW(inst(g_cfg, "I", 0, "1"), ZEL_CFG_ETYPE),
    ZEL_BAD_ROW(inst(g_cfg, "I", 5, "1"), ZEL_CFG_ETYPE),
    ZEL_BAD_ROW(inst(g_cfg, "I", kExact, nullptr), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kExact, k81s), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRepeat, nullptr), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, "1"), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, "1", k81s), ZEL_CFG_EOID),
    ZEL_BAD_ROW(inst(g_cfg, "I", kRange, nullptr, "2"), ZEL_CFG_EOID),
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
  ASSERT_EQ(obj(g_snmp, "L", "o") + obj(g_bad, "L", "o"), ZEL_CFG_OK);
  g_bad->prov_cfg_strcat = bad_strcat;
  zel_bad_input::run_traced(kRows, zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, nullptr, left_alone);
  g_bad->prov_cfg_strcat = g_snmp->prov_cfg_strcat;
  for (zel_util_config_t *cfg : {g_cfg, g_snmp, g_bad}) zel_util_config_destroy(cfg);
}

}  // namespace
