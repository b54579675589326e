// Watched queues on one thread: order, limits, refusals, re-running handlers, teardown.
#include <cstddef>
#include <vector>

#include "dm_test_util.h"

using dm_test::Dm;
using dm_test::Msg;

static_assert(offsetof(kro_dm_watched_queue_attr_t, max_len) == 0, "length limit comes first");
static_assert(sizeof(kro_dm_time_t) == 8 && offsetof(kro_dm_time_t, nsec) == 4);
static_assert(sizeof(kro_dm_stats_t) == 64);
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(kro_dm_watched_queue_attr_t) == 16);
#else
static_assert(sizeof(kro_dm_watched_queue_attr_t) == 24);
#endif

namespace {

// Records what the handler dequeued; dequeues at most `take` per run (all when 0).
struct Sink {
  std::vector<Msg *> got;
  unsigned runs = 0;
  unsigned take = 0;
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *s = static_cast<Sink *>(cookie);
    ++s->runs;
    void *m = nullptr;
    for (unsigned n = 0; (s->take == 0 || n < s->take) && kro_dm_watched_queue_dequeue(q, &m) == 0;
         ++n) {
      s->got.push_back(static_cast<Msg *>(m));
    }
  }
};

kro_dm_watched_queue_t *make_queue(uint32_t max_len) {
  kro_dm_watched_queue_attr_t attr;
  EXPECT_EQ(kro_dm_watched_queue_attr_init(&attr), 0);
  attr.max_len = max_len;
  kro_dm_watched_queue_t *q = nullptr;
  EXPECT_EQ(kro_dm_watched_queue_create("q", 7, &attr, &q), 0);
  return q;
}

TEST(DmQueue, FifoThroughHandlerAndLinkCleared) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(8);
  Sink sink;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Sink::handler, &sink), 0);
  Msg m[5]{};
  for (Msg &x : m) {
    x.link = &x;  // whatever the link holds on entry
    ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &x), 0);
  }
  EXPECT_EQ(kro_dm_watched_queue_count(q), 5u);
  ASSERT_EQ(kro_dm_wait(d.dm), 0);  // returns at once: work is due
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  ASSERT_EQ(sink.got.size(), 5u);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(sink.got[i], &m[i]);
    EXPECT_EQ(m[i].link, nullptr);
  }
  EXPECT_EQ(sink.runs, 1u);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);  // empty: the handler does not run
  EXPECT_EQ(sink.runs, 1u);
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
  EXPECT_EQ(q, nullptr);
}

TEST(DmQueue, RefusalsLeaveMessageAndQueueUnchanged) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(2);
  Msg m[3]{};
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[0]), KRO_DM_ENOTCONN);  // not registered yet
  Sink sink;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Sink::handler, &sink), 0);
  EXPECT_EQ(kro_dm_watched_queue_register(d.dm, q, Sink::handler, &sink), KRO_DM_EBUSY);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[0]), 0);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[1]), 0);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[2]), KRO_DM_EAGAIN);  // limit 2 reached
  EXPECT_EQ(kro_dm_watched_queue_count(q), 2u);
  void *out = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &out), 0);
  EXPECT_EQ(out, &m[0]);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[2]), 0);  // room again
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &out), 0);
  ASSERT_EQ(kro_dm_watched_queue_dequeue(q, &out), 0);
  EXPECT_EQ(out, &m[2]);
  out = &m[0];
  EXPECT_EQ(kro_dm_watched_queue_dequeue(q, &out), KRO_DM_ENOMSG);
  EXPECT_EQ(out, &m[0]);  // untouched
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), KRO_DM_ENOENT);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, &m[0]), KRO_DM_ENOTCONN);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmQueue, InvalidArguments) {
  Dm d;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_t *q = nullptr;
  struct Row {
    const char *what;
    uint32_t max_len;
    uint32_t flags;
  } rows[] = {{"zero length", 0, 0},
              {"above maximum", KRO_DM_WATCHED_QUEUE_LEN_MAX + 1, 0},
              {"flags", 1, 1}};
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    kro_dm_watched_queue_attr_init(&attr);
    attr.max_len = r.max_len;
    attr.flags = r.flags;
    EXPECT_EQ(kro_dm_watched_queue_create("q", 1, &attr, &q), KRO_DM_EINVAL);
    EXPECT_EQ(q, nullptr);
  }
  EXPECT_EQ(kro_dm_watched_queue_attr_init(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_create("q", 1, nullptr, nullptr), KRO_DM_EINVAL);
  ASSERT_EQ(kro_dm_watched_queue_create(nullptr, 9, nullptr, &q), 0);  // defaults
  EXPECT_EQ(kro_dm_watched_queue_id(q), 9u);
  EXPECT_EQ(kro_dm_watched_queue_register(nullptr, q, Sink::handler, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_register(d.dm, q, nullptr, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(q, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_enqueue(nullptr, &attr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_dequeue(q, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_deregister(d.dm, q), KRO_DM_ENOENT);
  EXPECT_EQ(kro_dm_watched_queue_destroy(nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), KRO_DM_EINVAL);
}

TEST(DmQueue, HandlerLeavingMessagesRunsAgainNextStep) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(8);
  Sink sink;
  sink.take = 1;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Sink::handler, &sink), 0);
  Msg m[3]{};
  for (Msg &x : m) {
    ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &x), 0);
  }
  for (unsigned step = 1; step <= 3; ++step) {
    ASSERT_EQ(kro_dm_wait(d.dm), 0);  // never blocks while messages remain
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
    EXPECT_EQ(sink.runs, step);  // once per step
    EXPECT_EQ(sink.got.size(), step);
  }
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(sink.runs, 3u);
  kro_dm_watched_queue_deregister(d.dm, q);
  kro_dm_watched_queue_destroy(&q);
}

