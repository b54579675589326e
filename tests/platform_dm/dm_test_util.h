// Helpers of the dispatch manager tests: a clock the test drives, a message shape, and a loop
// thread that runs a manager until stopped.
#ifndef ZEL_TESTS_PLATFORM_DM_DM_TEST_UTIL_H_
#define ZEL_TESTS_PLATFORM_DM_DM_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/dm.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "support/fault.h"

namespace dm_test {

// A clock that moves only when the test says so.
struct FakeClock {
  std::atomic<uint64_t> ns{1000000000u};
  static uint64_t read(void *arg) {
    return static_cast<FakeClock *>(arg)->ns.load(std::memory_order_relaxed);
  }
  void advance_ms(uint64_t ms) { ns.fetch_add(ms * 1000000u, std::memory_order_relaxed); }
};

// A message: the link word the queue uses, then the payload.
struct Msg {
  void *link;
  uint32_t producer;
  uint32_t seq;
};

// A manager created for the test and destroyed with it.
struct Dm {
  kro_dm_t *dm = nullptr;
  Dm() { EXPECT_EQ(kro_dm_create(&dm), KRO_DM_OK); }
  ~Dm() {
    if (dm != nullptr) {
      EXPECT_EQ(kro_dm_destroy(&dm), KRO_DM_OK);
    }
  }
  Dm(const Dm &) = delete;
  Dm &operator=(const Dm &) = delete;
};

// Runs wait + dispatch on its own thread until stop() (or `done` is set by a handler).
class Loop {
 public:
  explicit Loop(kro_dm_t *dm) : dm_(dm) {
    thread_ = std::thread([this] {
      while (!done.load(std::memory_order_acquire)) {
        EXPECT_EQ(kro_dm_wait(dm_), KRO_DM_OK);
        EXPECT_EQ(kro_dm_dispatch(dm_), KRO_DM_OK);
      }
    });
  }
  ~Loop() { stop(); }
  void stop() {
    if (thread_.joinable()) {
      done.store(true, std::memory_order_release);
      kro_dm_wake(dm_);
      thread_.join();
    }
  }
  std::thread::id id() const { return thread_.get_id(); }
  std::atomic<bool> done{false};

 private:
  kro_dm_t *dm_;
  std::thread thread_;
};

// Fails each allocation of `call` in turn (it returns a result code): a failed allocation must
// give `enomem` with nothing left allocated; after the successful run `undo` releases what the
// call made. Returns how many allocations the call makes.
template <typename Call, typename Undo>
unsigned sweep(Call call, Undo undo, int enomem = KRO_DM_ENOMEM) {
  return zel_test::fault_sweep([&](unsigned n) {
    int rc;
    bool fired;
    {
      zel_test::FaultScope scope(n);
      rc = call();
      fired = zel_test::fault_fired();
    }
    EXPECT_EQ(rc, fired ? enomem : 0) << "failing allocation " << n;
    if (!fired) {
      undo();
    }
    return fired;
  });
}

inline kro_dm_stats_t stats(kro_dm_t *dm) {
  kro_dm_stats_t s{};
  EXPECT_EQ(kro_dm_stats_get(dm, &s), KRO_DM_OK);
  return s;
}

}  // namespace dm_test

#endif  // ZEL_TESTS_PLATFORM_DM_DM_TEST_UTIL_H_
