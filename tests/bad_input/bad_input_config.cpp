// Bad input to the configuration objects, the append primitive and the SNMP additions. The
// table runs with the module unregistered, then in both trace modes.
#include <gtest/gtest.h>
#include <zel/config.h>
#include <zel/trace.h>

#include <climits>
#include <cstring>

#include "bad_input/bad_input.h"
#include "support/fault.h"

namespace {

using zel_bad_input::text;

const std::string k11 = text(11), k33 = text(ZEL_SNMP_LIST_NAME_MAX + 1),
                  k81 = text(ZEL_SNMP_OID_MAX + 1), k257 = text(ZEL_SNMP_CONTEXT_MAX + 1),
                  kHuge = text(1 << 20);

// A fresh object; a refused addition on it must leave it without a provider part.
zel_util_config_t *fresh() {
  zel_util_config_t *cfg = zel_util_config_create("loc1", "snmp");
  EXPECT_NE(cfg, nullptr);
  return cfg;
}

void expect_unattached_and_destroy(zel_util_config_t *cfg) {
  EXPECT_EQ(cfg->prov_cfg, nullptr);
  EXPECT_EQ(zel_util_config_string_get(cfg), nullptr);
  EXPECT_EQ(cfg->config_str, nullptr);
  zel_util_config_destroy(cfg);
}

int g_foreign_part;
void foreign_free(zel_util_config_t *) {}
void foreign_strcat(zel_util_config_t *, char *dst, int32_t *counter) {
  cfg_strcat(dst, "F", counter);
}

// A provider whose count pass drives the counter to `g_forced_count`.
int32_t g_forced_count;
void forcing_strcat(zel_util_config_t *, char *dst, int32_t *counter) {
  if (dst == nullptr) *counter = g_forced_count;
}

// Each SNMP addition on `cfg`, which must refuse them all with ZEL_CFG_EPROVIDER.
void expect_additions_refused(zel_util_config_t *cfg) {
  EXPECT_EQ(zel_util_snmp_add_context(cfg, "c"), ZEL_CFG_EPROVIDER);
  EXPECT_EQ(zel_util_snmp_add_object(cfg, "L", "o"), ZEL_CFG_EPROVIDER);
  EXPECT_EQ(zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
            ZEL_CFG_EPROVIDER);
}

struct InstanceRow {
  const char *name;
  zel_snmp_instance_type_t type;
  const char *oid, *end;
  int32_t result;
};

zel_bad_input::Table config_rows() {
  return {
      {"zel_util_config_create: NULL, overlong, maximal and empty texts",
       [] {
         EXPECT_EQ(zel_util_config_create(nullptr, "snmp"), nullptr);
         EXPECT_EQ(zel_util_config_create("loc1", nullptr), nullptr);
         EXPECT_EQ(zel_util_config_create(k11.c_str(), "snmp"), nullptr);
         EXPECT_EQ(zel_util_config_create("loc1", k11.c_str()), nullptr);
         EXPECT_EQ(zel_util_config_create(kHuge.c_str(), kHuge.c_str()), nullptr);
         for (const char *t : {"", "0123456789"}) {
           zel_util_config_t *cfg = zel_util_config_create(t, t);
           ASSERT_NE(cfg, nullptr);
           EXPECT_STREQ(cfg->location, t);
           EXPECT_STREQ(cfg->provider, t);
           expect_unattached_and_destroy(cfg);
         }
       }},
      {"zel_util_config_destroy(NULL), zel_util_config_string_get(NULL)",
       [] {
         zel_util_config_destroy(nullptr);
         EXPECT_EQ(zel_util_config_string_get(nullptr), nullptr);
       }},
      {"cfg_strcat: NULL arguments, saturating count, no room left",
       [] {
         char buf[4] = {};
         int32_t counter = 4;
         cfg_strcat(nullptr, nullptr, nullptr);
         cfg_strcat(buf, nullptr, &counter);
         cfg_strcat(buf, "ab", nullptr);
         EXPECT_EQ(counter, 4);
         EXPECT_STREQ(buf, "");
         counter = INT32_MAX - 1;
         cfg_strcat(nullptr, kHuge.c_str(), &counter);
         EXPECT_EQ(counter, INT32_MAX);
         for (int32_t room : {1, 0, -5, INT32_MIN}) {
           SCOPED_TRACE(room);
           counter = room;
           cfg_strcat(buf, "ab", &counter);
           EXPECT_EQ(counter, 0);
           EXPECT_STREQ(buf, "");
         }
       }},
      {"zel_util_snmp_add_context: NULL, overlong",
       [] {
         zel_util_config_t *cfg = fresh();
         EXPECT_EQ(zel_util_snmp_add_context(nullptr, "c"), ZEL_CFG_EMISSING);
         EXPECT_EQ(zel_util_snmp_add_context(cfg, nullptr), ZEL_CFG_EMISSING);
         EXPECT_EQ(zel_util_snmp_add_context(cfg, k257.c_str()), ZEL_CFG_ETOOLONG);
         EXPECT_EQ(zel_util_snmp_add_context(cfg, kHuge.c_str()), ZEL_CFG_ETOOLONG);
         expect_unattached_and_destroy(cfg);
       }},
      {"zel_util_snmp_add_object: NULL, overlong",
       [] {
         zel_util_config_t *cfg = fresh();
         EXPECT_EQ(zel_util_snmp_add_object(nullptr, "L", "o"), ZEL_CFG_EMISSING);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, nullptr, "o"), ZEL_CFG_EMISSING);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, "L", nullptr), ZEL_CFG_EMISSING);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, k33.c_str(), "o"), ZEL_CFG_ETOOLONG);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, "L", k81.c_str()), ZEL_CFG_ETOOLONG);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, kHuge.c_str(), kHuge.c_str()), ZEL_CFG_ETOOLONG);
         expect_unattached_and_destroy(cfg);
       }},
      {"zel_util_snmp_add_instance: NULL, overlong, missing OIDs, unknown types",
       [] {
         const InstanceRow rows[] = {
             {"I", 0, "1", "2", ZEL_CFG_ETYPE},
             {"I", 5, "1", "2", ZEL_CFG_ETYPE},
             {"I", UINT32_MAX, "1", "2", ZEL_CFG_ETYPE},
             {nullptr, ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, ZEL_CFG_EPROVIDER},
             {k33.c_str(), ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, ZEL_CFG_ETOOLONG},
             {kHuge.c_str(), ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, ZEL_CFG_ETOOLONG},
             {"I", ZEL_SNMP_INSTANCE_EXACT, nullptr, "2", ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_EXACT, k81.c_str(), nullptr, ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_WILDCARD, k81.c_str(), nullptr, ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_REPEAT, nullptr, nullptr, ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_REPEAT, kHuge.c_str(), nullptr, ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_RANGE, "1", nullptr, ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_RANGE, "1", k81.c_str(), ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_RANGE, nullptr, "2", ZEL_CFG_EOID},
             {"I", ZEL_SNMP_INSTANCE_RANGE, k81.c_str(), "2", ZEL_CFG_EOID},
         };
         zel_util_config_t *cfg = fresh();
         EXPECT_EQ(
             zel_util_snmp_add_instance(nullptr, "I", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
             ZEL_CFG_EPROVIDER);
         for (const InstanceRow &r : rows) {
           SCOPED_TRACE(testing::Message()
                        << "type " << r.type << " oid " << (r.oid ? strlen(r.oid) : 0) << " end "
                        << (r.end ? strlen(r.end) : 0));
           EXPECT_EQ(zel_util_snmp_add_instance(cfg, r.name, r.type, r.oid, r.end, INT32_MIN),
                     r.result);
         }
         expect_unattached_and_destroy(cfg);
       }},
      {"additions on an object carrying another provider, whole or in part",
       [] {
         for (int fields = 1; fields < 8; ++fields) {
           SCOPED_TRACE(fields);
           zel_util_config_t *cfg = fresh();
           cfg->prov_cfg = (fields & 1) != 0 ? &g_foreign_part : nullptr;
           cfg->prov_cfg_free = (fields & 2) != 0 ? foreign_free : nullptr;
           cfg->prov_cfg_strcat = (fields & 4) != 0 ? foreign_strcat : nullptr;
           expect_additions_refused(cfg);
           EXPECT_EQ(cfg->prov_cfg, (fields & 1) != 0 ? &g_foreign_part : nullptr);
           if (fields == 7) {
             EXPECT_STREQ(zel_util_config_string_get(cfg), "/loc1/snmp//F");
           }
           cfg->prov_cfg = nullptr;  // a part is released only through the provider's free
           cfg->prov_cfg_free = nullptr;
           cfg->prov_cfg_strcat = nullptr;
           zel_util_config_destroy(cfg);
         }
       }},
      {"a provider that drives the count negative or to saturation",
       [] {
         for (int32_t forced : {-1, INT32_MIN, INT32_MAX}) {
           SCOPED_TRACE(forced);
           g_forced_count = forced;
           zel_util_config_t *cfg = fresh();
           cfg->prov_cfg_strcat = forcing_strcat;
           EXPECT_EQ(zel_util_config_string_get(cfg), nullptr);
           EXPECT_EQ(cfg->config_str, nullptr);
           cfg->prov_cfg_strcat = nullptr;
           zel_util_config_destroy(cfg);
         }
       }},
      {"SNMP part whose text operation was replaced; its operations on NULL and on the caller's "
       "own buffer",
       [] {
         zel_util_config_t *cfg = fresh();
         ASSERT_EQ(zel_util_snmp_add_object(cfg, "L", "o"), ZEL_CFG_OK);
         const zel_util_config_strcat_fn snmp_strcat = cfg->prov_cfg_strcat;
         int32_t count = 0;
         snmp_strcat(nullptr, nullptr, &count);
         cfg->prov_cfg_free(nullptr);
         zel_util_config_t *bare = fresh();
         cfg->prov_cfg_free(bare);
         expect_unattached_and_destroy(bare);
         EXPECT_EQ(count, 0);
         snmp_strcat(cfg, nullptr, &count);  // the caller's own two passes
         std::string own(static_cast<size_t>(count) + 1, '\0');
         int32_t left = count + 1;
         snmp_strcat(cfg, own.data(), &left);
         EXPECT_STREQ(own.c_str(), "/L;o/;;");
         cfg->prov_cfg_strcat = foreign_strcat;
         expect_additions_refused(cfg);
         cfg->prov_cfg_strcat = snmp_strcat;
         zel_util_config_destroy(cfg);
       }},
      {"list names and instance types that differ; full lists",
       [] {
         zel_util_config_t *cfg = fresh();
         for (int i = 0; i < ZEL_SNMP_LIST_CAPACITY; ++i) {
           ASSERT_EQ(zel_util_snmp_add_object(cfg, "L", "o"), ZEL_CFG_OK);
           ASSERT_EQ(zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
                     ZEL_CFG_OK);
         }
         EXPECT_EQ(zel_util_snmp_add_object(cfg, "L", "o"), ZEL_CFG_EFULL);
         EXPECT_EQ(zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
                   ZEL_CFG_EFULL);
         EXPECT_EQ(zel_util_snmp_add_object(cfg, "M", "o"), ZEL_CFG_EMISMATCH);
         EXPECT_EQ(zel_util_snmp_add_instance(cfg, "J", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
                   ZEL_CFG_EMISMATCH);
         EXPECT_EQ(zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_WILDCARD, "", nullptr, 0),
                   ZEL_CFG_EMISMATCH);
         zel_util_config_destroy(cfg);
         cfg = fresh();  // a renaming call may not change the type of instances held
         ASSERT_EQ(zel_util_snmp_add_instance(cfg, "", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr, 0),
                   ZEL_CFG_OK);
         EXPECT_EQ(zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_REPEAT, "1", nullptr, 0),
                   ZEL_CFG_EMISMATCH);
         zel_util_config_destroy(cfg);
       }},
      {"allocation failures of every allocating call",
       [] {
         using Call = int32_t (*)(zel_util_config_t *);
         const Call calls[] = {
             [](zel_util_config_t *cfg) { return zel_util_snmp_add_context(cfg, "c"); },
             [](zel_util_config_t *cfg) { return zel_util_snmp_add_object(cfg, "L", "o"); },
             [](zel_util_config_t *cfg) {
               return zel_util_snmp_add_instance(cfg, "I", ZEL_SNMP_INSTANCE_EXACT, "1", nullptr,
                                                 0);
             },
             [](zel_util_config_t *cfg) {
               return zel_util_snmp_add_object(cfg, "L", "o") == ZEL_CFG_OK &&
                              zel_util_config_string_get(cfg) != nullptr
                          ? ZEL_CFG_OK
                          : ZEL_CFG_ENOMEM;
             },
         };
         for (Call call : calls) {
           zel_test::fault_sweep([call](unsigned n) {
             zel_util_config_t *cfg = nullptr;
             int32_t got;
             {
               zel_test::FaultScope scope(n);
               cfg = zel_util_config_create("loc1", "snmp");
               got = cfg != nullptr ? call(cfg) : ZEL_CFG_ENOMEM;
             }
             EXPECT_EQ(got == ZEL_CFG_OK, !zel_test::fault_fired());
             zel_util_config_destroy(cfg);
             return zel_test::fault_fired();
           });
         }
       }},
  };
}

TEST(BadInput, Config) {
  zel_bad_input::run_rows(config_rows());
}

TEST(BadInput, ConfigTraced) {
  for (auto mode : {zel_bad_input::TraceMode::kRecordAndPrint,
                    zel_bad_input::TraceMode::kFlagsOnChecksRefuse}) {
    zel_bad_input::set_trace_mode(zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, mode);
    zel_bad_input::run_rows(config_rows());
  }
}

}  // namespace
