// Timers of the dispatch manager: order, the next-step rule, deletion from handlers, arming
// from other threads, allocation failures.
#include <string>
#include <thread>
#include <vector>

#include "dm_test_util.h"

using dm_test::Dm;
using dm_test::FakeClock;
using dm_test::Loop;

namespace {

// A timer named by one letter, writing it to a shared log when it runs.
struct Named {
  std::string *log;
  char name;
  static int note(kro_dm_t *, kro_dm_timer_t *, void *cookie) {
    auto *n = static_cast<Named *>(cookie);
    *n->log += n->name;
    return 0;
  }
};

kro_dm_time_t ms(uint32_t v) {
  return kro_dm_time_t{v / 1000, (v % 1000) * 1000000u};
}

TEST(DmTimer, DueTimersRunInDeadlineThenArmingOrder) {
  struct Row {
    const char *what;
    std::vector<uint32_t> delays_ms;  // timer i is named 'a' + i and armed in index order
    uint64_t advance_ms;
    const char *expected;
  } rows[] = {
      {"by deadline", {30, 10, 20}, 30, "bca"},
      {"ties keep arming order", {10, 0, 10, 0}, 10, "bdac"},
      {"only what is due", {5, 50, 15}, 20, "ac"},
      {"zero runs at once", {0}, 0, "a"},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    Dm d;
    FakeClock clock;
    ASSERT_EQ(kro_dm_set_clock(d.dm, FakeClock::read, &clock), 0);
    std::string log;
    std::vector<Named> names(r.delays_ms.size());
    std::vector<kro_dm_timer_t *> timers(r.delays_ms.size());
    for (size_t i = 0; i < names.size(); ++i) {
      names[i] = Named{&log, static_cast<char>('a' + i)};
      ASSERT_EQ(kro_dm_timer_register(d.dm, &timers[i], Named::note, &names[i]), 0);
      const kro_dm_time_t v = ms(r.delays_ms[i]);
      ASSERT_EQ(kro_dm_timer_settime(d.dm, timers[i], &v), 0);
    }
    clock.advance_ms(r.advance_ms);
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
    EXPECT_EQ(log, r.expected);
    ASSERT_EQ(kro_dm_set_clock(d.dm, nullptr, nullptr), r.advance_ms == 20 ? KRO_DM_EBUSY : 0);
  }  // the manager deletes the timers that are left
}

// Re-arms itself with {0, 0} `left` times, then deletes itself.
struct Repeater {
  unsigned runs = 0;
  unsigned left = 3;
  static int handler(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
    auto *r = static_cast<Repeater *>(cookie);
    ++r->runs;
    if (r->left-- == 0) {
      EXPECT_EQ(kro_dm_timer_register(dm, &timer, nullptr, nullptr), 0);
      EXPECT_EQ(timer, nullptr);
      return 0;
    }
    const kro_dm_time_t zero{0, 0};
    EXPECT_EQ(kro_dm_timer_settime(dm, timer, &zero), 0);
    return 0;
  }
};

TEST(DmTimer, RearmFromHandlerRunsAtNextStepAndSelfDeleteIsSafe) {
  Dm d;
  Repeater r;
  kro_dm_timer_t *t = nullptr;
  ASSERT_EQ(kro_dm_timer_register(d.dm, &t, Repeater::handler, &r), 0);
  const kro_dm_time_t zero{0, 0};
  ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &zero), 0);
  for (unsigned step = 1; step <= 4; ++step) {
    ASSERT_EQ(kro_dm_wait(d.dm), 0);  // due at once: never blocks
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
    EXPECT_EQ(r.runs, step);  // once per step, not in a loop within the step
  }
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(r.runs, 4u);  // deleted itself at its fourth run
}

// The first due timer deletes the second and cancels the third, both due in the same step.
struct Killer {
  kro_dm_timer_t *victim = nullptr;
  kro_dm_timer_t *cancelled = nullptr;
  static int handler(kro_dm_t *dm, kro_dm_timer_t *, void *cookie) {
    auto *k = static_cast<Killer *>(cookie);
    EXPECT_EQ(kro_dm_timer_register(dm, &k->victim, nullptr, nullptr), 0);
    EXPECT_EQ(kro_dm_timer_cancel(dm, k->cancelled), 0);
    return 0;
  }
  static int never(kro_dm_t *, kro_dm_timer_t *, void *) {
    ADD_FAILURE() << "a deleted or cancelled timer ran";
    return 0;
  }
};

TEST(DmTimer, DeleteAndCancelOtherDueTimersFromHandler) {
  Dm d;
  Killer k;
  kro_dm_timer_t *first = nullptr;
  int dummy = 0;
  ASSERT_EQ(kro_dm_timer_register(d.dm, &first, Killer::handler, &k), 0);
  ASSERT_EQ(kro_dm_timer_register(d.dm, &k.victim, Killer::never, &dummy), 0);
  ASSERT_EQ(kro_dm_timer_register(d.dm, &k.cancelled, Killer::never, &dummy), 0);
  const kro_dm_time_t zero{0, 0};
  for (kro_dm_timer_t *t : {first, k.victim, k.cancelled}) {
    ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &zero), 0);
  }
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  EXPECT_EQ(k.victim, nullptr);
  ASSERT_EQ(kro_dm_dispatch(d.dm), 0);  // the cancelled one stays disarmed
  EXPECT_EQ(dm_test::stats(d.dm).timer_runs, 1u);
}

