// The manager itself: creation and destruction, calls refused from inside handlers.
#include "dm_test_util.h"

using dm_test::Dm;

namespace {

TEST(Dm, CreateFailsCleanlyOnEveryAllocation) {
  kro_dm_t *dm = nullptr;
  const unsigned allocations = dm_test::sweep(
      [&] {
        const int rc = kro_dm_create(&dm);
        EXPECT_TRUE(rc == 0 || dm == nullptr);
        return rc;
      },
      [&] { EXPECT_EQ(kro_dm_destroy(&dm), 0); });
  EXPECT_EQ(allocations, 2u);  // the manager, its timer heap
}

TEST(Dm, NullArguments) {
  kro_dm_t *dm = nullptr;
  kro_dm_stats_t s;
  EXPECT_EQ(kro_dm_create(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_destroy(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_destroy(&dm), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_wait(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_dispatch(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_stats_get(nullptr, &s), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_set_clock(nullptr, nullptr, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_now(nullptr), 0u);
}

// From inside a handler the loop calls and destroy of the same manager are refused.
int nested(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
  EXPECT_EQ(kro_dm_wait(dm), KRO_DM_EBUSY);
  EXPECT_EQ(kro_dm_dispatch(dm), KRO_DM_EBUSY);
  kro_dm_t *self = dm;
  EXPECT_EQ(kro_dm_destroy(&self), KRO_DM_EBUSY);
  ++*static_cast<int *>(cookie);
  return kro_dm_timer_register(dm, &timer, nullptr, nullptr);
}

TEST(Dm, LoopCallsFromInsideHandlerAreRefused) {
  Dm d;
  int runs = 0;
  kro_dm_timer_t *t = nullptr;
  ASSERT_EQ(kro_dm_timer_register(d.dm, &t, nested, &runs), 0);
  const kro_dm_time_t zero{0, 0};
  ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &zero), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(dm_test::stats(d.dm).timer_runs, 1u);
}

}  // namespace
