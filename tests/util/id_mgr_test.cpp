// ID manager: the counter, its wrap and the in-use probe, iteration, deletion and allocation
// failures.
#include <zel/id_mgr.h>

#include "support/fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <vector>

// The public records' layout is fixed for both word sizes: w(32-bit, 64-bit).
constexpr size_t w(size_t on32, size_t on64) {
  return sizeof(void *) == 4 ? on32 : on64;
}
static_assert(sizeof(zel_id_mgr_t) == w(12, 16) && offsetof(zel_id_mgr_t, next_id) == w(4, 8) &&
              offsetof(zel_id_mgr_t, flags) == w(8, 12));
static_assert(sizeof(zel_id_mgr_entry_t) == w(16, 32) &&
              offsetof(zel_id_mgr_entry_t, id) == w(8, 16) &&
              offsetof(zel_id_mgr_entry_t, ctx) == w(12, 24));

namespace {

constexpr uint16_t kCheck = ZEL_ID_MGR_F_CHECK_IN_USE, kWrapped = ZEL_ID_MGR_F_WRAPPED;
char g_ctx[4096];  // distinct context addresses, never dereferenced

// Each row: ids bound (by pointing the counter at them), then one get from `start`.
TEST(IdMgr, CounterWrapAndInUseProbe) {
  struct Row {
    const char *name;
    uint16_t flags;
    std::vector<uint32_t> bound;
    uint32_t start, rc, id, next_after;
    bool wrapped_after;
  };
  // clang-format off
  const Row rows[] = {
      {"last id before the wrap", 0, {}, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0, false},
      {"wrap, no check, 1 bound", 0, {1}, 0, 0, 1, 2, true},
      {"wrap, check, 1 and 2 bound", kCheck, {1, 2}, 0, 0, 3, 4, true},
      {"xinit 0x0101, 1 and 2 bound", kCheck | kWrapped, {1, 2}, 1, 0, 3, 4, true},
      {"wrapped, no check, 1 and 2 bound", kWrapped, {1, 2}, 1, 0, 1, 2, true},
      {"check, never wrapped, 1 bound", kCheck, {1}, 1, 0, 1, 2, false},
      {"other bits have no effect", 0xFEFE, {1}, 1, 0, 1, 2, false},
      {"probe reaches the last id", kCheck | kWrapped, {0xFFFFFFFE}, 0xFFFFFFFE, 0, ~0u, 0, true},
      {"probe runs past the last id", kCheck | kWrapped, {0xFFFFFFFE, ~0u}, 0xFFFFFFFE, ~0u, 0, 1,
       true},
  };
  // clang-format on
  zel_id_mgr_t m{};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    zel_id_mgr_cleanup(&m);  // frees what the last row bound (the leak checks see any left over)
    ASSERT_EQ(zel_id_mgr_xinit(&m, row.flags), ZEL_ID_MGR_OK);
    uint32_t id = 77;
    for (uint32_t b : row.bound) {
      m.next_id = b;
      ASSERT_TRUE(zel_id_mgr_get_id(&m, &g_ctx[b % 4096], &id) == ZEL_ID_MGR_OK && id == b);
    }
    m.next_id = row.start;
    id = 77;
    EXPECT_EQ(static_cast<uint32_t>(zel_id_mgr_get_id(&m, g_ctx, &id)), row.rc);
    EXPECT_EQ(std::tuple(id, m.next_id, (m.flags & kWrapped) != 0),
              std::tuple(row.id, row.next_after, row.wrapped_after));
    EXPECT_EQ(zel_id_mgr_id_to_ctx(&m, row.id), row.rc == 0 ? g_ctx : nullptr);
  }
  // After the failed probe the next get starts again from 1. The walk visits each binding once
  // and may look ids up.
  uint32_t id = 0;
  EXPECT_TRUE(zel_id_mgr_get_id(&m, g_ctx, &id) == ZEL_ID_MGR_OK && id == 1u);
  std::vector<uint32_t> seen;
  const zel_id_mgr_iterate_cb note = [](zel_id_mgr_t *mgr, uint32_t i, void *c, void *arg) {
    EXPECT_EQ(zel_id_mgr_id_to_ctx(mgr, i), c);
    static_cast<std::vector<uint32_t> *>(arg)->push_back(i);
    return 0;
  };
  zel_id_mgr_iterate(&m, note, &seen);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 0xFFFFFFFE, 0xFFFFFFFF}));
  EXPECT_TRUE(zel_id_mgr_delete_id(&m, 1) == ZEL_ID_MGR_OK && !zel_id_mgr_id_to_ctx(&m, 1));
  zel_id_mgr_cleanup(&m);
}

// A failed init leaves the manager as it was; a failed entry uses its candidate up; the 13th
// binding grows the set, and a failed growth is no error.
TEST(IdMgr, AllocationFailures) {
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              zel_test::FaultScope fault(n);
              zel_id_mgr_t m{nullptr, 77, 5};
              if (zel_id_mgr_xinit(&m, kCheck) != ZEL_ID_MGR_OK) {
                EXPECT_TRUE(zel_test::fault_fired() && !m.set && m.next_id == 77 && m.flags == 5);
                return true;
              }
              for (uint32_t i = 1, id = 0; i <= 17 && !zel_test::fault_fired(); ++i) {
                const bool failed = zel_id_mgr_get_id(&m, &g_ctx[i], &id) != ZEL_ID_MGR_OK;
                EXPECT_EQ(failed, zel_test::fault_fired() && id == ZEL_ID_MGR_NO_ID) << i;
                EXPECT_EQ(m.next_id, i + 1) << i;
                EXPECT_EQ(zel_id_mgr_id_to_ctx(&m, i), failed ? nullptr : &g_ctx[i]) << i;
              }
              zel_id_mgr_cleanup(&m);
              return zel_test::fault_fired();
            }),
            20u);  // the set's two blocks, 17 entries, one growth
}

}  // namespace
