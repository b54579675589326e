// Every allocation of the dispatch manager and the managed timer trees, failed in turn: the
// call reports ENOMEM and leaves nothing allocated.
#include <kro/mgd_timer.h>
#include <unistd.h>

#include "dm_test_util.h"
#include "support/fault.h"

namespace {

// Fails each allocation of `call` (returning a result code) in turn; `undo` then releases what
// a successful call made (and is harmless after a failed one). Returns how many allocations
// the call makes.
template <typename Call, typename Undo>
unsigned sweep(Call call, Undo undo) {
  return zel_test::fault_sweep([&](unsigned n) {
    int rc;
    {
      zel_test::FaultScope scope(n);
      rc = call();
    }
    EXPECT_EQ(rc, zel_test::fault_fired() ? KRO_DM_ENOMEM : 0) << "failing allocation " << n;
    undo();
    return zel_test::fault_fired();
  });
}

int made(const void *p) {
  return p != nullptr ? 0 : KRO_MGD_TIMER_ENOMEM;
}

TEST(DmFault, EveryAllocationFailsCleanly) {
  kro_dm_t *dm = nullptr;
  kro_dm_watched_queue_t *q = nullptr;
  EXPECT_EQ(sweep([&] { return kro_dm_create(&dm); }, [&] { kro_dm_destroy(&dm); }),
            2u);  // the manager, its timer heap
  EXPECT_EQ(sweep([&] { return kro_dm_watched_queue_create("q", 1, nullptr, &q); },
                  [&] { kro_dm_watched_queue_destroy(&q); }),
            1u);
  dm_test::Dm d;
  kro_dm_timer_t *t = nullptr, *timers[8];
  kro_dm_timer_fn noop_timer = [](auto, auto, auto) { return 0; };
  auto timer = [&] {
    return sweep([&] { return kro_dm_timer_register(d.dm, &t, noop_timer, nullptr); },
                 [&] { kro_dm_timer_register(d.dm, &t, nullptr, nullptr); });
  };
  EXPECT_EQ(timer(), 1u);              // the record
  for (kro_dm_timer_t *&x : timers) {  // left for the manager's destroy to delete
    ASSERT_EQ(kro_dm_timer_register(d.dm, &x, noop_timer, nullptr), 0);
  }
  EXPECT_EQ(timer(), 2u);  // with a full heap, its growth too
  // A descriptor: its record.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  kro_dm_fd_fn noop_fd = [](auto, auto, auto, auto) {};
  auto reg = [&] { return kro_dm_fd_register(d.dm, fds[0], 1, noop_fd, nullptr); };
  EXPECT_EQ(sweep(reg, [&] { kro_dm_fd_deregister(d.dm, fds[0]); }), 1u);
  // A tree: itself and its leaf heap; attaching: the manager timer; a leaf beyond the heap's
  // first room (8): the heap's growth and the leaf.
  kro_mgd_timer_tree_t *tree = nullptr;
  kro_mgd_timer_leaf_t *leaves[9] = {};
  kro_mgd_timer_fn noop_leaf = [](auto, auto, auto) { return 0; };
  EXPECT_EQ(sweep([&] { return made(tree = kro_mgd_timer_tree_alloc()); },
                  [&] { kro_mgd_timer_tree_free(&tree); }),
            2u);
  tree = kro_mgd_timer_tree_alloc();
  EXPECT_EQ(sweep([&] { return kro_mgd_timer_attach_xdm(tree, d.dm, noop_leaf); },
                  [&] { kro_mgd_timer_detach_xdm(tree); }),
            1u);
  for (int i = 0; i < 8; ++i) {
    leaves[i] = kro_mgd_timer_leaf_alloc(tree, 0, KRO_MGD_TIMER_ONESHOT, nullptr);
  }
  EXPECT_EQ(sweep([&] { return made(leaves[8] = kro_mgd_timer_leaf_alloc(tree, 0, 1, nullptr)); },
                  [&] { kro_mgd_timer_leaf_free(&leaves[8]); }),
            2u);
  for (kro_mgd_timer_leaf_t *&l : leaves) {
    kro_mgd_timer_leaf_free(&l);
  }
  kro_mgd_timer_tree_free(&tree);
  EXPECT_EQ(close(fds[0]) + close(fds[1]), 0);
}

}  // namespace