// A handler that deregisters and destroys its own queue, and another queue of the same step.
struct SelfDestruct {
  kro_dm_t *dm;
  kro_dm_watched_queue_t *self;
  kro_dm_watched_queue_t *other;
  unsigned runs = 0;
  static void drop(void *, void *arg) { ++*static_cast<unsigned *>(arg); }
  static void handler(kro_dm_watched_queue_t *q, void *cookie) {
    auto *s = static_cast<SelfDestruct *>(cookie);
    ++s->runs;
    EXPECT_EQ(kro_dm_watched_queue_deregister(s->dm, q), 0);
    EXPECT_EQ(kro_dm_watched_queue_destroy(&s->self), 0);
    if (s->other != nullptr) {
      EXPECT_EQ(kro_dm_watched_queue_deregister(s->dm, s->other), 0);
    }
  }
};

TEST(DmQueue, DeregisterInsideHandlerStopsThisStep) {
  Dm d;
  unsigned drained = 0;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_attr_init(&attr);
  attr.drain = SelfDestruct::drop;
  attr.drain_arg = &drained;
  kro_dm_watched_queue_t *a = nullptr;
  kro_dm_watched_queue_t *b = nullptr;
  ASSERT_EQ(kro_dm_watched_queue_create("a", 1, &attr, &a), 0);
  ASSERT_EQ(kro_dm_watched_queue_create("b", 2, &attr, &b), 0);
  SelfDestruct sa{d.dm, a, b};
  SelfDestruct sb{d.dm, b, nullptr};
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, a, SelfDestruct::handler, &sa), 0);
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, b, SelfDestruct::handler, &sb), 0);
  Msg m[4]{};
  ASSERT_EQ(kro_dm_watched_queue_enqueue(a, &m[0]), 0);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(a, &m[1]), 0);  // drained by the destroy in a's handler
  ASSERT_EQ(kro_dm_watched_queue_enqueue(b, &m[2]), 0);
  ASSERT_EQ(kro_dm_watched_queue_enqueue(b, &m[3]), 0);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(sa.runs, 1u);
  EXPECT_EQ(sb.runs, 0u);  // deregistered before its turn in the same step
  EXPECT_EQ(drained, 2u);
  EXPECT_EQ(sa.self, nullptr);
  // b keeps its messages until its destroy drains them.
  EXPECT_EQ(kro_dm_watched_queue_count(b), 2u);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&b), 0);
  EXPECT_EQ(drained, 4u);
}

TEST(DmQueue, DestroyWithMessagesNeedsDrainOrDequeue) {
  Dm d;
  kro_dm_watched_queue_t *q = make_queue(4);
  Sink sink;
  ASSERT_EQ(kro_dm_watched_queue_register(d.dm, q, Sink::handler, &sink), 0);
  Msg m{};
  ASSERT_EQ(kro_dm_watched_queue_enqueue(q, &m), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), KRO_DM_EBUSY);  // still registered
  EXPECT_EQ(kro_dm_destroy(&d.dm), KRO_DM_EBUSY);             // a queue is registered
  ASSERT_EQ(kro_dm_watched_queue_deregister(d.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), KRO_DM_ENOTEMPTY);
  ASSERT_NE(q, nullptr);
  // Registering again schedules the leftover message at once.
  Dm other;
  ASSERT_EQ(kro_dm_watched_queue_register(other.dm, q, Sink::handler, &sink), 0);
  ASSERT_EQ(kro_dm_dispatch(other.dm), 0);
  ASSERT_EQ(sink.got.size(), 1u);
  EXPECT_EQ(sink.got[0], &m);
  ASSERT_EQ(kro_dm_watched_queue_deregister(other.dm, q), 0);
  EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0);
}

TEST(DmQueue, CreateFailsCleanlyOnEveryAllocation) {
  kro_dm_watched_queue_t *q = nullptr;
  const unsigned allocations = dm_test::sweep(
      [&] {
        const int rc = kro_dm_watched_queue_create("q", 1, nullptr, &q);
        EXPECT_TRUE(rc == 0 || q == nullptr);
        return rc;
      },
      [&] { EXPECT_EQ(kro_dm_watched_queue_destroy(&q), 0); });
  EXPECT_EQ(allocations, 1u);
}

}  // namespace
