// The configuration object: limits, the append primitive, the header, and the string's
// allocation and lifetime.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>

#include "config_test_util.h"
#include "support/fault.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/allocator_interface.h>
#endif

using namespace cfg_test;

// The object's layout is shared with external providers.
static_assert(offsetof(zel_util_config_t, location) == 0);
static_assert(offsetof(zel_util_config_t, provider) == 11);
static_assert(offsetof(zel_util_config_t, config_str) == 24);
#if UINTPTR_MAX == 0xffffffffu
static_assert(offsetof(zel_util_config_t, prov_cfg) == 28);
static_assert(offsetof(zel_util_config_t, prov_cfg_free) == 32);
static_assert(offsetof(zel_util_config_t, prov_cfg_strcat) == 36);
static_assert(sizeof(zel_util_config_t) == 40);
#else
static_assert(offsetof(zel_util_config_t, prov_cfg) == 32);
static_assert(offsetof(zel_util_config_t, prov_cfg_free) == 40);
static_assert(offsetof(zel_util_config_t, prov_cfg_strcat) == 48);
static_assert(sizeof(zel_util_config_t) == 56);
#endif

TEST(ConfigCreate, LimitsAndNullArguments) {
  register_module();
  const std::string ten = text(10), eleven = text(11);
  struct Row {
    const char *loc, *prov;
    bool created, traced;
  } rows[] = {{ten.c_str(), ten.c_str(), true, false}, {"", "", true, false},
              {eleven.c_str(), "snmp", false, true},   {"loc1", eleven.c_str(), false, true},
              {nullptr, "snmp", false, false},         {"loc1", nullptr, false, false}};
  for (const Row &r : rows) {
    SCOPED_TRACE(std::string(r.loc ? r.loc : "NULL") + " / " + (r.prov ? r.prov : "NULL"));
    kro_probe_journal_start();
    Config c(zel_util_config_create(r.loc, r.prov));
    const auto log = logged();
    ASSERT_EQ(c != nullptr, r.created);
    ASSERT_EQ(log.size(), r.traced ? 1u : 0u);
    if (c) {
      EXPECT_STREQ(c->location, r.loc);
      EXPECT_STREQ(c->provider, r.prov);
      EXPECT_EQ(c->config_str, nullptr);
      EXPECT_EQ(c->prov_cfg, nullptr);
      EXPECT_EQ(zel_util_config_string_get(c.get()), nullptr);  // no provider part: no string
      EXPECT_EQ(logged().size(), 0u);
    } else if (r.traced) {
      EXPECT_EQ(log[0].msg, "location/provider string exceeded max limit\n");
      EXPECT_EQ(log[0].code, 3);
      EXPECT_EQ(log[0].func, "zel_util_config_create");
      EXPECT_EQ(log[0].flag, "ZEL-CFG-STR.error");
    }
  }
  EXPECT_EQ(zel_util_config_string_get(nullptr), nullptr);
  zel_util_config_destroy(nullptr);
}

TEST(CfgStrcat, CountAndWritePasses) {
  struct Row {
    const char *before;  // text already in the 8-byte buffer; nullptr: count pass
    int32_t counter;
    const char *src;
    const char *after;
    int32_t counter_after;
  } rows[] = {
      {nullptr, 5, "abc", nullptr, 8},
      {nullptr, INT32_MAX - 1, "abc", nullptr, INT32_MAX},
      {"", 8, "abc", "abc", 5},
      {"ab", 6, "cd", "abcd", 4},
      {"ab", 6, "cdefg", "abcdefg", 0},     // exactly fills: 0, not 1
      {"ab", 6, "cdefghij", "abcdefg", 0},  // cut to the capacity left
      {"abcdefg", 1, "x", "abcdefg", 0},
      {"abcdefg", 0, "x", "abcdefg", 0},
      {"ab", 6, "", "ab", 6},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(std::string(r.before ? r.before : "count") + " + " + r.src);
    char buf[9] = {};  // one guard byte past the 8 the counter allows
    int32_t counter = r.counter;
    if (r.before != nullptr) {
      strcpy(buf, r.before);
    }
    cfg_strcat(r.before ? buf : nullptr, r.src, &counter);
    EXPECT_EQ(counter, r.counter_after);
    if (r.before != nullptr) {
      EXPECT_STREQ(buf, r.after);
      EXPECT_EQ(buf[8], '\0');
    }
  }
}

// A provider outside the library, writing through the exported primitive alone.
static void ext_strcat(zel_util_config_t *c, char *dst, int32_t *counter) {
  cfg_strcat(dst, static_cast<const char *>(c->prov_cfg), counter);
  cfg_strcat(dst, "/tail", counter);
}
static void ext_overflow(zel_util_config_t *, char *, int32_t *counter) {
  *counter = INT32_MAX;
}
static void ext_free(zel_util_config_t *c) {
  c->prov_cfg = nullptr;
}

TEST(ConfigString, ExternalProviderAndUnsizableCount) {
  register_module();
  Config c = make("", "");
  char part[] = "ext";
  c->prov_cfg = part;
  c->prov_cfg_free = ext_free;
  c->prov_cfg_strcat = ext_strcat;
  EXPECT_EQ(str(c.get()), "////ext/tail");
  EXPECT_EQ(zel_util_snmp_add_object(c.get(), "n", "o"), ZEL_CFG_EPROVIDER);  // left alone
  c->prov_cfg_strcat = ext_overflow;
  kro_probe_journal_start();
  EXPECT_EQ(zel_util_config_string_get(c.get()), nullptr);
  EXPECT_EQ(c->config_str, nullptr);
  ASSERT_EQ(logged().size(), 1u);
  EXPECT_EQ(logged()[0].msg, "memory allocation failed\n");
}

TEST(ConfigString, OneExactAllocationAndTheEarlierStringStaysReadable) {
  Config c = make();
  ASSERT_EQ(zel_util_snmp_add_object(c.get(), "n", text(80).c_str()), ZEL_CFG_OK);
  const long base = zel_test::fault_live_blocks();
  zel_test::fault_arm(0);
  char *first = zel_util_config_string_get(c.get());
  EXPECT_EQ(zel_test::fault_allocations(), 1u);
  const size_t len = strlen(first);
  EXPECT_EQ(len, 12 + 3 + 80 + 3u);  // header, "/n;", the object, "/;;"
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(__sanitizer_get_allocated_size(first), len + 1);
#else
  EXPECT_GE(malloc_usable_size(first), len + 1);
#endif
  char *second = zel_util_config_string_get(c.get());
  EXPECT_NE(first, second);
  EXPECT_STREQ(first, second);  // the replaced string is still readable
  EXPECT_EQ(c->config_str, second);
  zel_util_config_string_get(c.get());  // frees the first, keeps the second
  EXPECT_STREQ(second, c->config_str);
  EXPECT_EQ(zel_test::fault_live_blocks(), base + 2);
}
