// Watched queues: order, the length limit, re-running handlers, deregistration with messages
// queued; with real threads: many producers, deregistration racing producers, wake-up
// coalescing and wake-ups from other threads.
#include <cstddef>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "dm_test_util.h"
#include "support/fault.h"

using dm_test::Dm;
using dm_test::make_queue;
using dm_test::Msg;

static_assert(offsetof(kro_dm_watched_queue_attr_t, max_len) == 0, "length limit comes first");

namespace {

// Records what the handler dequeued, one message per run.
void take_one(kro_dm_watched_queue_t *q, void *got) {
  void *m = nullptr;
  if (kro_dm_watched_queue_dequeue(q, &m) == 0) {
    static_cast<std::vector<void *> *>(got)->push_back(m);
  }
}

TEST(DmQueue, FifoLengthLimitAndRerunWhileMessagesLeft) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(3);
  Msg m[4] = {{&m[0]}, {&m[1]}, {&m[2]}, {&m[3]}};  // whatever the link holds on entry
  std::vector<void *> got;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, take_one, &got), 0);
  for (Msg &x : m) {
    EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &x), &x == &m[3] ? KRO_DM_EAGAIN : 0);  // limit
  }
  take_one(q, &got);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m[3]), 0);  // room again
  for (size_t step = 2; step <= 4; ++step) {
    d.step();  // the wait never blocks while messages remain: one message per step
    EXPECT_EQ(got.size(), step);
  }
  EXPECT_EQ(got, (std::vector<void *>{&m[0], &m[1], &m[2], &m[3]}));
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

// A handler that deregisters and destroys its own queue with messages left: the drain frees
// them (heap blocks here), nothing leaks and the handler is not called again.
void self_destroy(kro_dm_watched_queue_t *q, void *dm) {
  EXPECT_EQ(kro_dm_watched_queue_deregister(static_cast<kro_dm_t *>(dm), q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmQueue, DeregisterWithMessagesQueued) {
  Dm d;
  kro_dm_watched_queue_t *a = make_queue(8, [](void *msg, void *) { free(msg); });
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, a, self_destroy, d.dm), 0);
  const long live = zel_test::fault_live_blocks();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(kro_dm_watched_queue_enqueue(a, calloc(1, sizeof(Msg))), 0);
  }
  ASSERT_EQ(kro_dm_dispatch(d.dm) + kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(zel_test::fault_live_blocks(), live - 1);  // the queue and its messages freed
}

constexpr unsigned kProducers = 4;
constexpr uint32_t kMax = KRO_DM_WATCHED_QUEUE_LEN_MAX;

// kProducers threads enqueue `each` messages apiece (retrying while the queue is full) and stop
// early when the queue is deregistered. Returns how many were accepted.
unsigned produce(kro_dm_watched_queue_t *q, std::vector<Msg> &msgs, unsigned each) {
  std::atomic<unsigned> accepted{0};
  std::vector<std::thread> producers;
  for (unsigned p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (uint32_t i = 0; i < each; ++i) {
        Msg &m = msgs[p * each + i] = Msg{nullptr, p, i};
        int rc;
        while ((rc = kro_dm_watched_queue_enqueue(q, &m)) == KRO_DM_EAGAIN) {
          std::this_thread::yield();
        }
        if (rc != 0) {
          EXPECT_EQ(rc, KRO_DM_ENOTCONN);
          return;
        }
        accepted.fetch_add(1);
      }
    });
  }
  for (std::thread &t : producers) {
    t.join();
  }
  return accepted.load();
}

// Checks FIFO order per producer (and one extra sender); deregisters the queue after
// `stop_after` messages. With `hold` set the handler waits for it to clear before dequeuing.
struct Consumer {
  kro_dm_t *dm;
  unsigned stop_after;
  uint32_t expected[kProducers + 1] = {};
  unsigned handled = 0;
  std::atomic<bool> hold{false}, entered{false}, finished{false};
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *c = static_cast<Consumer *>(cookie);
    for (c->entered.store(true); c->hold.load();) {
      std::this_thread::yield();
    }
    for (void *m = nullptr; !c->finished.load() && kro_dm_watched_queue_dequeue(q, &m) == 0;) {
      auto *msg = static_cast<Msg *>(m);
      EXPECT_EQ(msg->seq, c->expected[msg->producer]++);
      if (++c->handled == c->stop_after) {
        EXPECT_EQ(kro_dm_watched_queue_deregister(c->dm, q), 0);
        c->finished.store(true);
      }
    }
  }
};

// Four producers, one consumer on its own thread, counted exactly:
// - a short queue, met by the producers, and an owner that spins before sleeping: every message
//   arrives once, in order per producer;
// - a long one that the owner deregisters midway (this raced the producers once): every
//   accepted message is either handled or still queued afterwards, none lost or duplicated;
// - a handler held busy while all the messages arrive: the queue stays scheduled, so the
//   enqueues make no eventfd write at all. Each loop then sleeps until woken from this thread.
TEST(DmQueueThreads, ManyProducersLoseNothingAndWakeupsCoalesce) {
  constexpr unsigned kEach = 10000, kAll = kProducers * kEach;
  const std::tuple<uint32_t, uint32_t, unsigned, bool> rows[] = {
      {64, 50000, kAll, false}, {kMax, 0, 3000, false}, {kMax, 0, kAll + 1, true}};
  for (const auto &[max_len, spin_ns, stop_after, hold] : rows) {
    Dm d;
    ASSERT_EQ(kro_dm_set_spin(d.dm, spin_ns), 0);
    kro_dm_watched_queue_t *q = make_queue(max_len);
    Consumer c{d.dm, stop_after, {}, 0, {hold}};
    ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Consumer::handler, &c), 0);
    std::vector<Msg> msgs(kAll + 1, Msg{nullptr, kProducers, 0});  // the last: the first sent
    unsigned accepted = 0, left = 0;
    {
      dm_test::Loop loop{d.dm};
      if (hold) {
        ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &msgs.back()), 0);
        dm_test::wait_for(c.entered);
        ++accepted;
      }
      const uint64_t wakeups = d.stats().wakeups;
      accepted += produce(q, msgs, kEach);
      EXPECT_TRUE(!hold || d.stats().wakeups == wakeups);
      c.hold = false;
      dm_test::wait_for(c.finished);  // the handler may still be short of stop_after
    }
    for (void *m = nullptr; kro_dm_watched_queue_dequeue(q, &m) == 0;) {
      ++left;
    }
    EXPECT_EQ(c.handled + left, accepted);
    EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
  }
}

}  // namespace
