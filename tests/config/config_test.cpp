// The configuration object: limits, the append primitive, and the string's allocation and
// lifetime.
#include <cstddef>

#include "config_test_util.h"
#include "support/fault.h"

using namespace cfg_test;

// The object's layout is shared with external providers: 40 bytes on 32-bit, 56 on 64-bit.
static_assert(offsetof(zel_util_config_t, provider) == 11);
static_assert(offsetof(zel_util_config_t, config_str) == 24);
static_assert(offsetof(zel_util_config_t, prov_cfg) == 24 + sizeof(void *));
static_assert(offsetof(zel_util_config_t, prov_cfg_free) == 24 + 2 * sizeof(void *));
static_assert(offsetof(zel_util_config_t, prov_cfg_strcat) == 24 + 3 * sizeof(void *));
static_assert(sizeof(zel_util_config_t) == 24 + 4 * sizeof(void *));

TEST(ConfigCreate, LimitsAndNullArguments) {
  const std::string ten(10, 'l'), eleven(11, 'l');
  const struct {
    const char *loc, *prov;
    bool created, traced;
  } rows[] = {{ten.c_str(), ten.c_str(), true, false}, {"", "", true, false},
              {eleven.c_str(), "snmp", false, true},   {"loc1", eleven.c_str(), false, true},
              {nullptr, "snmp", false, false},         {"loc1", nullptr, false, false}};
  for (const auto &r : rows) {
    SCOPED_TRACE(std::string(r.loc ? r.loc : "NULL") + " / " + (r.prov ? r.prov : "NULL"));
    make();  // registers the module
    kro_probe_journal_start();
    Config c(zel_util_config_create(r.loc, r.prov));
    ASSERT_EQ(c != nullptr, r.created);
    if (r.traced) {
      expect_one_trace("zel_util_config_create", "location/provider string exceeded max limit\n",
                       3);
    } else {
      EXPECT_EQ(logged().size(), 0u);
    }
    if (c) {
      EXPECT_STREQ(c->location, r.loc);
      EXPECT_STREQ(c->provider, r.prov);
      EXPECT_EQ(c->prov_cfg, nullptr);
      EXPECT_EQ(zel_util_config_string_get(c.get()), nullptr);  // no provider part, no trace
      EXPECT_EQ(logged().size(), 0u);
    }
  }
  EXPECT_EQ(zel_util_config_string_get(nullptr), nullptr);
  zel_util_config_destroy(nullptr);
}

TEST(CfgStrcat, CountAndWritePasses) {
  const struct {
    const char *before;  // text already in the buffer; nullptr: count pass
    int32_t counter;
    const char *src, *after;
    int32_t counter_after;
  } rows[] = {
      {nullptr, 5, "abc", nullptr, 8},
      {nullptr, INT32_MAX - 1, "abc", nullptr, INT32_MAX},
      {"", 8, "abc", "abc", 5},
      {"ab", 6, "", "ab", 6},
      {"ab", 6, "cdefg", "abcdefg", 0},     // exactly fills: 0, not 1
      {"ab", 6, "cdefghij", "abcdefg", 0},  // cut to the capacity left
      {"abcdefg", 1, "x", "abcdefg", 0},
      {"abcdefg", 0, "x", "abcdefg", 0},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(std::string(r.before ? r.before : "count") + " + " + r.src);
    char buf[9] = {};  // 8 bytes that the counter allows, and a guard byte
    int32_t counter = r.counter;
    strcpy(buf, r.before ? r.before : "");
    cfg_strcat(r.before ? buf : nullptr, r.src, &counter);
    EXPECT_EQ(counter, r.counter_after);
    EXPECT_STREQ(buf, r.before ? r.after : "");
    EXPECT_EQ(buf[8], '\0');
  }
}

// A provider outside the library, writing through the exported primitive alone.
static void ext_strcat(zel_util_config_t *c, char *dst, int32_t *counter) {
  cfg_strcat(dst, static_cast<const char *>(c->prov_cfg), counter);
  cfg_strcat(dst, "/tail", counter);
}
static void ext_unsizable(zel_util_config_t *, char *, int32_t *counter) {
  *counter = INT32_MAX;
}
static void ext_free(zel_util_config_t *) {}

TEST(ConfigString, ExternalProvider) {
  Config c = make("", "");
  char part[] = "ext";
  c->prov_cfg = part;
  c->prov_cfg_free = ext_free;
  c->prov_cfg_strcat = ext_strcat;
  EXPECT_EQ(str(c.get()), "////ext/tail");
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), ZEL_CFG_EPROVIDER);  // left alone
  c->prov_cfg_strcat = ext_unsizable;
  kro_probe_journal_start();
  EXPECT_EQ(zel_util_config_string_get(c.get()), nullptr);
  EXPECT_EQ(c->config_str, nullptr);
  expect_one_trace("zel_util_config_string_get", "memory allocation failed\n", 5);
}

// Each build replaces the string; the replaced one stays readable until the next build.
TEST(ConfigString, TheEarlierStringStaysReadable) {
  Config c = make();
  ASSERT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), ZEL_CFG_OK);
  const long base = zel_test::fault_live_blocks();
  char *first = zel_util_config_string_get(c.get());
  char *second = zel_util_config_string_get(c.get());
  EXPECT_NE(first, second);
  EXPECT_STREQ(first, "/loc1/snmp///n;o/;;");
  EXPECT_STREQ(second, first);
  EXPECT_EQ(c->config_str, second);
  zel_util_config_string_get(c.get());  // frees the first, keeps the second
  EXPECT_STREQ(second, c->config_str);
  EXPECT_EQ(zel_test::fault_live_blocks(), base + 2);
}
