// The dispatch manager: watched queues (alone and with real threads), descriptor registrations,
// timers; every allocation failed in turn, also the managed timer trees' (their expiry: FuLoop).
#include <gtest/gtest.h>
#include <kro/dm.h>
#include <kro/mgd_timer.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/fault.h"

namespace {

const kro_dm_time_t kZero{0, 0};

struct Msg {
  void *link = nullptr;
  uint32_t producer = 0, seq = 0;
};

// A manager; with a fake clock, time moves only when the test adds to `ns`.
struct Dm {
  kro_dm_t *dm = nullptr;
  std::atomic<uint64_t> ns{1000000000u};
  static uint64_t now(void *d) { return static_cast<Dm *>(d)->ns.load(); }
  explicit Dm(bool fake_clock = false) {
    EXPECT_EQ(kro_dm_create(&dm), KRO_DM_OK);
    EXPECT_TRUE(!fake_clock || kro_dm_set_clock(dm, now, this) == 0);
  }
  ~Dm() { EXPECT_TRUE(dm == nullptr || kro_dm_destroy(&dm) == KRO_DM_OK); }
  void step() {
    ASSERT_EQ(kro_dm_wait(dm), 0);
    ASSERT_EQ(kro_dm_dispatch(dm), 0);
  }
};

// Runs wait + dispatch on its own thread until destroyed, which wakes it from the destroyer.
struct Loop {
  kro_dm_t *dm;
  std::atomic<bool> done{false};
  std::thread thread{[this] {
    while (!done) EXPECT_EQ(kro_dm_wait(dm) + kro_dm_dispatch(dm), KRO_DM_OK);
  }};
  ~Loop() {
    done = true;
    EXPECT_EQ(kro_dm_wake(dm), 0);
    thread.join();
  }
};

kro_dm_watched_queue_t *make_queue(uint32_t max_len) {
  const kro_dm_watched_queue_attr_t attr{max_len, 0, nullptr, nullptr};
  kro_dm_watched_queue_t *q = nullptr;
  EXPECT_EQ(kro_dm_watched_queue_create("q", 7, &attr, &q), KRO_DM_OK);
  return q;
}

// Records what the handler dequeued, one message per run.
void take_one(kro_dm_watched_queue_t *q, void *cookie) {
  void *m = nullptr;
  auto *got = static_cast<std::vector<void *> *>(cookie);
  if (kro_dm_watched_queue_dequeue(q, &m) == 0) got->push_back(m);
}

// Counts the calls in the unsigned its cookie points to.
void count_fd(kro_dm_t *, int, uint32_t, void *calls) {
  ++*static_cast<unsigned *>(calls);
}

// FIFO, the length limit, one message per step; a busy queue's wait still polls the descriptors,
// and readiness it collected goes with a registration withdrawn by cookie.
TEST(DmQueue, FifoLimitAndBusyPolling) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(3);
  Msg m[4] = {{&m[0]}, {&m[1]}, {&m[2]}, {&m[3]}};  // whatever the link holds on entry
  std::vector<void *> got;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, take_one, &got), 0);
  for (Msg &x : m) EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &x), &x == &m[3] ? KRO_DM_EAGAIN : 0);
  take_one(q, &got);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m[3]), 0);  // room again
  int p[4];
  unsigned calls = 0, gone = 0;
  ASSERT_EQ(pipe(p) + pipe(p + 2), 0);
  ASSERT_EQ(kro_dm_fd_register(d.dm, p[0], KRO_DM_FD_READABLE, count_fd, &calls) +
                kro_dm_fd_register(d.dm, p[2], KRO_DM_FD_READABLE, count_fd, &gone),
            0);
  ASSERT_EQ(write(p[1], "x", 1) + write(p[3], "x", 1), 2);
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // both collected, without blocking
  EXPECT_EQ(kro_dm_fd_deregister_cookie(d.dm, &gone), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  for (size_t step = 3; step <= 4; ++step) {
    d.step();  // the wait never blocks while messages remain
    EXPECT_EQ(got.size(), step);
  }
  EXPECT_EQ(got, (std::vector<void *>{&m[0], &m[1], &m[2], &m[3]}));
  EXPECT_TRUE(calls == 1 && gone == 0);
  for (int fd : p) close(fd);
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

constexpr unsigned kProducers = 4;

// Checks FIFO order per producer; deregisters the queue after `stop_after` messages.
struct Consumer {
  kro_dm_t *dm;
  unsigned stop_after;
  uint32_t expected[kProducers] = {};
  unsigned handled = 0;
  std::atomic<bool> finished{false};
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *c = static_cast<Consumer *>(cookie);
    for (void *m = nullptr; !c->finished && kro_dm_watched_queue_dequeue(q, &m) == 0;) {
      auto *msg = static_cast<Msg *>(m);
      EXPECT_EQ(msg->seq, c->expected[msg->producer]++);
      if (++c->handled == c->stop_after) {
        EXPECT_EQ(kro_dm_watched_queue_deregister(c->dm, q), 0);
        c->finished = true;
      }
    }
  }
};

