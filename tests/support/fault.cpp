#include "support/fault.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <malloc.h>

#include "lib/itc_block.h"  // lib_itc_block_trim: see fault.h

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
void __real_free(void *p);
char *__real_strdup(const char *s);
}

namespace {

thread_local unsigned fault_nth = 0;   // 0: disarmed
thread_local unsigned fault_seen = 0;  // allocations since arming
thread_local bool fault_hit = false;
std::atomic<long> fault_live{0};
std::atomic<void (*)(void *)> fault_free_hook{nullptr};

bool fault_should_fail() {
  if (++fault_seen != fault_nth) return false;
  return fault_hit = true;
}

// Counts a block the real allocator handed out.
template <typename T>
T *counted(T *p) {
  if (p != nullptr) fault_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

}  // namespace

extern "C" {

void *__wrap_malloc(size_t size) {
  return fault_should_fail() ? nullptr : counted(__real_malloc(size));
}

void *__wrap_calloc(size_t n, size_t size) {
  return fault_should_fail() ? nullptr : counted(__real_calloc(n, size));
}

void *__wrap_realloc(void *old, size_t size) {
  if (fault_should_fail()) return nullptr;
  return old != nullptr ? __real_realloc(old, size) : counted(__real_realloc(old, size));
}

char *__wrap_strdup(const char *s) {
  return fault_should_fail() ? nullptr : counted(__real_strdup(s));
}

void __wrap_free(void *p) {
  if (p != nullptr) {
    if (void (*hook)(void *) = fault_free_hook.load(std::memory_order_acquire)) hook(p);
    fault_live.fetch_sub(1, std::memory_order_relaxed);
    // Cleared, so that a read after free goes wrong in every build, not only under a sanitizer.
    memset(p, 0, malloc_usable_size(p));
  }
  __real_free(p);
}

}  // extern "C"

namespace zel_test {

void fault_arm(unsigned nth) {
  fault_nth = nth;
  fault_seen = 0;
  fault_hit = false;
}

void fault_disarm() {
  fault_nth = 0;
}
bool fault_fired() {
  return fault_hit;
}
unsigned fault_allocations() {
  return fault_seen;
}
long fault_live_blocks() {
  lib_itc_block_trim();
  return fault_live.load(std::memory_order_relaxed);
}

void fault_set_free_hook(void (*hook)(void *block)) {
  fault_free_hook.store(hook, std::memory_order_release);
}

void fault_report_leak(unsigned n, long before, long after) {
  ADD_FAILURE() << "failing allocation " << n << " left " << (after - before)
                << " block(s) allocated";
}

}  // namespace zel_test
