// Allocation fault injection. Test executables are linked with --wrap for malloc, calloc,
// realloc, free and strdup, so every allocation of the library and the platform stand-in passes
// through fault.cpp, which can fail the Nth allocation of the calling thread (other threads are
// never failed) and counts the live blocks, so a test can check that nothing was left allocated.
// Counting first hands the calling thread's cached message blocks back to the C allocator (the
// channels keep freed data messages per thread), so that the count is what it would be without
// that cache.
#ifndef ZEL_TESTS_SUPPORT_FAULT_H_
#define ZEL_TESTS_SUPPORT_FAULT_H_

#include <cstddef>
#include <cstdint>

namespace zel_test {

// Fails the nth allocation (1-based) made by this thread from now on; 0 disarms.
void fault_arm(unsigned nth);
void fault_disarm();
bool fault_fired();            // the armed failure delivered since fault_arm
unsigned fault_allocations();  // this thread's allocations since fault_arm (or start)
long fault_live_blocks();      // blocks allocated and not yet freed, over all threads
// Calls `hook(block)` on the freeing thread just before each non-NULL block is freed; NULL
// removes it.
void fault_set_free_hook(void (*hook)(void *block));
void fault_report_leak(unsigned n, long before, long after);

// Guard that arms on construction and disarms on destruction.
class FaultScope {
 public:
  explicit FaultScope(unsigned nth) { fault_arm(nth); }
  ~FaultScope() { fault_disarm(); }
  FaultScope(const FaultScope &) = delete;
  FaultScope &operator=(const FaultScope &) = delete;
};

// Runs `op(n)` for N = 1, 2, ... up to `limit`. `op` sets up, makes the call under test inside a
// FaultScope(n), checks the result (the failure's when fault_fired()), undoes what it built and
// returns fault_fired(). The sweep stops at the first run that hit no failure and checks after
// each run that the live-block count is back (a failure names the N that leaked). Returns the
// number of runs that hit a failure, i.e. how many allocations the call makes.
template <typename Op>
unsigned fault_sweep(Op &&op, unsigned limit = 10000) {
  for (unsigned n = 1; n <= limit; ++n) {
    const long before = fault_live_blocks();
    const bool hit = op(n);
    fault_disarm();
    const long after = fault_live_blocks();
    if (after != before) {
      fault_report_leak(n, before, after);
      return n;
    }
    if (!hit) return n - 1;
  }
  return limit;
}

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_FAULT_H_
