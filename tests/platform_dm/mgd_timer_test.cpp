// Managed timer trees and leaves on a clock the test drives.
#include <kro/mgd_timer.h>

#include <vector>

#include "dm_test_util.h"

using dm_test::Dm;
using dm_test::FakeClock;

namespace {

// What the handler does with the expiring leaf, per test.
struct Ctx {
  kro_mgd_timer_tree_t *tree = nullptr;
  unsigned expiries = 0;
  uint32_t restart_ms = 0;                     // restart the expiring leaf
  kro_mgd_timer_leaf_t **free_leaf = nullptr;  // free this leaf (maybe the expiring one)
  bool free_tree = false;
  std::vector<uint32_t> tags;
};

int on_expiry(kro_mgd_timer_tree_t *tree, kro_mgd_timer_leaf_t *leaf, void *context) {
  auto *c = static_cast<Ctx *>(context);
  EXPECT_EQ(tree, c->tree);
  ++c->expiries;
  c->tags.push_back(kro_mgd_timer_leaf_tag(leaf));
  if (c->restart_ms != 0) {
    EXPECT_EQ(kro_mgd_timer_leaf_start(leaf, c->restart_ms, 0), 0);
  }
  if (c->free_leaf != nullptr) {
    EXPECT_EQ(kro_mgd_timer_leaf_free(c->free_leaf), 0);
  }
  if (c->free_tree) {
    EXPECT_EQ(kro_mgd_timer_tree_free(&c->tree), 0);
  }
  return 0;
}

struct Fixture : ::testing::Test {
  Dm d;
  FakeClock clock;
  kro_mgd_timer_tree_t *tree = nullptr;
  void SetUp() override {
    ASSERT_EQ(kro_dm_set_clock(d.dm, FakeClock::read, &clock), 0);
    tree = kro_mgd_timer_tree_alloc();
    ASSERT_NE(tree, nullptr);
    ASSERT_EQ(kro_mgd_timer_attach_xdm(tree, d.dm, on_expiry), 0);
  }
  void TearDown() override { kro_mgd_timer_tree_free(&tree); }
  kro_mgd_timer_leaf_t *leaf(Ctx *c, uint32_t tag, uint32_t mode = KRO_MGD_TIMER_ONESHOT) {
    c->tree = tree;
    kro_mgd_timer_leaf_t *l = kro_mgd_timer_leaf_alloc(tree, tag, mode, c);
    EXPECT_NE(l, nullptr);
    return l;
  }
  void advance(uint64_t ms) {
    clock.advance_ms(ms);
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  }
};

using MgdTimer = Fixture;

TEST_F(MgdTimer, OneShotAndPeriodicLeavesInDeadlineOrder) {
  Ctx c;
  kro_mgd_timer_leaf_t *once = leaf(&c, 1);
  kro_mgd_timer_leaf_t *every = leaf(&c, 2, KRO_MGD_TIMER_PERIODIC);
  ASSERT_EQ(kro_mgd_timer_leaf_start(once, 15, 0), 0);
  ASSERT_EQ(kro_mgd_timer_leaf_start(every, 10, 0), 0);
  advance(9);
  EXPECT_EQ(c.expiries, 0u);  // never early
  advance(6);                 // t = 15: both due, the periodic one first
  EXPECT_EQ(c.tags, (std::vector<uint32_t>{2, 1}));
  EXPECT_EQ(kro_mgd_timer_leaf_running(once), 0);
  EXPECT_NE(kro_mgd_timer_leaf_running(every), 0);
  advance(5);  // t = 20: the periodic one again
  advance(10);
  EXPECT_EQ(c.tags, (std::vector<uint32_t>{2, 1, 2, 2}));
  ASSERT_EQ(kro_mgd_timer_leaf_stop(every), 0);
  advance(100);
  EXPECT_EQ(c.expiries, 4u);
  kro_mgd_timer_leaf_free(&once);
  kro_mgd_timer_leaf_free(&every);
  EXPECT_EQ(once, nullptr);
}

TEST_F(MgdTimer, TimeoutZeroMeansStopped) {
  Ctx c;
  kro_mgd_timer_leaf_t *l = leaf(&c, 1);
  ASSERT_EQ(kro_mgd_timer_leaf_start(l, 10, 0), 0);
  ASSERT_EQ(kro_mgd_timer_leaf_start(l, 0, 0), 0);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l), 0);
  advance(50);
  EXPECT_EQ(c.expiries, 0u);
  kro_mgd_timer_leaf_free(&l);
}

TEST_F(MgdTimer, HeartbeatRestartFromHandler) {
  Ctx c;
  c.restart_ms = 10;
  kro_mgd_timer_leaf_t *l = leaf(&c, 1);
  ASSERT_EQ(kro_mgd_timer_leaf_start(l, 10, 0), 0);
  for (unsigned n = 1; n <= 3; ++n) {
    advance(10);
    EXPECT_EQ(c.expiries, n);
    EXPECT_NE(kro_mgd_timer_leaf_running(l), 0);
  }
  kro_mgd_timer_leaf_free(&l);
}

TEST_F(MgdTimer, FreeLeavesFromHandler) {
  Ctx self;
  kro_mgd_timer_leaf_t *a = leaf(&self, 1);
  self.free_leaf = &a;  // frees itself
  Ctx other;
  kro_mgd_timer_leaf_t *b = leaf(&other, 2);
  kro_mgd_timer_leaf_t *c = leaf(&other, 3);
  other.free_leaf = &c;  // b frees c, which is due in the same step
  ASSERT_EQ(kro_mgd_timer_leaf_start(a, 5, 0), 0);
  ASSERT_EQ(kro_mgd_timer_leaf_start(b, 5, 0), 0);
  ASSERT_EQ(kro_mgd_timer_leaf_start(c, 5, 0), 0);
  advance(5);
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(self.expiries + other.expiries, 2u);
  kro_mgd_timer_leaf_free(&b);
}

