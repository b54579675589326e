// The name service, and the process-wide service and mutex lib/ gives the channels. Wrappers make
// the mutex init, the id-name insert and the slot-0 reservation one allocation each, for sweeps.
#include "lib/lib_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "lib/ns_support.h"
#include "support/fault.h"

// The records' layouts are fixed on both word sizes: w(32-bit, 64-bit).
constexpr auto w = [](size_t on32, size_t on64) { return sizeof(void *) == 4 ? on32 : on64; };
static_assert(sizeof(lib_array_t) == w(20, 32) && offsetof(lib_array_t, capacity) == w(4, 8) &&
              offsetof(lib_array_t, flags) == w(10, 14) &&
              offsetof(lib_array_t, empty) == w(12, 16) &&
              offsetof(lib_array_t, count) == w(16, 24));
static_assert(sizeof(kro_ext_hash_id_name_t) == w(12, 24) &&
              offsetof(kro_ext_hash_id_name_t, next_id) == w(8, 16));
static_assert(sizeof(kro_ext_hash_id_name_elem_t) == w(24, 48) &&
              offsetof(kro_ext_hash_id_name_elem_t, name) == w(8, 16) &&
              offsetof(kro_ext_hash_id_name_elem_t, id_link) == w(12, 24) &&
              offsetof(kro_ext_hash_id_name_elem_t, id) == w(20, 40));
static_assert(sizeof(lib_name_service_entry_t) == w(32, 64) &&
              offsetof(lib_name_service_entry_t, flags) == w(24, 48) &&
              offsetof(lib_name_service_entry_t, slots) == w(28, 56));

static std::atomic<int> g_mutex_inits{0};
static bool stand_in() {
  return std::unique_ptr<void, decltype(&free)>(malloc(1), free) != nullptr;
}

extern "C" {
int __real_kro_thread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *a);
int __real_kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *t, kro_ext_hash_id_name_elem_t *e);
int32_t __real_lib_array_pointers_append(lib_array_t *a, void *v);

int __wrap_kro_thread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *a) {
  return stand_in() ? (++g_mutex_inits, __real_kro_thread_mutex_init(m, a)) : EAGAIN;
}
int __wrap_kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *t, kro_ext_hash_id_name_elem_t *e) {
  return stand_in() ? __real_kro_ext_hash_id_name_insert(t, e) : 1;
}
int32_t __wrap_lib_array_pointers_append(lib_array_t *a, void *v) {
  return stand_in() ? __real_lib_array_pointers_append(a, v) : -1;
}
}

namespace {

char g_objects[1];  // what a binder stores in its slot

// One sweep over a service's life: creation (table and sets), new names (entry, slot record,
// slot storage, slot-0 reservation, id-name insert) and a shared slot that needs growth. A
// refused binding changes nothing, the handle included.
TEST(NameService, FailuresChangeNothing) {
  const unsigned allocations = zel_test::fault_sweep([](unsigned n) {
    zel_test::FaultScope fault(n);
    lib_name_service_t *svc = lib_name_service_create();
    EXPECT_EQ(svc == nullptr, zel_test::fault_fired());
    const char *const names[] = {"a", "b", "b", "b", "a"};
    for (size_t i = 0; svc != nullptr && i < 5; ++i) {
      const uint32_t next_id = svc->next_id;
      lib_name_service_entry_t *e = ns_test::entry_of(svc, names[i]);
      const int count = e == nullptr ? 0 : e->slots->count;
      uint32_t h = 0xDEADBEEF;
      if (lib_name_service_insert(svc, &h, names[i], i == 0 ? 1 : 0) != nullptr) {
        *lib_name_service_slot(svc, h) = &g_objects[0];
        continue;
      }
      EXPECT_TRUE(zel_test::fault_fired() && svc->next_id == next_id && h == 0xDEADBEEF) << i;
      EXPECT_EQ(ns_test::entry_of(svc, names[i]), e) << i;
      EXPECT_EQ(e == nullptr ? 0 : e->slots->count, count) << i;
      break;
    }
    ns_test::destroy(svc);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(allocations, 16u);
}

// A failed creation publishes nothing, leaves nothing allocated and is tried again by the next
// call. Failed in turn: the mutex init, then (the mutex up) the table and the sets' four blocks.
TEST(ItcNameService, FailedCreationIsRetried) {
  for (unsigned n : {1u, 2u, 1u, 2u, 3u, 4u, 5u}) {
    const long before = zel_test::fault_live_blocks();
    zel_test::FaultScope fault(n);
    EXPECT_EQ(lib_itc_name_service_get(), nullptr) << n;
    EXPECT_TRUE(zel_test::fault_fired() && zel_test::fault_live_blocks() == before) << n;
  }
  lib_name_service_t *svc = lib_itc_name_service_get();
  EXPECT_TRUE(svc != nullptr && svc == lib_itc_name_service_get() && g_mutex_inits == 1);
}

// Concurrent first calls create one service and initialise the mutex once; the mutex guards it.
TEST(ItcNameService, ConcurrentFirstCallsCreateOneServiceAndTheMutexGuardsIt) {
  constexpr int kThreads = 4, kRounds = 200;
  std::latch start(kThreads);
  std::vector<lib_name_service_t *> seen(kThreads);
  std::atomic<int> found{0};
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      lib_name_service_t *svc = seen[t] = lib_itc_name_service_get();
      for (int r = 0; svc != nullptr && r < kRounds; ++r) {
        uint32_t h = 0;
        {
          lib_lock lock(lib_itc_channel_mutex);
          ASSERT_NE(lib_name_service_insert(svc, &h, "shared", 0), nullptr);
          *lib_name_service_slot(svc, h) = &seen[t];
        }
        lib_lock lock(lib_itc_channel_mutex);
        found += *lib_name_service_slot(svc, h) == &seen[t] ? 1 : 0;
        lib_name_service_remove(svc, h);
      }
    });
  }
  threads.clear();  // joins
  for (lib_name_service_t *svc : seen) EXPECT_TRUE(svc != nullptr && svc == seen[0]);
  EXPECT_TRUE(found == kThreads * kRounds && g_mutex_inits == 1);
  EXPECT_EQ(ns_test::entry_of(seen[0], "shared")->slots->count, 1);
}

}  // namespace
