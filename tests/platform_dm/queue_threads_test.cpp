// Watched queues with real threads: many producers, wake-up coalescing, deregistration racing
// producers, ping-pong between two managers.
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "dm_test_util.h"

using dm_test::Dm;
using dm_test::Loop;
using dm_test::Msg;

namespace {

constexpr unsigned kProducers = 4;
constexpr unsigned kPerProducer = 20000;

// Consumer state: per-producer next expected sequence number, total received.
struct Counter {
  unsigned expected[kProducers] = {};
  std::atomic<unsigned> total{0};
  unsigned target = 0;
  Loop *loop = nullptr;
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *c = static_cast<Counter *>(cookie);
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == 0) {
      auto *msg = static_cast<Msg *>(m);
      EXPECT_EQ(msg->seq, c->expected[msg->producer]++);  // FIFO per producer
      if (c->total.fetch_add(1, std::memory_order_relaxed) + 1 == c->target) {
        c->loop->done.store(true, std::memory_order_release);
      }
    }
  }
};

void produce(kro_dm_watched_queue_t *q, Msg *msgs, unsigned producer, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    msgs[i].producer = producer;
    msgs[i].seq = i;
    int rc;
    while ((rc = kro_dm_watched_queue_enqueue(q, &msgs[i])) == KRO_DM_EAGAIN) {
      std::this_thread::yield();
    }
    ASSERT_EQ(rc, 0);
  }
}

TEST(DmQueueThreads, ManyProducersExactCountsInOrder) {
  Dm d;
  kro_dm_watched_queue_t *q = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("mp", 1, nullptr, &q), 0);
  Counter c;
  c.target = kProducers * kPerProducer;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Counter::handler, &c), 0);
  std::vector<Msg> msgs(kProducers * kPerProducer);
  {
    Loop loop(d.dm);
    c.loop = &loop;
    std::vector<std::thread> producers;
    for (unsigned p = 0; p < kProducers; ++p) {
      producers.emplace_back(produce, q, &msgs[p * kPerProducer], p, kPerProducer);
    }
    for (std::thread &t : producers) {
      t.join();
    }
    while (!loop.done.load(std::memory_order_acquire)) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(c.total.load(), kProducers * kPerProducer);
  for (unsigned p = 0; p < kProducers; ++p) {
    EXPECT_EQ(c.expected[p], kPerProducer);
  }
  const kro_dm_stats_t s = dm_test::stats(d.dm);
  EXPECT_LE(s.queue_runs, s.dispatches);
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

// While the handler runs, the queue stays scheduled: enqueues from any number of threads make
// no eventfd write at all.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  bool entered = false;
  bool open = false;
  unsigned received = 0;
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *g = static_cast<Gate *>(cookie);
    std::unique_lock<std::mutex> lock(g->mu);
    g->entered = true;
    g->cv.notify_all();
    g->cv.wait(lock, [g] { return g->open; });
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == 0) {
      ++g->received;
    }
    g->cv.notify_all();
  }
};

TEST(DmQueueThreads, WakeupsCoalesceWhileHandlerBusy) {
  Dm d;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_attr_init(&attr);
  attr.max_len = KRO_DM_WATCHED_QUEUE_LEN_MAX;
  kro_dm_watched_queue_t *q = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("gate", 1, &attr, &q), 0);
  Gate g;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Gate::handler, &g), 0);
  constexpr unsigned kEach = 1000;
  std::vector<Msg> msgs(1 + kProducers * kEach);
  Loop loop(d.dm);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &msgs[0]), 0);
  {
    std::unique_lock<std::mutex> lock(g.mu);
    g.cv.wait(lock, [&g] { return g.entered; });
  }
  const uint64_t before = dm_test::stats(d.dm).wakeups;
  EXPECT_LE(before, 1u);
  std::vector<std::thread> producers;
  for (unsigned p = 0; p < kProducers; ++p) {
    producers.emplace_back(produce, q, &msgs[1 + p * kEach], p, kEach);
  }
  for (std::thread &t : producers) {
    t.join();
  }
  EXPECT_EQ(dm_test::stats(d.dm).wakeups, before);  // 4000 enqueues, no system call
  {
    std::unique_lock<std::mutex> lock(g.mu);
    g.open = true;
    g.cv.notify_all();
    g.cv.wait(lock, [&g] { return g.received == 1 + kProducers * kEach; });
  }
  loop.stop();
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmQueueThreads, WakeEndsWaitFromOtherThreadAndBeforeWait) {
  Dm d;
  ASSERT_EQ(kro_dm_wake(d.dm), 0);
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // answered by the earlier wake, does not block
  {
    Loop loop(d.dm);  // nothing to do: sleeps until the wake in stop() (or returns at once)
  }
  EXPECT_EQ(kro_dm_wake(nullptr), KRO_DM_EINVAL);
}