TEST(DmTimer, InvalidArguments) {
  Dm d;
  Dm other;
  kro_dm_timer_t *t = nullptr;
  int cookie = 0;
  ASSERT_EQ(kro_dm_timer_register(d.dm, &t, Repeater::handler, &cookie), 0);
  const kro_dm_time_t bad{0, 1000000000u};
  const kro_dm_time_t ok{0, 999999999u};
  EXPECT_EQ(kro_dm_timer_settime(d.dm, t, &bad), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_settime(d.dm, t, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_settime(other.dm, t, &ok), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_cancel(other.dm, t), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_register(d.dm, &t, nullptr, &cookie), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_register(other.dm, &t, nullptr, nullptr), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_register(nullptr, &t, Repeater::handler, &cookie), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_register(d.dm, nullptr, Repeater::handler, &cookie), KRO_DM_EINVAL);
  EXPECT_EQ(kro_dm_timer_settime(d.dm, t, &ok), 0);
  EXPECT_EQ(kro_dm_timer_register(d.dm, &t, nullptr, nullptr), 0);  // armed: never runs
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(kro_dm_timer_register(d.dm, &t, nullptr, nullptr), KRO_DM_EINVAL);
}

TEST(DmTimer, RealClockWaitSleepsUntilDeadline) {
  Dm d;
  struct Hit {
    uint64_t deadline;
    uint64_t at = 0;
    static int handler(kro_dm_t *dm, kro_dm_timer_t *, void *cookie) {
      static_cast<Hit *>(cookie)->at = kro_dm_now(dm);
      return 0;
    }
  } hit{kro_dm_now(d.dm) + 20000000u};
  kro_dm_timer_t *t = nullptr;
  ASSERT_EQ(kro_dm_timer_register(d.dm, &t, Hit::handler, &hit), 0);
  const kro_dm_time_t v = ms(20);
  ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &v), 0);
  while (hit.at == 0) {
    ASSERT_EQ(kro_dm_wait(d.dm), 0);
    ASSERT_EQ(kro_dm_dispatch(d.dm), 0);
  }
  EXPECT_GE(hit.at, hit.deadline);  // never early
  EXPECT_GE(dm_test::stats(d.dm).sleeps, 1u);
}

// The way a channel close schedules its clean-up: create and arm {0, 0} from a foreign thread;
// the handler, on the manager's thread, deletes its own timer.
struct Cleanup {
  std::atomic<unsigned> runs{0};
  std::thread::id loop_thread;
  static int handler(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
    auto *c = static_cast<Cleanup *>(cookie);
    EXPECT_EQ(std::this_thread::get_id(), c->loop_thread);
    EXPECT_EQ(kro_dm_timer_register(dm, &timer, nullptr, nullptr), 0);
    c->runs.fetch_add(1);
    return 0;
  }
};

TEST(DmTimer, ArmedFromOtherThreadsRunOnManagerThread) {
  constexpr unsigned kThreads = 4;
  constexpr unsigned kEach = 500;
  Dm d;
  Cleanup c;
  {
    Loop loop(d.dm);
    c.loop_thread = loop.id();
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (unsigned n = 0; n < kEach; ++n) {
          kro_dm_timer_t *t = nullptr;
          ASSERT_EQ(kro_dm_timer_register(d.dm, &t, Cleanup::handler, &c), 0);
          const kro_dm_time_t v{0, n % 4 == 0 ? 1000000u : 0u};
          ASSERT_EQ(kro_dm_timer_settime(d.dm, t, &v), 0);  // t may be gone right after
        }
      });
    }
    for (std::thread &t : threads) {
      t.join();
    }
    while (c.runs.load() != kThreads * kEach) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(c.runs.load(), kThreads * kEach);
}

TEST(DmTimer, RegisterFailsCleanlyOnEveryAllocation) {
  struct Row {
    unsigned existing;  // timers created before the one under test
    unsigned allocations;
  } rows[] = {{0, 1}, {8, 2}};  // the record; with a full heap, its growth too
  for (const Row &r : rows) {
    SCOPED_TRACE(r.existing);
    Dm d;
    int cookie = 0;
    std::vector<kro_dm_timer_t *> before(r.existing);
    for (kro_dm_timer_t *&t : before) {
      ASSERT_EQ(kro_dm_timer_register(d.dm, &t, Repeater::handler, &cookie), 0);
    }
    kro_dm_timer_t *t = nullptr;
    const unsigned allocations = dm_test::sweep(
        [&] {
          const int rc = kro_dm_timer_register(d.dm, &t, Repeater::handler, &cookie);
          EXPECT_TRUE(rc == 0 || t == nullptr);
          return rc;
        },
        [&] { EXPECT_EQ(kro_dm_timer_register(d.dm, &t, nullptr, nullptr), 0); });
    EXPECT_EQ(allocations, r.allocations);
  }
}

}  // namespace
