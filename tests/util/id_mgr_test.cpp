// ID manager: counter, wrap and in-use probe, lookups, deletion, iteration, cleanup and
// allocation failures.
#include <zel/id_mgr.h>

#include "support/fault.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <vector>

// The public records' layout is fixed for both word sizes.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(zel_id_mgr_t) == 12 && offsetof(zel_id_mgr_t, next_id) == 4 &&
              offsetof(zel_id_mgr_t, flags) == 8);
static_assert(sizeof(zel_id_mgr_entry_t) == 16 && offsetof(zel_id_mgr_entry_t, id) == 8 &&
              offsetof(zel_id_mgr_entry_t, ctx) == 12);
#else
static_assert(sizeof(zel_id_mgr_t) == 16 && offsetof(zel_id_mgr_t, next_id) == 8 &&
              offsetof(zel_id_mgr_t, flags) == 12);
static_assert(sizeof(zel_id_mgr_entry_t) == 32 && offsetof(zel_id_mgr_entry_t, id) == 16 &&
              offsetof(zel_id_mgr_entry_t, ctx) == 24);
#endif

namespace {

constexpr uint16_t kCheck = ZEL_ID_MGR_F_CHECK_IN_USE;
constexpr uint16_t kWrapped = ZEL_ID_MGR_F_WRAPPED;

// Contexts are never dereferenced; distinct addresses are all they need.
char ctx_pool[4096];
void *ctx(uint32_t i) {
  return &ctx_pool[i % sizeof ctx_pool];
}

class IdMgr : public ::testing::Test {
 protected:
  void TearDown() override { zel_id_mgr_cleanup(&m_); }

  // Binds `id` by pointing the counter at it.
  void bind_at(uint32_t id, void *c) {
    m_.next_id = id;
    uint32_t got = 0;
    ASSERT_EQ(zel_id_mgr_get_id(&m_, c, &got), ZEL_ID_MGR_OK);
    ASSERT_EQ(got, id);
  }

  zel_id_mgr_t m_{};
};

TEST_F(IdMgr, HandsOutIdsFromOne) {
  ASSERT_EQ(zel_id_mgr_init(&m_), ZEL_ID_MGR_OK);
  EXPECT_EQ(m_.next_id, 1u);
  EXPECT_EQ(m_.flags, 0u);
  for (uint32_t want = 1; want <= 3; ++want) {
    uint32_t id = 0;
    EXPECT_EQ(zel_id_mgr_get_id(&m_, ctx(want), &id), ZEL_ID_MGR_OK);
    EXPECT_EQ(id, want);
    EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, id), ctx(want));
  }
  EXPECT_EQ(m_.next_id, 4u);
  EXPECT_EQ(zel_id_mgr_delete_id(&m_, 2), ZEL_ID_MGR_OK);
  EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, 2), nullptr);
  EXPECT_EQ(zel_id_mgr_delete_id(&m_, 2), ZEL_ID_MGR_ERROR);
  EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, 3), ctx(3));
}

TEST_F(IdMgr, CounterWrapAndInUseProbe) {
  struct Row {
    const char *name;
    uint16_t flags;
    std::vector<uint32_t> bound;
    uint32_t start;
    int32_t rc;
    uint32_t id, next_after;
    bool wrapped_after;
  };
  const Row rows[] = {
      {"last id before the wrap", 0, {}, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0, false},
      {"wrap, no check, 1 bound", 0, {1}, 0, 0, 1, 2, true},
      {"wrap, check, 1 free", kCheck, {}, 0, 0, 1, 2, true},
      {"wrap, check, 1 and 2 bound", kCheck, {1, 2}, 0, 0, 3, 4, true},
      {"xinit 0x0101, 1 and 2 bound", kCheck | kWrapped, {1, 2}, 1, 0, 3, 4, true},
      {"wrapped, no check, 1 and 2 bound", kWrapped, {1, 2}, 1, 0, 1, 2, true},
      {"check, never wrapped, 1 bound", kCheck, {1}, 1, 0, 1, 2, false},
      {"other bits have no effect", 0xFEFE, {1}, 1, 0, 1, 2, false},
      {"probe reaches the last id",
       kCheck | kWrapped,
       {0xFFFFFFFE},
       0xFFFFFFFE,
       0,
       0xFFFFFFFF,
       0,
       true},
      {"probe runs past the last id",
       kCheck | kWrapped,
       {0xFFFFFFFE, 0xFFFFFFFF},
       0xFFFFFFFE,
       -1,
       0,
       1,
       true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    zel_id_mgr_cleanup(&m_);
    ASSERT_EQ(zel_id_mgr_xinit(&m_, row.flags), ZEL_ID_MGR_OK);
    ASSERT_EQ(m_.flags, row.flags);
    for (uint32_t b : row.bound) bind_at(b, ctx(b));
    m_.next_id = row.start;
    uint32_t id = 77;
    EXPECT_EQ(zel_id_mgr_get_id(&m_, ctx(9), &id), row.rc);
    EXPECT_EQ(id, row.id);
    EXPECT_EQ(m_.next_id, row.next_after);
    EXPECT_EQ((m_.flags & kWrapped) != 0, row.wrapped_after);
    EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, row.id), row.rc == 0 ? ctx(9) : nullptr);
  }
  // After the failed probe the next get starts again from 1.
  uint32_t id = 0;
  EXPECT_EQ(zel_id_mgr_get_id(&m_, ctx(10), &id), ZEL_ID_MGR_OK);
  EXPECT_EQ(id, 1u);
}