// Producers enqueue until refused; the owner deregisters midway. Every accepted message is
// either handled or still queued afterwards: none lost, none duplicated.
struct Racing {
  kro_dm_t *dm = nullptr;
  std::atomic<unsigned> handled{0};
  unsigned threshold = 3000;
  std::atomic<bool> deregistered{false};
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *r = static_cast<Racing *>(cookie);
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == 0) {
      if (r->handled.fetch_add(1) + 1 == r->threshold) {
        EXPECT_EQ(kro_dm_watched_queue_deregister(r->dm, q), 0);
        r->deregistered.store(true);
        return;
      }
    }
  }
};

TEST(DmQueueThreads, DeregisterRacingProducersLosesNothing) {
  Dm d;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_attr_init(&attr);
  attr.max_len = KRO_DM_WATCHED_QUEUE_LEN_MAX;
  kro_dm_watched_queue_t *q = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("race", 1, &attr, &q), 0);
  Racing r;
  r.dm = d.dm;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Racing::handler, &r), 0);
  std::vector<Msg> msgs(kProducers * kPerProducer);
  std::atomic<unsigned> accepted{0};
  {
    Loop loop(d.dm);
    std::vector<std::thread> producers;
    for (unsigned p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (unsigned i = 0; i < kPerProducer; ++i) {
          const int rc = kro_dm_watched_queue_enqueue(q, &msgs[p * kPerProducer + i]);
          if (rc == KRO_DM_ENOTCONN) {
            return;
          }
          ASSERT_EQ(rc, 0);
          accepted.fetch_add(1);
        }
      });
    }
    for (std::thread &t : producers) {
      t.join();
    }
  }
  ASSERT_TRUE(r.deregistered.load());
  unsigned left = 0;
  void *m = nullptr;
  while (kro_dm_watched_queue_dequeue(q, &m) == 0) {
    ++left;
  }
  EXPECT_EQ(r.handled.load() + left, accepted.load());
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

// One message bounces between two managers, each on its own thread.
struct Pong {
  kro_dm_watched_queue_t *peer = nullptr;
  unsigned hits = 0;
  unsigned last = 0;
  Loop *loop = nullptr;
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *p = static_cast<Pong *>(cookie);
    void *m = nullptr;
    while (kro_dm_watched_queue_dequeue(q, &m) == 0) {
      auto *msg = static_cast<Msg *>(m);
      ++p->hits;
      if (msg->seq == p->last) {
        p->loop->done.store(true, std::memory_order_release);
        continue;
      }
      ++msg->seq;
      EXPECT_EQ(kro_dm_watched_queue_enqueue(p->peer, msg), 0);
    }
  }
};

TEST(DmQueueThreads, PingPongBetweenTwoManagers) {
  constexpr unsigned kRounds = 2000;
  Dm a;
  Dm b;
  kro_dm_watched_queue_t *qa = nullptr;
  kro_dm_watched_queue_t *qb = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("a", 1, nullptr, &qa), 0);
  ASSERT_EQ(kro_dm_watched_queue_create("b", 2, nullptr, &qb), 0);
  Pong pa;
  Pong pb;
  pa.peer = qb;
  pb.peer = qa;
  pa.last = pb.last = 2 * kRounds;             // whoever sees it stops; the other is stopped below
  ASSERT_EQ(kro_dm_set_spin(a.dm, 50000), 0);  // one side spins before sleeping, one not
  ASSERT_EQ(kro_dm_watched_queue_register(a.dm, qa, Pong::handler, &pa), 0);
  ASSERT_EQ(kro_dm_watched_queue_register(b.dm, qb, Pong::handler, &pb), 0);
  Msg msg{};
  {
    Loop la(a.dm);
    Loop lb(b.dm);
    pa.loop = &la;
    pb.loop = &lb;
    ASSERT_EQ(kro_dm_watched_queue_enqueue(qa, &msg), 0);
    while (!la.done.load(std::memory_order_acquire) && !lb.done.load(std::memory_order_acquire)) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(msg.seq, 2 * kRounds);
  EXPECT_EQ(pa.hits + pb.hits, 2 * kRounds + 1);
  EXPECT_EQ(pa.hits, kRounds + 1);
  for (auto [dm, q] : {std::pair{a.dm, &qa}, std::pair{b.dm, &qb}}) {
    EXPECT_EQ(kro_dm_watched_queue_deregister(dm, *q), 0);
    EXPECT_EQ(kro_dm_watched_queue_destroy(q), 0);
  }
}

}  // namespace