TEST_F(MgdTimer, FreeTreeFromHandlerThenLastLeaf) {
  const long live = zel_test::fault_live_blocks();
  Ctx c;
  kro_mgd_timer_leaf_t *l = leaf(&c, 1);
  c.free_tree = true;
  ASSERT_EQ(kro_mgd_timer_leaf_start(l, 1, 0), 0);
  advance(1);
  EXPECT_EQ(c.tree, nullptr);
  tree = nullptr;
  EXPECT_EQ(kro_mgd_timer_leaf_start(l, 1, 0), KRO_MGD_TIMER_ENOTCONN);
  EXPECT_EQ(kro_mgd_timer_leaf_free(&l), 0);           // releases the tree too
  EXPECT_EQ(zel_test::fault_live_blocks(), live - 3);  // tree, its leaf heap, manager timer
  kro_dm_t *dm = d.dm;
  EXPECT_EQ(kro_dm_destroy(&dm), 0);  // detached: nothing holds the manager
  d.dm = nullptr;
}

// The feature loop's teardown order: detach, free the tree, then free the leaf.
TEST_F(MgdTimer, DetachStopsLeavesAndTreeOutlivedByLeaf) {
  Ctx c;
  kro_mgd_timer_leaf_t *l = leaf(&c, 1);
  ASSERT_EQ(kro_mgd_timer_leaf_start(l, 10, 0), 0);
  EXPECT_EQ(kro_dm_destroy(&d.dm), KRO_DM_EBUSY);  // the tree is attached
  EXPECT_EQ(kro_mgd_timer_attach_xdm(tree, d.dm, on_expiry), KRO_MGD_TIMER_EBUSY);
  ASSERT_EQ(kro_mgd_timer_detach_xdm(tree), 0);
  EXPECT_EQ(kro_mgd_timer_detach_xdm(tree), KRO_MGD_TIMER_ENOTCONN);
  EXPECT_EQ(kro_mgd_timer_leaf_running(l), 0);
  EXPECT_EQ(kro_mgd_timer_leaf_start(l, 10, 0), KRO_MGD_TIMER_ENOTCONN);
  advance(20);
  EXPECT_EQ(c.expiries, 0u);
  ASSERT_EQ(kro_mgd_timer_tree_free(&tree), 0);
  EXPECT_EQ(tree, nullptr);
  EXPECT_EQ(kro_mgd_timer_leaf_free(&l), 0);
}

TEST_F(MgdTimer, InvalidArguments) {
  Ctx c;
  EXPECT_EQ(kro_mgd_timer_leaf_alloc(tree, 0, 2, &c), nullptr);
  EXPECT_EQ(kro_mgd_timer_leaf_alloc(nullptr, 0, 1, &c), nullptr);
  kro_mgd_timer_leaf_t *l = leaf(&c, 1);
  EXPECT_EQ(kro_mgd_timer_leaf_start(l, 10, 1), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_leaf_start(nullptr, 10, 0), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_leaf_stop(nullptr), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_attach_xdm(tree, nullptr, on_expiry), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_detach_xdm(nullptr), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_tree_free(nullptr), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_leaf_free(nullptr), KRO_MGD_TIMER_EINVAL);
  EXPECT_EQ(kro_mgd_timer_leaf_free(&l), 0);
  EXPECT_EQ(kro_mgd_timer_leaf_free(&l), 0);  // NULL handle: nothing to do
}

TEST(MgdTimerFaults, EveryAllocationFailsCleanly) {
  Dm d;
  kro_mgd_timer_tree_t *tree = nullptr;
  auto rc = [](const void *made) { return made != nullptr ? 0 : KRO_MGD_TIMER_ENOMEM; };
  EXPECT_EQ(dm_test::sweep([&] { return rc(tree = kro_mgd_timer_tree_alloc()); },
                           [&] { kro_mgd_timer_tree_free(&tree); }),
            2u);  // the tree, its leaf heap
  tree = kro_mgd_timer_tree_alloc();
  EXPECT_EQ(dm_test::sweep([&] { return kro_mgd_timer_attach_xdm(tree, d.dm, on_expiry); },
                           [&] { kro_mgd_timer_detach_xdm(tree); }),
            1u);                                  // the manager timer
  std::vector<kro_mgd_timer_leaf_t *> leaves(8);  // fill the leaf heap's first room
  for (kro_mgd_timer_leaf_t *&l : leaves) {
    l = kro_mgd_timer_leaf_alloc(tree, 0, KRO_MGD_TIMER_ONESHOT, nullptr);
  }
  kro_mgd_timer_leaf_t *ninth = nullptr;
  EXPECT_EQ(
      dm_test::sweep([&] { return rc(ninth = kro_mgd_timer_leaf_alloc(tree, 0, 1, nullptr)); },
                     [&] { kro_mgd_timer_leaf_free(&ninth); }),
      2u);  // heap growth, the leaf
  for (kro_mgd_timer_leaf_t *&l : leaves) {
    kro_mgd_timer_leaf_free(&l);
  }
  kro_mgd_timer_tree_free(&tree);
}

}  // namespace
