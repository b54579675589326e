// Bad input to the configuration objects, the append primitive and the SNMP additions. The
// table runs with the module unregistered, then in both trace modes.
#include <zel/config.h>
#include <zel/trace.h>

#include "bad_input/bad_input.h"

namespace {

using zel_bad_input::expect_each;
using zel_bad_input::text;

const std::string k11 = text(11), k33 = text(ZEL_SNMP_LIST_NAME_MAX + 1),
                  k81 = text(ZEL_SNMP_OID_MAX + 1), k257 = text(ZEL_SNMP_CONTEXT_MAX + 1),
                  kHuge = text(1 << 20);
const char *const k33s = k33.c_str(), *const k81s = k81.c_str(), *const kHugeS = kHuge.c_str();
const auto ctx = zel_util_snmp_add_context;
const auto obj = zel_util_snmp_add_object;
int32_t inst(zel_util_config_t *cfg, const char *name, zel_snmp_instance_type_t type,
             const char *oid, const char *end = nullptr) {
  return zel_util_snmp_add_instance(cfg, name, type, oid, end, INT32_MIN);
}

// A refused call leaves the object without a provider part; then releases it.
void expect_bare(zel_util_config_t *cfg) {
  EXPECT_EQ((std::tuple{cfg->prov_cfg, zel_util_config_string_get(cfg), cfg->config_str}),
            std::tuple(nullptr, nullptr, nullptr));
  zel_util_config_destroy(cfg);
}

// A provider's text operation that counts INT32_MIN.
void foreign_strcat(zel_util_config_t *, char *dst, int32_t *counter) {
  if (dst == nullptr) *counter = INT32_MIN;
}

const zel_bad_input::Table kRows = {
    // create: NULL, overlong, maximal and empty texts; destroy, string_get of NULL; cfg_strcat;
    // additions: NULL, overlong, missing OIDs, unknown instance types
    {"create",
     [] {
       expect_each<const void *>(
           nullptr,
           {zel_util_config_create(nullptr, "p"), zel_util_config_create("l", nullptr),
            zel_util_config_create(k11.c_str(), "p"), zel_util_config_create("l", k11.c_str()),
            zel_util_config_create(kHugeS, kHugeS), zel_util_config_string_get(nullptr)});
       for (const char *t : {"", "0123456789"}) expect_bare(zel_util_config_create(t, t));
       zel_util_config_destroy(nullptr);
       char buf[4] = {};
       int32_t counter = 4;
       cfg_strcat(nullptr, nullptr, nullptr);
       cfg_strcat(buf, nullptr, &counter);
       cfg_strcat(buf, "ab", nullptr);
       EXPECT_EQ(counter, 4);
       counter = INT32_MIN;  // no room left
       cfg_strcat(buf, "ab", &counter);
       EXPECT_EQ(std::tuple(std::string(buf), counter), std::tuple("", 0));
       constexpr auto kExact = ZEL_SNMP_INSTANCE_EXACT, kRange = ZEL_SNMP_INSTANCE_RANGE;
       zel_util_config_t *cfg = zel_util_config_create("loc1", "snmp");
       expect_each(ZEL_CFG_EMISSING, {ctx(nullptr, "c"), ctx(cfg, nullptr), obj(nullptr, "L", "o"),
                                      obj(cfg, nullptr, "o"), obj(cfg, "L", nullptr)});
       expect_each(ZEL_CFG_ETOOLONG,
                   {ctx(cfg, k257.c_str()), ctx(cfg, kHugeS), obj(cfg, k33s, "o"),
                    obj(cfg, "L", k81s), obj(cfg, kHugeS, kHugeS), inst(cfg, k33s, kExact, "1"),
                    inst(cfg, kHugeS, kExact, "1")});
       expect_each(ZEL_CFG_EPROVIDER,
                   {inst(nullptr, "I", kExact, "1"), inst(cfg, nullptr, kExact, "1")});
       expect_each(ZEL_CFG_ETYPE, {inst(cfg, "I", 0, "1"), inst(cfg, "I", 5, "1"),
                                   inst(cfg, "I", UINT32_MAX, "1")});
       expect_each(ZEL_CFG_EOID,
                   {inst(cfg, "I", kExact, nullptr), inst(cfg, "I", kExact, k81s),
                    inst(cfg, "I", ZEL_SNMP_INSTANCE_WILDCARD, k81s),
                    inst(cfg, "I", ZEL_SNMP_INSTANCE_REPEAT, nullptr), inst(cfg, "I", kRange, "1"),
                    inst(cfg, "I", kRange, "1", k81s), inst(cfg, "I", kRange, nullptr, "2"),
                    inst(cfg, "I", kRange, k81s, "2")});
       expect_bare(cfg);
     }},
    // the SNMP part's operations on NULL and on an object carrying none; a part whose text
    // operation was replaced by one that counts badly
    {"the SNMP part's operations",
     [] {
       zel_util_config_t *cfg = zel_util_config_create("l", "p"),
                         *bare = zel_util_config_create("l", "p");
       ASSERT_EQ(obj(cfg, "L", "o"), ZEL_CFG_OK);
       const zel_util_config_strcat_fn snmp_strcat = cfg->prov_cfg_strcat;
       int32_t count = 0;
       snmp_strcat(nullptr, nullptr, &count);
       EXPECT_EQ(count, 0);
       cfg->prov_cfg_free(nullptr);
       cfg->prov_cfg_free(bare);
       expect_bare(bare);
       cfg->prov_cfg_strcat = foreign_strcat;
       expect_each(ZEL_CFG_EPROVIDER, {ctx(cfg, "c"), obj(cfg, "L", "o"), inst(cfg, "I", 1, "1")});
       EXPECT_EQ(zel_util_config_string_get(cfg), nullptr);
       cfg->prov_cfg_strcat = snmp_strcat;
       zel_util_config_destroy(cfg);
     }},
};

TEST(BadInput, Config) {
  zel_bad_input::run_traced(kRows, zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME);
}

}  // namespace