TEST_F(IdMgr, EqualIdsShadowAndUncover) {
  ASSERT_EQ(zel_id_mgr_xinit(&m_, kWrapped), ZEL_ID_MGR_OK);
  bind_at(1, ctx(100));
  bind_at(1, ctx(200));  // no in-use check: bound twice
  EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, 1), ctx(200));
  std::vector<void *> seen;
  zel_id_mgr_iterate(
      &m_,
      [](zel_id_mgr_t *, uint32_t id, void *c, void *arg) {
        EXPECT_EQ(id, 1u);
        static_cast<std::vector<void *> *>(arg)->push_back(c);
        return 0;
      },
      &seen);
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_EQ(zel_id_mgr_delete_id(&m_, 1), ZEL_ID_MGR_OK);
  EXPECT_EQ(zel_id_mgr_id_to_ctx(&m_, 1), ctx(100));
  EXPECT_EQ(zel_id_mgr_delete_id(&m_, 1), ZEL_ID_MGR_OK);
  EXPECT_EQ(zel_id_mgr_delete_id(&m_, 1), ZEL_ID_MGR_ERROR);
}

TEST_F(IdMgr, IterateVisitsEachBindingOnce) {
  ASSERT_EQ(zel_id_mgr_init(&m_), ZEL_ID_MGR_OK);
  uint32_t id = 0;
  for (uint32_t i = 1; i <= 200; ++i) ASSERT_EQ(zel_id_mgr_get_id(&m_, ctx(i), &id), 0);
  for (uint32_t i = 1; i <= 200; i += 3) ASSERT_EQ(zel_id_mgr_delete_id(&m_, i), 0);
  std::map<uint32_t, int> visits;
  zel_id_mgr_iterate(
      &m_,
      [](zel_id_mgr_t *mgr, uint32_t i, void *c, void *arg) {
        EXPECT_EQ(c, ctx(i));
        EXPECT_EQ(zel_id_mgr_id_to_ctx(mgr, i), c);  // lookups are allowed during the walk
        ++(*static_cast<std::map<uint32_t, int> *>(arg))[i];
        return 1;
      },
      &visits);
  EXPECT_EQ(visits.size(), 200u - 67u);
  for (const auto &[i, n] : visits) EXPECT_TRUE(n == 1 && i % 3 != 1) << i;
}

TEST_F(IdMgr, CleanupReleasesLiveBindings) {
  const long live = zel_test::fault_live_blocks();
  ASSERT_EQ(zel_id_mgr_xinit(&m_, kCheck), ZEL_ID_MGR_OK);
  uint32_t id = 0;
  for (uint32_t i = 1; i <= 1000; ++i) ASSERT_EQ(zel_id_mgr_get_id(&m_, ctx(i), &id), 0);
  zel_id_mgr_cleanup(&m_);
  EXPECT_EQ(zel_test::fault_live_blocks(), live);
  EXPECT_EQ(m_.set, nullptr);
  EXPECT_EQ(m_.next_id, 1001u);
  EXPECT_EQ(m_.flags, kCheck);
  zel_id_mgr_cleanup(&m_);  // a second cleanup does nothing
  EXPECT_EQ(zel_id_mgr_get_id(&m_, ctx(1), &id), ZEL_ID_MGR_ERROR);
}

TEST_F(IdMgr, InitAllocationFailuresLeaveTheManager) {
  const unsigned failures = zel_test::fault_sweep([&](unsigned n) {
    zel_id_mgr_t m{nullptr, 77, 5};
    int32_t rc;
    {
      zel_test::FaultScope fault(n);
      rc = zel_id_mgr_xinit(&m, kCheck);
    }
    const bool failed = zel_test::fault_fired();
    EXPECT_EQ(rc, failed ? ZEL_ID_MGR_ERROR : ZEL_ID_MGR_OK) << n;
    EXPECT_EQ(m.set == nullptr, failed) << n;
    EXPECT_EQ(m.next_id, failed ? 77u : 1u) << n;
    EXPECT_EQ(m.flags, failed ? 5u : kCheck) << n;
    zel_id_mgr_cleanup(&m);
    return failed;
  });
  EXPECT_GE(failures, 1u);
}

TEST_F(IdMgr, EntryAllocationFailureUsesTheCandidateUp) {
  // With 16 bindings the set grows on the next insert; a failed growth is not an error.
  for (uint32_t live : {0u, 16u}) {
    SCOPED_TRACE(live);
    const unsigned failures = zel_test::fault_sweep([&](unsigned n) {
      zel_id_mgr_t m{};
      uint32_t id = 0;
      EXPECT_EQ(zel_id_mgr_init(&m), 0);
      for (uint32_t i = 0; i < live; ++i) EXPECT_EQ(zel_id_mgr_get_id(&m, ctx(i + 1), &id), 0);
      int32_t rc;
      {
        zel_test::FaultScope fault(n);
        rc = zel_id_mgr_get_id(&m, ctx(99), &id);
      }
      const bool entry_failed = zel_test::fault_fired() && n == 1;
      EXPECT_EQ(rc, entry_failed ? ZEL_ID_MGR_ERROR : ZEL_ID_MGR_OK) << n;
      EXPECT_EQ(id, entry_failed ? 0u : live + 1) << n;
      EXPECT_EQ(m.next_id, live + 2) << n;
      EXPECT_EQ(zel_id_mgr_id_to_ctx(&m, live + 1), entry_failed ? nullptr : ctx(99)) << n;
      zel_id_mgr_cleanup(&m);
      return zel_test::fault_fired();
    });
    EXPECT_EQ(failures, live == 0 ? 1u : 2u);
  }
}

}  // namespace
