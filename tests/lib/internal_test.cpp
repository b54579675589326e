// What lib/ gives the channels: the process-wide service and mutex, slot lookup and unbinding,
// and the name service's clean-up when the id-name insert or the slot-0 reservation fails
// (both made to fail here through link-time wrappers).
#include "lib/lib_internal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <thread>
#include <vector>

#include "lib/ns_support.h"
#include "support/fault.h"

namespace {
std::atomic<int> g_mutex_inits{0};
std::atomic<int> g_mutex_init_failures{0};  // calls still to fail
std::atomic<bool> g_fail_insert{false}, g_fail_append{false};
}  // namespace

extern "C" {
int __real_kro_thread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *a);
int __real_kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *t, kro_ext_hash_id_name_elem_t *e);
int32_t __real_lib_array_pointers_append(lib_array_t *a, void *v);

int __wrap_kro_thread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *a) {
  if (g_mutex_init_failures.load() > 0) {
    --g_mutex_init_failures;
    return EAGAIN;
  }
  ++g_mutex_inits;
  return __real_kro_thread_mutex_init(m, a);
}
int __wrap_kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *t, kro_ext_hash_id_name_elem_t *e) {
  return g_fail_insert ? 1 : __real_kro_ext_hash_id_name_insert(t, e);
}
int32_t __wrap_lib_array_pointers_append(lib_array_t *a, void *v) {
  return g_fail_append ? -1 : __real_lib_array_pointers_append(a, v);
}
}

namespace {

TEST(ItcNameService, ConcurrentFirstCallsCreateOneServiceAndTheMutexGuardsIt) {
  constexpr int kThreads = 8, kRounds = 500;
  std::latch start(kThreads);
  std::vector<lib_name_service_t *> seen(kThreads);
  std::atomic<int> found{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      lib_name_service_t *svc = seen[t] = lib_itc_name_service_get();
      if (svc == nullptr) {
        return;
      }
      for (int r = 0; r < kRounds; ++r) {
        uint32_t h = 0;
        {
          lib_itc_lock lock;
          ASSERT_NE(lib_name_service_insert(svc, &h, "shared", 0), nullptr);
          *lib_name_service_slot(svc, h) = &seen[t];
        }
        lib_itc_lock lock;
        found += *lib_name_service_slot(svc, h) == &seen[t] ? 1 : 0;
        lib_name_service_remove(svc, h);
      }
    });
  }
  for (std::thread &th : threads) {
    th.join();
  }
  ASSERT_NE(seen[0], nullptr);
  for (lib_name_service_t *svc : seen) {
    EXPECT_EQ(svc, seen[0]);
  }
  EXPECT_EQ(found, kThreads * kRounds);
  EXPECT_EQ(g_mutex_inits, 1);
  EXPECT_EQ(ns_test::entry_of(seen[0], "shared")->slots->count, 1);
}

TEST(ItcNameService, FailedCreationIsRetried) {
  g_mutex_init_failures = 1;
  EXPECT_EQ(lib_itc_name_service_get(), nullptr);
  EXPECT_EQ(g_mutex_inits, 0);
  for (unsigned n = 1; n <= 5; ++n) {  // the table, then the sets' four blocks
    const long before = zel_test::fault_live_blocks();
    zel_test::FaultScope fault(n);
    EXPECT_EQ(lib_itc_name_service_get(), nullptr) << n;
    EXPECT_EQ(zel_test::fault_live_blocks(), before) << n;
  }
  lib_name_service_t *svc = lib_itc_name_service_get();
  ASSERT_NE(svc, nullptr);
  EXPECT_EQ(lib_itc_name_service_get(), svc);
  EXPECT_EQ(g_mutex_inits, 1);
}

TEST(NameServiceInternals, FailedInsertOrReservationLeavesNoEntry) {
  lib_name_service_t *svc = lib_name_service_create();
  for (std::atomic<bool> *fail : {&g_fail_insert, &g_fail_append}) {
    const long before = zel_test::fault_live_blocks();
    uint32_t h = 7;
    *fail = true;
    EXPECT_EQ(lib_name_service_insert(svc, &h, "a", 1), nullptr);
    *fail = false;
    EXPECT_EQ(h, 7u);
    EXPECT_EQ(zel_test::fault_live_blocks(), before);
    EXPECT_EQ(ns_test::entry_of(svc, "a"), nullptr);
    EXPECT_EQ(svc->next_id, 1u);
  }
  ns_test::destroy(svc);
}

TEST(NameServiceInternals, UnbindCountsOutAnUnfilledBinding) {
  lib_name_service_t *svc = lib_name_service_create();
  uint32_t owner = 0, shared = 0, other = 0;
  ASSERT_NE(lib_name_service_insert(svc, &owner, "a", 1), nullptr);
  lib_name_service_unbind(svc, owner);  // no shared slot: the entry goes
  EXPECT_EQ(ns_test::entry_of(svc, "a"), nullptr);
  lib_name_service_entry_t *e = lib_name_service_insert(svc, &shared, "a", 0);
  lib_name_service_insert(svc, &owner, "a", 1);
  lib_name_service_insert(svc, &other, "a", 0);
  *lib_name_service_slot(svc, shared) = &shared;
  EXPECT_EQ(e->slots->count, 3);
  lib_name_service_unbind(svc, owner);
  lib_name_service_unbind(svc, other);
  EXPECT_EQ(e->slots->count, 2);
  EXPECT_EQ(e->flags & LIB_NAME_SERVICE_OWNED, 0);
  uint32_t again = 0;
  lib_name_service_insert(svc, &again, "a", 0);
  EXPECT_EQ(again, other);                // the freed slot is handed out again
  lib_name_service_unbind(svc, 0x70000);  // unknown: nothing
  ns_test::destroy(svc);
}

}  // namespace
