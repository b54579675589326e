// Allocation fault injection for the tests.
//
// Test executables are linked with --wrap for malloc, calloc, realloc, free and strdup, so every
// allocation made by the library and the platform stand-in (linked statically into the test)
// passes through the wrappers in fault.cpp. A test arms the wrappers to fail the Nth allocation
// made by the calling thread; other threads are never failed. The wrappers also count the blocks
// that are live, so a test can check that an operation left nothing allocated.
#ifndef ZEL_TESTS_SUPPORT_FAULT_H_
#define ZEL_TESTS_SUPPORT_FAULT_H_

#include <cstddef>
#include <cstdint>

namespace zel_test {

// Fails the nth allocation (1-based) made by this thread from now on; 0 disarms.
void fault_arm(unsigned nth);
void fault_disarm();
// Whether the armed failure has been delivered since fault_arm.
bool fault_fired();
// Allocations made by this thread since the last fault_arm (or since start).
unsigned fault_allocations();
// Blocks allocated through the wrappers and not yet freed, over all threads.
long fault_live_blocks();
// Calls `hook(block)` from the free wrapper, on the freeing thread, just before each non-NULL
// block is freed; NULL removes it. For programs that count the frees of blocks they recognise.
void fault_set_free_hook(void (*hook)(void *block));

// Runs `op(n)` for N = 1, 2, ... up to `limit`. `op` sets up what it needs, makes the call under
// test inside a FaultScope(n), checks the result (the failure's result when fault_fired(), the
// success result otherwise), undoes everything it built, and returns fault_fired(). The sweep
// stops at the first run that hit no failure, and checks after every run that the live-block
// count is back where it was (a gtest failure names the N that leaked). Returns the number of
// runs that hit a failure, i.e. how many allocations the call makes.
template <typename Op>
unsigned fault_sweep(Op &&op, unsigned limit = 10000);

// Guard that arms on construction and disarms on destruction.
class FaultScope {
 public:
  explicit FaultScope(unsigned nth) { fault_arm(nth); }
  ~FaultScope() { fault_disarm(); }
  FaultScope(const FaultScope &) = delete;
  FaultScope &operator=(const FaultScope &) = delete;
};

void fault_report_leak(unsigned n, long before, long after);

template <typename Op>
unsigned fault_sweep(Op &&op, unsigned limit) {
  for (unsigned n = 1; n <= limit; ++n) {
    const long before = fault_live_blocks();
    const bool hit = op(n);
    fault_disarm();
    const long after = fault_live_blocks();
    if (after != before) {
      fault_report_leak(n, before, after);
      return n;
    }
    if (!hit) {
      return n - 1;
    }
  }
  return limit;
}

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_FAULT_H_
