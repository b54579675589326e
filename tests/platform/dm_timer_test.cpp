// Timers of the dispatch manager and the managed timer trees on top of them; every allocation
// of the manager and the trees failed in turn.
#include <kro/mgd_timer.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/dm_test_util.h"
#include "support/fault.h"

using dm_test::Dm;

namespace {

const kro_dm_time_t kZero{0, 0};

// A timer's handler logs its name, re-arms itself {0, 0} `rearm` more times and then deletes
// itself (-1: neither); it deletes `victim`.
struct Act {
  std::string *log = nullptr;
  char name = 0;
  int rearm = -1;
  kro_dm_timer_t **victim = nullptr;
  static int run(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
    auto *a = static_cast<Act *>(cookie);
    *a->log += a->name;
    if (a->rearm-- > 0) {
      EXPECT_EQ(kro_dm_timer_settime(dm, timer, &kZero), 0);
    } else if (a->rearm == -1) {
      EXPECT_EQ(kro_dm_timer_register(dm, &timer, nullptr, nullptr), 0);
    }
    if (a->victim != nullptr) {
      EXPECT_EQ(kro_dm_timer_register(dm, a->victim, nullptr, nullptr), 0);
    }
    return 0;
  }
};

// On a clock the test drives: due timers run in deadline order, equal deadlines in arming
// order, never early. {0, 0} runs the handler once at the next step, also when re-armed from
// the handler; deleting with a NULL handler works from the timer's own handler, and from another
// timer's handler in the step where the deleted one is due.
TEST(DmTimer, OrderNextStepRuleAndDeletion) {
  Dm d;
  dm_test::FakeClock clock;
  ASSERT_EQ(kro_dm_set_clock(d.dm, dm_test::FakeClock::read, &clock), 0);
  std::string log;
  const char names[] = "rkxabcef";
  const uint32_t delays_ms[] = {0, 0, 0, 30, 10, 20, 10, 50};
  Act acts[8];
  kro_dm_timer_t *t[8] = {};
  for (int i = 0; i < 8; ++i) {
    acts[i] = Act{&log, names[i]};
    const kro_dm_time_t v{0, delays_ms[i] * 1000000u};
    ASSERT_EQ(kro_dm_timer_register(d.dm, &t[i], Act::run, &acts[i]), 0);
    ASSERT_EQ(kro_dm_timer_settime(d.dm, t[i], &v), 0);
  }
  acts[0].rearm = 2;
  acts[1].victim = &t[2];
  for (int step = 0; step < 3; ++step) {
    d.step();  // due at once: the wait never blocks
  }
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(log, "rkrr");  // 'x' deleted by 'k', 'r' by itself
  clock.ns += 10000000u;
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  clock.ns += 20000000u;
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(log, "rkrrbeca");
}  // the manager deletes the timers left

// As a channel close schedules its clean-up: create and arm {0, 0} (some 1 ms) from foreign
// threads, waking the sleeping manager; the handler, on its thread, deletes its own timer.
TEST(DmTimer, ArmedFromOtherThreadsRunOnManagerThread) {
  constexpr unsigned kThreads = 4, kEach = 500;
  static std::atomic<unsigned> runs{0};
  static std::thread::id loop_thread;
  auto cleanup = [](kro_dm_t *dm, kro_dm_timer_t *timer, void *) {
    EXPECT_EQ(std::this_thread::get_id(), loop_thread);
    runs.fetch_add(1);
    return kro_dm_timer_register(dm, &timer, nullptr, nullptr);
  };
  Dm d;
  dm_test::Loop loop{d.dm};
  loop_thread = loop.thread.get_id();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (unsigned n = 0; n < kEach; ++n) {
        kro_dm_timer_t *t = nullptr;
        const kro_dm_time_t v{0, n % 4 == 0 ? 1000000u : 0u};
        ASSERT_EQ(kro_dm_timer_register(d.dm, &t, cleanup, nullptr), 0);
        ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &v), 0);  // t may be gone right after
      }
    });
  }
  for (std::thread &t : threads) {
    t.join();
  }
  while (runs.load() != kThreads * kEach) {
    std::this_thread::yield();
  }
}

