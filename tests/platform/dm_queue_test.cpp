// Watched queues (alone, with real threads, beside descriptors) and descriptor registrations.
#include <unistd.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "platform/dm_test_util.h"
#include "support/fault.h"

using dm_test::Dm;
using dm_test::make_queue;
using dm_test::Msg;

namespace {

// Records what the handler dequeued, one message per run.
void take_one(kro_dm_watched_queue_t *q, void *got) {
  void *m = nullptr;
  if (kro_dm_watched_queue_dequeue(q, &m) == 0) {
    static_cast<std::vector<void *> *>(got)->push_back(m);
  }
}

void self_destroy(kro_dm_watched_queue_t *q, void *dm) {
  EXPECT_EQ(kro_dm_watched_queue_deregister(static_cast<kro_dm_t *>(dm), q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmQueue, FifoLengthLimitRerunAndSelfDestroyWithMessagesLeft) {
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
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q) + kro_dm_watched_queue_destroy(&q), 0);
  // A handler that deregisters and destroys its own queue with messages left: the drain frees
  // them (heap blocks here), nothing leaks and the handler is not called again.
  q = make_queue(8, [](void *msg, void *) { free(msg); });
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, self_destroy, d.dm), 0);
  const long live = zel_test::fault_live_blocks();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(kro_dm_watched_queue_enqueue(q, calloc(1, sizeof(Msg))), 0);
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

// Counts callbacks; with `rearm`, reads one byte and registers again.
struct Reader {
  unsigned calls = 0;
  bool rearm = false;
  static void handler(kro_dm_t *dm, int fd, uint32_t selector, void *cookie) {
    auto *r = static_cast<Reader *>(cookie);
    ++r->calls;
    EXPECT_EQ(selector, KRO_DM_FD_READABLE);
    char c;
    EXPECT_EQ(r->rearm && read(fd, &c, 1) == 1 ? r->arm(dm, fd) : 0, 0);
  }
  int arm(kro_dm_t *dm, int fd, uint32_t sel = KRO_DM_FD_READABLE) {
    return kro_dm_fd_register(dm, fd, sel, handler, this);
  }
};

// A queue whose handler always leaves a message keeps the manager busy.
void requeue(kro_dm_watched_queue_t *q, void *) {
  void *m = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &m) + kro_dm_watched_queue_enqueue(q, m), 0);
}

// One callback per readiness until registered again (also from the handler). Readiness already
// collected by the wait is dropped with the registration (by cookie here). A busy queue keeps
// the manager from sleeping, but the busy wait still polls the descriptors.
TEST(DmFd, OneCallbackPerReadinessWithdrawalAndBusyQueues) {
  dm_test::Dm d;
  int p[6];
  ASSERT_EQ(pipe(p) + pipe(p + 2) + pipe(p + 4), 0);
  Reader r, gone;
  ASSERT_EQ(r.arm(d.dm, p[0]), 0);
  ASSERT_EQ(write(p[1], "xxx", 3), 3);
  d.step();
  kro_dm_wake(d.dm);  // the bytes are still unread, but the registrations were used up
  d.step();
  EXPECT_EQ(r.calls, 1u);
  r.rearm = true;  // from now on the handler consumes a byte and re-arms
  ASSERT_EQ(r.arm(d.dm, p[0]), 0);
  for (unsigned n = 2; n <= 4; ++n) {
    d.step();
    EXPECT_EQ(r.calls, n);
  }
  kro_dm_watched_queue_t *q = dm_test::make_queue(8, [](void *, void *) {});
  dm_test::Msg m;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, requeue, nullptr), 0);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m), 0);
  ASSERT_EQ(gone.arm(d.dm, p[2]) + gone.arm(d.dm, p[4]), 0);
  d.step();
  ASSERT_EQ(write(p[1], "x", 1) + write(p[3], "x", 1) + write(p[5], "x", 1), 3);
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // all three collected
  EXPECT_EQ(kro_dm_fd_deregister_cookie(d.dm, &gone), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(gone.calls, 0u);
  EXPECT_EQ(r.calls, 5u);
  EXPECT_GE(d.stats().polls, 2u);
  ASSERT_EQ(kro_dm_watched_queue_deregister(d.dm, q) + kro_dm_watched_queue_destroy(&q), 0);
  EXPECT_EQ(kro_dm_destroy(&d.dm), 0);  // drops the registration left
  for (int fd : p) {
    close(fd);
  }
}

}  // namespace
