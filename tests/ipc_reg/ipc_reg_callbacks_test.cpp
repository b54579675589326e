// The four hash callbacks, caught on their way into the platform tables (the two create calls
// are wrapped at link time): the creation arguments, how the callbacks hash and compare
// registrations, how they treat NULL elements, and that they trace under their own names.
#include <gtest/gtest.h>
#include <kro/hashset.h>
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <string>

#include "ipc_reg/ipc_reg_support.h"
#include "support/capture.h"

namespace {

struct Created {
  kro_hashset_hash_fn hash = nullptr;
  kro_hashset_match_fn match = nullptr;
  uint32_t hint = 99, flags = 99;
  size_t link_offset = 99;
} g_set, g_map;

}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_kro_hashset_create(kro_hashset_t **, uint32_t, size_t, kro_hashset_hash_fn,
                              kro_hashset_match_fn, uint32_t);
int __real_kro_hashmap_create(kro_hashmap_t **, uint32_t, kro_hashset_hash_fn, kro_hashset_match_fn,
                              uint32_t);
int __wrap_kro_hashset_create(kro_hashset_t **set, uint32_t hint, size_t link_offset,
                              kro_hashset_hash_fn hash, kro_hashset_match_fn match,
                              uint32_t flags) {
  g_set = Created{hash, match, hint, flags, link_offset};
  return __real_kro_hashset_create(set, hint, link_offset, hash, match, flags);
}
int __wrap_kro_hashmap_create(kro_hashmap_t **map, uint32_t hint, kro_hashset_hash_fn hash,
                              kro_hashset_match_fn match, uint32_t flags) {
  g_map = Created{hash, match, hint, flags, 0};
  return __real_kro_hashmap_create(map, hint, hash, match, flags);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using zel_test::StdoutCapture;

zel_ipc_reg_t reg(const std::string &name, uint32_t id) {
  zel_ipc_reg_t r{};
  r.id = id;
  name.copy(r.name, sizeof r.name - 1);
  return r;
}

class IpcRegCallbacks : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = zel_test::fault_live_blocks();
    ASSERT_EQ(zel_ipc_reg_mgr_init(&top_), ZEL_IPC_REG_OK);
  }
  void TearDown() override {
    zel_ipc_reg_mgr_cleanup(&top_);
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before_);
  }
  zel_ipc_reg_top_t top_{};
  long live_before_ = 0;
};

TEST_F(IpcRegCallbacks, TablesAreCreatedWithZeroHintsAndFlagsAndLinkOffset) {
  EXPECT_EQ(g_set.hint, 0u);
  EXPECT_EQ(g_set.link_offset, 0u);
  EXPECT_EQ(g_set.flags, 0u);
  EXPECT_EQ(g_map.hint, 0u);
  EXPECT_EQ(g_map.flags, 0u);
}

// A NULL element hashes to 0 (silently in the set, traced in the map) and matches anything.
TEST_F(IpcRegCallbacks, NullElements) {
  static const zel_ipc_reg_t x = reg("x", 1);
  const char *const null_match = "hash elements NULL\n\n";
  const struct {
    const char *label;
    int (*call)();
    int want;
    const char *output;
  } rows[] = {
      {"set hash", [] { return static_cast<int>(g_set.hash(nullptr)); }, 0, ""},
      {"map hash", [] { return static_cast<int>(g_map.hash(nullptr)); }, 0, "ipc reg null\n\n"},
      {"set match (NULL, x)", [] { return g_set.match(nullptr, &x); }, 1, null_match},
      {"set match (x, NULL)", [] { return g_set.match(&x, nullptr); }, 1, null_match},
      {"map match (NULL, x)", [] { return g_map.match(nullptr, &x); }, 1, null_match},
      {"map match (x, NULL)", [] { return g_map.match(&x, nullptr); }, 1, null_match},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    const int got = row.call();
    EXPECT_EQ(out.take(), row.output);
    EXPECT_EQ(got, row.want);
  }
}

// Ids key the set whatever the names; names key the map whatever the ids; the hashes cover the
// id's four bytes and the whole name (100 characters included).
TEST_F(IpcRegCallbacks, KeysHashesAndComparisons) {
  const std::string n100(100, 'q');
  const zel_ipc_reg_t a = reg("same", 1), b = reg("other", 1), c = reg("same", 2);
  const zel_ipc_reg_t l1 = reg(n100, 3), l2 = reg(n100.substr(0, 99) + "r", 3);
  StdoutCapture quiet;
  const uint32_t id = 0x12345678u;
  const zel_ipc_reg_t k = reg("k", id);
  EXPECT_EQ(g_set.hash(&k), kro_hash_calculate(&id, sizeof id));
  EXPECT_EQ(g_map.hash(&l1), kro_hash_calculate(n100.data(), 100));
  EXPECT_EQ(g_map.hash(&a), kro_hash_calculate("same", 4));
  const struct {
    const char *label;
    kro_hashset_match_fn match;
    const zel_ipc_reg_t *x, *y;
    int want;
  } rows[] = {
      {"set: equal ids, other names", g_set.match, &a, &b, 1},
      {"set: other ids, equal names", g_set.match, &a, &c, 0},
      {"map: equal names, other ids", g_map.match, &a, &c, 1},
      {"map: other names, equal ids", g_map.match, &a, &b, 0},
      {"map: 100 characters, equal", g_map.match, &l1, &l1, 1},
      {"map: 100 characters, last differs", g_map.match, &l1, &l2, 0},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.match(row.x, row.y), row.want) << row.label;
  }
}

// The callbacks trace at trace level with code 0 under their own function names.
TEST_F(IpcRegCallbacks, TracesCarryTheCallbacksNames) {
  const zel_ipc_reg_t a = reg("a", 4);
  StdoutCapture quiet;
  kro_probe_journal_start();
  g_set.hash(&a);
  g_set.match(&a, &a);
  g_map.hash(&a);
  g_map.match(&a, &a);
  g_map.hash(nullptr);
  const auto calls = zel_test::log_calls();
  const char *const functions[] = {"zel_ipc_reg_hashset_calc", "zel_ipc_reg_hashset_matcher",
                                   "zel_ipc_reg_hashmap_calc", "zel_ipc_reg_hashmap_matcher",
                                   "zel_ipc_reg_hashmap_calc"};
  ASSERT_EQ(calls.size(), 5u);
  for (size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(calls[i]);
    EXPECT_EQ(calls[i].rfind("_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.trace ", 0), 0u);
    EXPECT_NE(calls[i].find(std::string(": ") + functions[i] + ": "), std::string::npos);
    EXPECT_NE(calls[i].find(": 0: "), std::string::npos);
  }
}

}  // namespace