// What a managed timer handler does with the expiring leaf, per leaf.
struct Ctx {
  kro_mgd_timer_tree_t **tree = nullptr;
  std::vector<uint32_t> *tags = nullptr;
  uint32_t restart_ms = 0;                     // restart the expiring leaf
  kro_mgd_timer_leaf_t **free_leaf = nullptr;  // free this leaf (maybe the expiring one)
  static int expiry(kro_mgd_timer_tree_t *tree, kro_mgd_timer_leaf_t *leaf, void *context) {
    auto *c = static_cast<Ctx *>(context);
    EXPECT_EQ(tree, *c->tree);
    c->tags->push_back(kro_mgd_timer_leaf_tag(leaf));
    EXPECT_EQ(c->restart_ms ? kro_mgd_timer_leaf_start(leaf, c->restart_ms, 0) : 0, 0);
    EXPECT_EQ(c->free_leaf ? kro_mgd_timer_leaf_free(c->free_leaf) : 0, 0);
    return 0;
  }
};

// On a driven clock: one-shot, periodic, restarted-from-the-handler and stopped leaves expire in
// deadline order (ties in start order); leaves are freed from the handler (the expiring one, and
// another one due in the same step). Then the feature loop's teardown order: detach (stops the
// leaves), free the tree (its memory goes with its last leaf), free the leaves.
TEST(MgdTimer, LeavesInDeadlineOrderAndEveryTeardownOrder) {
  Dm d;
  dm_test::FakeClock clock;
  ASSERT_EQ(kro_dm_set_clock(d.dm, dm_test::FakeClock::read, &clock), 0);
  kro_mgd_timer_tree_t *tree = kro_mgd_timer_tree_alloc();
  ASSERT_EQ(kro_mgd_timer_attach_xdm(tree, d.dm, Ctx::expiry), 0);
  std::vector<uint32_t> tags;
  const uint32_t start_ms[] = {15, 10, 12, 0, 5, 5, 5};  // 0: stopped
  Ctx ctx[7];
  kro_mgd_timer_leaf_t *leaves[7];
  for (uint32_t i = 0; i < 7; ++i) {
    ctx[i] = Ctx{&tree, &tags};
    leaves[i] = kro_mgd_timer_leaf_alloc(tree, i, i == 1 ? KRO_MGD_TIMER_PERIODIC : 1, &ctx[i]);
    ASSERT_EQ(kro_mgd_timer_leaf_start(leaves[i], start_ms[i], 0), 0);
  }
  ctx[2].restart_ms = 10;
  ctx[4].free_leaf = &leaves[4];  // itself
  ctx[5].free_leaf = &leaves[6];  // started after it, due in the same step
  for (uint64_t ms : {4, 1, 10, 5, 10}) {
    clock.ns += ms * 1000000u;
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
    EXPECT_EQ(tags.empty(), ms == 4);  // never early
  }
  // t = 5: 4, 5; t = 15: 1, 2 (restarted for 25), 0; t = 20: 1; t = 30: 2, then 1.
  EXPECT_EQ(tags, (std::vector<uint32_t>{4, 5, 1, 2, 0, 1, 2, 1}));
  EXPECT_TRUE(leaves[4] == nullptr && leaves[6] == nullptr);
  ASSERT_EQ(kro_mgd_timer_detach_xdm(tree), 0);
  EXPECT_EQ(kro_mgd_timer_leaf_start(leaves[0], 10, 0), KRO_MGD_TIMER_ENOTCONN);
  const long live = zel_test::fault_live_blocks();
  ASSERT_EQ(kro_mgd_timer_tree_free(&tree), 0);
  EXPECT_EQ(zel_test::fault_live_blocks(), live);  // kept for its leaves
  for (kro_mgd_timer_leaf_t *&l : leaves) {
    EXPECT_EQ(kro_mgd_timer_leaf_free(&l), 0);
  }
  EXPECT_EQ(zel_test::fault_live_blocks(), live - 7);  // 5 leaves, then the tree and its heap
}

// Fails each allocation of `call` in turn (ENOMEM expected); `undo` releases what it made.
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
