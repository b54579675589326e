// The four hash callbacks, caught on their way into the platform tables (the create calls are
// wrapped at link time): what the set-up hands the platform, how the callbacks key, hash and
// compare registrations, and how they treat NULL elements.
#include <gtest/gtest.h>
#include <kro/hashset.h>
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <cstring>
#include <string>

#include "ipc_reg/ipc_reg_support.h"
#include "support/capture.h"

namespace {

struct Captured {
  kro_hashset_hash_fn set_hash = nullptr;
  kro_hashset_match_fn set_match = nullptr;
  kro_hashset_hash_fn map_hash = nullptr;
  kro_hashset_match_fn map_match = nullptr;
  uint32_t set_hint = 99, set_flags = 99, map_hint = 99, map_flags = 99;
  size_t set_link_offset = 99;
} g_captured;

}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_kro_hashset_create(kro_hashset_t **set, uint32_t size_hint, size_t link_offset,
                              kro_hashset_hash_fn hash, kro_hashset_match_fn match, uint32_t flags);
int __real_kro_hashmap_create(kro_hashmap_t **map, uint32_t size_hint, kro_hashset_hash_fn hash,
                              kro_hashset_match_fn match, uint32_t flags);

int __wrap_kro_hashset_create(kro_hashset_t **set, uint32_t size_hint, size_t link_offset,
                              kro_hashset_hash_fn hash, kro_hashset_match_fn match,
                              uint32_t flags) {
  g_captured.set_hash = hash;
  g_captured.set_match = match;
  g_captured.set_hint = size_hint;
  g_captured.set_link_offset = link_offset;
  g_captured.set_flags = flags;
  return __real_kro_hashset_create(set, size_hint, link_offset, hash, match, flags);
}

int __wrap_kro_hashmap_create(kro_hashmap_t **map, uint32_t size_hint, kro_hashset_hash_fn hash,
                              kro_hashset_match_fn match, uint32_t flags) {
  g_captured.map_hash = hash;
  g_captured.map_match = match;
  g_captured.map_hint = size_hint;
  g_captured.map_flags = flags;
  return __real_kro_hashmap_create(map, size_hint, hash, match, flags);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using zel_test::StdoutCapture;

class IpcRegCallbacks : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = zel_test::fault_live_blocks();
    ASSERT_EQ(zel_ipc_reg_mgr_init(&top_), ZEL_IPC_REG_OK);
    ASSERT_NE(g_captured.set_hash, nullptr);
    ASSERT_NE(g_captured.map_match, nullptr);
  }
  void TearDown() override {
    zel_ipc_reg_mgr_cleanup(&top_);
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before_);
  }

  static zel_ipc_reg_t reg(const std::string &name, uint32_t id) {
    zel_ipc_reg_t r{};
    r.id = id;
    memcpy(r.name, name.data(), name.size());
    return r;
  }

  zel_ipc_reg_top_t top_{};
  long live_before_ = 0;
};

TEST_F(IpcRegCallbacks, TablesAreCreatedWithThePlatformDefaults) {
  EXPECT_EQ(g_captured.set_hint, 0u);
  EXPECT_EQ(g_captured.set_link_offset, 0u);
  EXPECT_EQ(g_captured.set_flags, 0u);
  EXPECT_EQ(g_captured.map_hint, 0u);
  EXPECT_EQ(g_captured.map_flags, 0u);
}

TEST_F(IpcRegCallbacks, NullElements) {
  static const zel_ipc_reg_t x = reg("x", 1);
  struct Row {
    const char *label;
    int (*call)();
    int want;
    const char *output;
  } rows[] = {
      {"set hash", [] { return static_cast<int>(g_captured.set_hash(nullptr)); }, 0, ""},
      {"map hash", [] { return static_cast<int>(g_captured.map_hash(nullptr)); }, 0,
       "ipc reg null\n\n"},
      {"set match (NULL, x)", [] { return g_captured.set_match(nullptr, &x); }, 1,
       "hash elements NULL\n\n"},
      {"set match (x, NULL)", [] { return g_captured.set_match(&x, nullptr); }, 1,
       "hash elements NULL\n\n"},
      {"map match (NULL, x)", [] { return g_captured.map_match(nullptr, &x); }, 1,
       "hash elements NULL\n\n"},
      {"map match (x, NULL)", [] { return g_captured.map_match(&x, nullptr); }, 1,
       "hash elements NULL\n\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.label);
    StdoutCapture out;
    const int got = row.call();
    const std::string text = out.take();
    EXPECT_EQ(got, row.want);
    EXPECT_EQ(text, row.output);
  }
}

// Ids key the set whatever the names; names key the map whatever the ids; the hashes cover the
// id's four bytes and the whole name (100 characters included).
TEST_F(IpcRegCallbacks, KeysHashesAndComparisons) {
  const std::string n100(100, 'q');
  const std::string n100b = n100.substr(0, 99) + "r";
  const zel_ipc_reg_t a = reg("same", 1), b = reg("other", 1), c = reg("same", 2);
  const zel_ipc_reg_t l1 = reg(n100, 3), l2 = reg(n100b, 3);
  StdoutCapture quiet;
  const uint32_t id = 0x12345678u;
  const zel_ipc_reg_t k = reg("k", id);
  EXPECT_EQ(g_captured.set_hash(&k), kro_hash_calculate(&id, sizeof id));
  EXPECT_EQ(g_captured.map_hash(&l1), kro_hash_calculate(n100.data(), 100));
  EXPECT_EQ(g_captured.map_hash(&a), kro_hash_calculate("same", 4));
  EXPECT_EQ(g_captured.set_hash(&a), g_captured.set_hash(&b));
  struct Row {
    const char *label;
    kro_hashset_match_fn match;
    const zel_ipc_reg_t *x, *y;
    int want;
  } rows[] = {
      {"set: equal ids, other names", g_captured.set_match, &a, &b, 1},
      {"set: other ids, equal names", g_captured.set_match, &a, &c, 0},
      {"map: equal names, other ids", g_captured.map_match, &a, &c, 1},
      {"map: other names, equal ids", g_captured.map_match, &a, &b, 0},
      {"map: 100 characters, equal", g_captured.map_match, &l1, &l1, 1},
      {"map: 100 characters, last differs", g_captured.map_match, &l1, &l2, 0},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.label);
    EXPECT_EQ(r.match(r.x, r.y), r.want);
  }
}

// The callbacks trace at trace level with code 0 under their own function names.
TEST_F(IpcRegCallbacks, TracesCarryTheCallbacksNames) {
  const zel_ipc_reg_t a = reg("a", 4);
  StdoutCapture quiet;
  kro_probe_journal_start();
  g_captured.set_hash(&a);
  g_captured.set_match(&a, &a);
  g_captured.map_hash(&a);
  g_captured.map_match(&a, &a);
  g_captured.map_hash(nullptr);
  kro_probe_journal_stop();
  const auto calls = zel_test::log_calls();
  const char *const want[] = {
      ": zel_ipc_reg_hashset_calc: ", ": zel_ipc_reg_hashset_matcher: ",
      ": zel_ipc_reg_hashmap_calc: ", ": zel_ipc_reg_hashmap_matcher: ",
      ": zel_ipc_reg_hashmap_calc: ",
  };
  ASSERT_EQ(calls.size(), 5u);
  for (size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(calls[i]);
    EXPECT_EQ(calls[i].rfind("_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.trace ", 0), 0u);
    EXPECT_NE(calls[i].find(want[i]), std::string::npos);
    EXPECT_NE(calls[i].find(": 0: "), std::string::npos);
  }
}

}  // namespace
