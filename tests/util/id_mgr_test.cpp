// ID manager: the counter, its wrap and the in-use probe, iteration and allocation failures.
#include <zel/id_mgr.h>

#include "support/fault.h"

#include <gtest/gtest.h>

#include <cstddef>

// The public records' layout is fixed for both word sizes: w(32-bit, 64-bit).
constexpr auto w = [](size_t on32, size_t on64) { return sizeof(void *) == 4 ? on32 : on64; };
static_assert(sizeof(zel_id_mgr_t) == w(12, 16) && offsetof(zel_id_mgr_t, next_id) == w(4, 8) &&
              offsetof(zel_id_mgr_t, flags) == w(8, 12));
static_assert(sizeof(zel_id_mgr_entry_t) == w(16, 32) &&
              offsetof(zel_id_mgr_entry_t, id) == w(8, 16) &&
              offsetof(zel_id_mgr_entry_t, ctx) == w(12, 24));

namespace {

constexpr uint16_t kCheck = ZEL_ID_MGR_F_CHECK_IN_USE, kWrapped = ZEL_ID_MGR_F_WRAPPED;
char g_ctx[4096];  // distinct context addresses, never dereferenced

// Rows bind `bound` ids from `first`, then get one from `start`: id 0 never comes, and bound
// ids are skipped only after a wrap with the check on. The walk visits each binding once.
TEST(IdMgr, CounterWrapAndInUseProbe) {
  struct Row {
    uint32_t flags, first, bound, start, id, next_after;  // id 0: the get fails
  };
  const Row rows[] = {
      {0, 1, 1, 0, 1, 2},                      // wrap, no check
      {kCheck, 1, 2, 0, 3, 4},                 // wrap, check
      {kCheck, 1, 1, 1, 1, 2},                 // check, never wrapped
      {kCheck | kWrapped, ~1u, 2, ~1u, 0, 1},  // the probe runs out
  };
  zel_id_mgr_t m{};
  for (const Row &row : rows) {
    zel_id_mgr_cleanup(&m);  // frees what the last row bound
    ASSERT_EQ(zel_id_mgr_xinit(&m, row.flags), ZEL_ID_MGR_OK);
    uint32_t id = 77;
    m.next_id = row.first;
    for (uint32_t i = 1; i <= row.bound; ++i) ASSERT_EQ(zel_id_mgr_get_id(&m, &g_ctx[i], &id), 0);
    m.next_id = row.start;
    EXPECT_EQ(zel_id_mgr_get_id(&m, g_ctx, &id) == ZEL_ID_MGR_OK, row.id != 0);
    EXPECT_EQ(std::tuple(id, m.next_id), std::tuple(row.id, row.next_after));
    EXPECT_EQ(zel_id_mgr_id_to_ctx(&m, row.id), row.id != 0 ? g_ctx : nullptr);
  }
  const zel_id_mgr_iterate_cb add = [](zel_id_mgr_t *, uint32_t i, void *, void *sum) {
    return *static_cast<uint64_t *>(sum) += i, 0;
  };
  uint64_t sum = 0;
  zel_id_mgr_iterate(&m, add, &sum);
  EXPECT_EQ(sum, 0xFFFFFFFEull + 0xFFFFFFFFull);
  EXPECT_TRUE(zel_id_mgr_delete_id(&m, ~0u) == ZEL_ID_MGR_OK && !zel_id_mgr_id_to_ctx(&m, ~0u));
  zel_id_mgr_cleanup(&m);
}

// A failed init leaves the manager as it was; a failed entry uses its candidate up; the 13th
// binding grows the set, and a failed growth is no error.
TEST(IdMgr, AllocationFailures) {
  EXPECT_EQ(
      zel_test::fault_sweep([&](unsigned n) {
        zel_test::FaultScope fault(n);
        zel_id_mgr_t m{nullptr, 77, 5};
        const bool up = zel_id_mgr_xinit(&m, kCheck) == ZEL_ID_MGR_OK;
        EXPECT_TRUE(up || (zel_test::fault_fired() && !m.set && m.next_id == 77 && m.flags == 5));
        for (uint32_t i = 1, id = 0; up && i <= 17 && !zel_test::fault_fired(); ++i) {
          const bool failed = zel_id_mgr_get_id(&m, &g_ctx[i], &id) != ZEL_ID_MGR_OK;
          EXPECT_EQ(failed, zel_test::fault_fired() && id == ZEL_ID_MGR_NO_ID) << i;
          EXPECT_EQ(std::tuple(m.next_id, zel_id_mgr_id_to_ctx(&m, i)),
                    std::tuple(i + 1, failed ? nullptr : &g_ctx[i]));
        }
        zel_id_mgr_cleanup(&m);
        return zel_test::fault_fired();
      }),
      20u);  // the set's two blocks, 17 entries, one growth
}

}  // namespace