// Four producers (retrying while the queue is full), one consumer on its own thread:
// - a short queue and an owner that spins before sleeping: every message arrives once, in order;
// - a long one deregistered midway (this raced the producers once): every accepted message is
//   handled or still queued, none lost or duplicated.
TEST(DmQueueThreads, ManyProducersLoseNothing) {
  constexpr unsigned kEach = 10000, kAll = kProducers * kEach;
  const std::tuple<uint32_t, uint32_t, unsigned> rows[] = {{64, 50000, kAll},
                                                           {KRO_DM_WATCHED_QUEUE_LEN_MAX, 0, 3000}};
  for (const auto &[max_len, spin_ns, stop_after] : rows) {
    Dm d;
    ASSERT_EQ(kro_dm_set_spin(d.dm, spin_ns), 0);
    kro_dm_watched_queue_t *q = make_queue(max_len);
    Consumer c{d.dm, stop_after};
    ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Consumer::handler, &c), 0);
    std::vector<Msg> msgs(kAll);
    std::atomic<unsigned> accepted{0};
    {
      Loop loop{d.dm};
      std::vector<std::thread> producers;
      for (unsigned p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
          int rc = 0;
          for (uint32_t i = 0; i < kEach && rc == 0; ++i) {
            Msg &m = msgs[p * kEach + i] = Msg{nullptr, p, i};
            while ((rc = kro_dm_watched_queue_enqueue(q, &m)) == KRO_DM_EAGAIN)
              std::this_thread::yield();
            accepted += rc == 0 ? 1 : 0;
          }
          EXPECT_TRUE(rc == 0 || rc == KRO_DM_ENOTCONN) << rc;  // stopped by the deregistration
        });
      }
      for (std::thread &t : producers) t.join();
      while (!c.finished) std::this_thread::yield();
    }
    unsigned left = 0;
    for (void *m = nullptr; kro_dm_watched_queue_dequeue(q, &m) == 0;) ++left;
    EXPECT_EQ(c.handled + left, accepted.load());
    EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
  }
}

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
    EXPECT_EQ(a->rearm-- > 0   ? kro_dm_timer_settime(dm, timer, &kZero)
              : a->rearm == -1 ? kro_dm_timer_register(dm, &timer, nullptr, nullptr)
                               : 0,
              0);
    return a->victim != nullptr ? kro_dm_timer_register(dm, a->victim, nullptr, nullptr) : 0;
  }
};

// Deadline order, ties in arming order, never early; {0, 0} runs at the next step, also re-armed
// from the handler; deleting works from the timer's own handler and another one due with it.
TEST(DmTimer, OrderNextStepRuleAndDeletion) {
  Dm d(true);
  std::string log;
  const uint32_t delays_ms[] = {0, 0, 0, 30, 10, 20, 10, 50};
  Act acts[8];
  kro_dm_timer_t *t[8] = {};
  for (int i = 0; i < 8; ++i) {
    acts[i] = Act{&log, "rkxabcef"[i]};
    const kro_dm_time_t v{0, delays_ms[i] * 1000000u};
    ASSERT_EQ(kro_dm_timer_register(d.dm, &t[i], Act::run, &acts[i]), 0);
    ASSERT_EQ(kro_dm_timer_settime(d.dm, t[i], &v), 0);
  }
  acts[0].rearm = 2;
  acts[1].victim = &t[2];
  for (int step = 0; step < 3; ++step) d.step();  // due at once: the wait never blocks
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(log, "rkrr");  // 'x' deleted by 'k', 'r' by itself
  for (uint64_t ns : {10000000u, 20000000u}) {
    d.ns += ns;
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  }
  EXPECT_EQ(log, "rkrrbeca");
}  // the manager deletes the timers left

