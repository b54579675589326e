// What the fuzz targets check with: a failed condition prints where and aborts, which
// libFuzzer reports as a finding and the corpus replay test as a failure.
#ifndef ZEL_FUZZ_FUZZ_CHECK_H_
#define ZEL_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define ZEL_FUZZ_CHECK(cond)                                                         \
  do {                                                                               \
    if (!(cond)) {                                                                   \
      (void)fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      abort();                                                                       \
    }                                                                                \
  } while (0)

#endif  // ZEL_FUZZ_FUZZ_CHECK_H_
