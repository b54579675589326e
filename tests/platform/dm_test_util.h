// Helpers of the dispatch manager tests.
#ifndef ZEL_TESTS_PLATFORM_DM_TEST_UTIL_H_
#define ZEL_TESTS_PLATFORM_DM_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/dm.h>

#include <atomic>
#include <thread>

namespace dm_test {

// A clock that moves only when the test says so (nanoseconds).
struct FakeClock {
  std::atomic<uint64_t> ns{1000000000u};
  static uint64_t read(void *arg) { return static_cast<FakeClock *>(arg)->ns.load(); }
};

struct Msg {
  void *link = nullptr;
  uint32_t producer = 0, seq = 0;
};

struct Dm {
  kro_dm_t *dm = nullptr;
  Dm() { EXPECT_EQ(kro_dm_create(&dm), KRO_DM_OK); }
  ~Dm() { EXPECT_TRUE(dm == nullptr || kro_dm_destroy(&dm) == KRO_DM_OK); }
  void step() {
    ASSERT_EQ(kro_dm_wait(dm), 0);
    ASSERT_EQ(kro_dm_dispatch(dm), 0);
  }
  kro_dm_stats_t stats() {
    kro_dm_stats_t s{};
    EXPECT_EQ(kro_dm_stats_get(dm, &s), KRO_DM_OK);
    return s;
  }
};

// Runs wait + dispatch on its own thread until destroyed, which wakes it from the destroyer.
struct Loop {
  kro_dm_t *dm;
  std::atomic<bool> done{false};
  std::thread thread{[this] {
    while (!done.load()) {
      EXPECT_EQ(kro_dm_wait(dm) + kro_dm_dispatch(dm), KRO_DM_OK);
    }
  }};
  ~Loop() {
    done.store(true);
    EXPECT_EQ(kro_dm_wake(dm), 0);
    thread.join();
  }
};

inline void wait_for(const std::atomic<bool> &flag) {
  while (!flag.load()) {
    std::this_thread::yield();
  }
}

inline kro_dm_watched_queue_t *make_queue(uint32_t max_len = KRO_DM_WATCHED_QUEUE_LEN_DEFAULT,
                                          kro_dm_watched_queue_drain_fn drain = nullptr) {
  const kro_dm_watched_queue_attr_t attr{max_len, 0, drain, nullptr};
  kro_dm_watched_queue_t *q = nullptr;
  EXPECT_EQ(kro_dm_watched_queue_create("q", 7, &attr, &q), KRO_DM_OK);
  return q;
}

}  // namespace dm_test

#endif  // ZEL_TESTS_PLATFORM_DM_TEST_UTIL_H_
