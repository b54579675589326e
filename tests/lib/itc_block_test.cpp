// Message blocks: freed blocks go back to the thread that allocated them, within the cache's
// bounds; owners that leave, allocation failures and memory pressure.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "lib/itc_block.h"
#include "lib/itc_test_util.h"
#include "support/fault.h"

namespace {

using zel_test::fault_allocations, zel_test::fault_live_blocks, zel_test::FaultScope;
using Blocks = std::vector<lib_itc_msg_hdr_t *>;
thread_local size_t t_frees = 0;  // blocks this thread gave to the C allocator, when counted

Blocks alloc_n(size_t n, uint32_t length) {
  Blocks b(n);
  for (auto &m : b) {
    m = lib_itc_block_alloc(length);
    EXPECT_NE(m, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m + 1) % 16, 0u) << length;
  }
  return b;
}

void free_all(const Blocks &b) {
  for (lib_itc_msg_hdr_t *m : b) lib_itc_block_free(m);
}

// Runs `fn` on a thread of its own, which exits before this returns.
template <typename Fn>
void on_thread(Fn &&fn) {
  std::thread(std::forward<Fn>(fn)).join();
}

// Blocks freed by their own thread are reused up to the cache's bound (1 MiB of 1 KiB blocks);
// those freed by another thread come back in whole batches; payloads are 16-byte aligned.
TEST(ItcBlock, FreedBlocksComeBackToTheirThreadWithinTheBounds) {
  const long before = fault_live_blocks();
  on_thread([] {
    constexpr size_t kCached = lib_itc_block_cache_bytes / 1024;
    Blocks b = alloc_n(2 * kCached, 1024);
    free_all(b);
    zel_test::fault_arm(0);  // counts allocations from here
    b = alloc_n(2 * kCached, 1000);
    EXPECT_EQ(fault_allocations(), kCached);
    // Freed on another thread: they come back in batches (its exit pushes the partial one), up
    // to the bound of the returned stack.
    Blocks small = alloc_n(1000, 64);
    on_thread([&] { free_all(small); });
    zel_test::fault_arm(0);
    small = alloc_n(1000, 1);
    EXPECT_EQ(fault_allocations(), 0u);
    on_thread([&] {  // beyond the bound, blocks go to the C allocator at once
      zel_test::fault_set_free_hook([](void *) { ++t_frees; });
      free_all(b);
      zel_test::fault_set_free_hook(nullptr);
      EXPECT_EQ(t_frees, kCached);
    });
    b = alloc_n(2 * kCached, 1024);
    EXPECT_EQ(fault_allocations(), kCached);
    on_thread([&] {
      free_all(small);
      lib_itc_block_trim();
    });
    free_all(b);
  });
  EXPECT_EQ(fault_live_blocks(), before);
}

// An owner that leaves while its blocks are out, before, between or after their frees by
// another thread (which gathers part of them into a batch): every block and the owner's record
// are freed once, by whoever frees last.
TEST(ItcBlock, OwnerLeavingWhileItsBlocksAreOut) {
  const long before = fault_live_blocks();
  for (size_t freed_first : {size_t{0}, size_t{50}, size_t{100}}) {
    Blocks b;
    std::thread owner([&] { b = alloc_n(100, 200); });
    owner.join();  // gone: its record abandoned with 100 blocks out
    on_thread([&] {
      free_all(Blocks(b.begin(), b.begin() + static_cast<ptrdiff_t>(freed_first)));
      lib_itc_block_trim();
      free_all(Blocks(b.begin() + static_cast<ptrdiff_t>(freed_first), b.end()));
    });
    EXPECT_EQ(fault_live_blocks(), before) << freed_first;
  }
  on_thread([&] {
    Blocks b;
    std::thread owner([&] { b = alloc_n(40, 200); });
    owner.join();
    free_all(b);  // gathered: pushed to the abandoned record at this thread's exit
  });
  EXPECT_EQ(fault_live_blocks(), before);
}

// Threads that come and go allocate blocks into a shared pool and free others' blocks from it:
// frees race with their owners leaving. Nothing is left once the pool is empty.
TEST(ItcBlock, ThreadsComingAndGoingFreeEachOthersBlocks) {
  const long before = fault_live_blocks();
  std::mutex mu;
  Blocks pool;
  for (int wave = 0; wave < 40; ++wave) {
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 3; ++t) {
      threads.emplace_back([&, seed = wave * 3 + t] {
        std::minstd_rand rng(seed + 1);
        for (int i = 0; i < 400; ++i) {
          lib_itc_msg_hdr_t *m = nullptr;
          if ((rng() & 1) != 0) {
            m = lib_itc_block_alloc(rng() % 5000);
            ASSERT_NE(m, nullptr);
          }
          std::lock_guard<std::mutex> lock(mu);
          if (m != nullptr) {
            pool.push_back(m);
          } else if (!pool.empty()) {
            std::swap(pool[rng() % pool.size()], pool.back());
            lib_itc_msg_hdr_t *taken = pool.back();
            pool.pop_back();
            ((rng() & 3) != 0 ? lib_itc_block_free : lib_itc_block_release)(taken);
          }
        }
      });
    }
    for (std::thread &t : threads) t.join();
  }
  free_all(pool);
  EXPECT_EQ(fault_live_blocks(), before);
}

// Allocation failures: the thread's cache record, then the block (LIB_ITC_ENOMEM, nothing
// left); under memory pressure the blocks a thread keeps go back and the allocation is retried.
TEST(ItcBlock, AllocationFailuresAndMemoryPressure) {
  itc_test::Dm dm;
  uint32_t h = 0;
  ASSERT_EQ(itc_test::open(&h, "blocks", LIB_ITC_SERVER, dm.dm), 0u);
  const long before = fault_live_blocks();
  on_thread([h] {
    void *p = nullptr;
    for (unsigned n : {1u, 2u}) {  // the record, the block
      FaultScope fault(n);
      EXPECT_EQ(lib_itc_alloc(h, 64, &p), LIB_ITC_ENOMEM) << n;
      EXPECT_TRUE(zel_test::fault_fired());
    }
    Blocks kept = alloc_n(4, 64);
    free_all(kept);
    {
      FaultScope fault(1);
      EXPECT_EQ(lib_itc_alloc(h, 1024, &p), LIB_ITC_OK);  // failed once, retried after the trim
      EXPECT_EQ(fault_allocations(), 2u);
    }
    EXPECT_EQ(lib_itc_free(h, p), LIB_ITC_OK);
    lib_itc_block_trim();
    FaultScope fault(1);
    EXPECT_EQ(lib_itc_alloc(h, 1024, &p), LIB_ITC_ENOMEM);  // nothing kept: no retry
  });
  EXPECT_EQ(fault_live_blocks(), before);
  EXPECT_EQ(lib_itc_close(&h), 0);
}

}  // namespace