// As a channel close schedules its clean-up: create and arm {0, 0} (some 1 ms) from foreign
// threads, waking the sleeping manager; the handler, on its thread, deletes its own timer.
TEST(DmTimer, ArmedFromOtherThreadsRunOnManagerThread) {
  static std::atomic<unsigned> runs{0};
  static std::thread::id loop_thread;
  auto cleanup = [](kro_dm_t *dm, kro_dm_timer_t *timer, void *) {
    EXPECT_EQ(std::this_thread::get_id(), loop_thread);
    runs.fetch_add(1);
    return kro_dm_timer_register(dm, &timer, nullptr, nullptr);
  };
  Dm d;
  Loop loop{d.dm};
  loop_thread = loop.thread.get_id();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (unsigned n = 0; n < 500; ++n) {
        kro_dm_timer_t *t = nullptr;
        const kro_dm_time_t v{0, n % 4 == 0 ? 1000000u : 0u};
        ASSERT_EQ(kro_dm_timer_register(d.dm, &t, cleanup, nullptr), 0);
        ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &v), 0);  // t may be gone right after
      }
    });
  }
  for (std::thread &t : threads) t.join();
  while (runs != 4 * 500) std::this_thread::yield();
}

// Fails each allocation of `call` in turn (ENOMEM expected, nothing left); `undo` releases what
// it made. The call must make `allocations`.
template <typename Call, typename Undo>
void sweep(Call call, Undo undo, unsigned allocations) {
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              zel_test::fault_arm(n);
              const int rc = call();
              zel_test::fault_disarm();
              EXPECT_EQ(rc, zel_test::fault_fired() ? KRO_DM_ENOMEM : 0) << "failing " << n;
              undo();
              return zel_test::fault_fired();
            }),
            allocations);
}

// Manager and timer heap; queue; timer and full heap's growth; descriptor record; tree, leaf
// heap and (attaching) manager timer; a leaf past the heap's first 8, with the heap's growth.
TEST(DmFault, EveryAllocationFailsCleanly) {
  kro_dm_t *dm = nullptr;
  kro_dm_watched_queue_t *q = nullptr;
  sweep([&] { return kro_dm_create(&dm); }, [&] { kro_dm_destroy(&dm); }, 2);
  sweep([&] { return kro_dm_watched_queue_create("q", 1, nullptr, &q); },
        [&] { kro_dm_watched_queue_destroy(&q); }, 1);
  Dm d;
  kro_dm_timer_t *t = nullptr, *timers[8];
  kro_dm_timer_fn noop_timer = [](auto, auto, auto) { return 0; };
  for (kro_dm_timer_t *&x : timers) {  // left for the manager's destroy to delete
    ASSERT_EQ(kro_dm_timer_register(d.dm, &x, noop_timer, nullptr), 0);
  }
  sweep([&] { return kro_dm_timer_register(d.dm, &t, noop_timer, nullptr); },
        [&] { kro_dm_timer_register(d.dm, &t, nullptr, nullptr); }, 2);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  sweep([&] { return kro_dm_fd_register(d.dm, fds[0], 1, count_fd, nullptr); },
        [&] { kro_dm_fd_deregister(d.dm, fds[0]); }, 1);
  kro_mgd_timer_tree_t *tree = nullptr;
  kro_mgd_timer_fn noop_leaf = [](auto, auto, auto) { return 0; };
  auto attached_tree = [&] {
    tree = kro_mgd_timer_tree_alloc();
    return tree != nullptr ? kro_mgd_timer_attach_xdm(tree, d.dm, noop_leaf) : KRO_DM_ENOMEM;
  };
  auto drop_tree = [&] {
    kro_mgd_timer_detach_xdm(tree);
    kro_mgd_timer_tree_free(&tree);
  };
  sweep(attached_tree, drop_tree, 3);
  ASSERT_EQ(attached_tree(), 0);
  kro_mgd_timer_leaf_t *leaves[9] = {};
  for (int i = 0; i < 8; ++i) leaves[i] = kro_mgd_timer_leaf_alloc(tree, 0, 1, nullptr);
  auto leaf = [&] {
    return (leaves[8] = kro_mgd_timer_leaf_alloc(tree, 0, 1, nullptr)) ? 0 : KRO_DM_ENOMEM;
  };
  auto drop_leaf = [&] { kro_mgd_timer_leaf_free(&leaves[8]); };
  sweep(leaf, drop_leaf, 2);
  for (kro_mgd_timer_leaf_t *&l : leaves) kro_mgd_timer_leaf_free(&l);
  drop_tree();
  EXPECT_EQ(close(fds[0]) + close(fds[1]), 0);
}

}  // namespace
