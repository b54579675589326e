// What the fuzz targets share: the check (a failed condition prints where and aborts, which
// libFuzzer reports as a finding and the corpus replay test as a failure) and the input reader.
#ifndef ZEL_FUZZ_FUZZ_CHECK_H_
#define ZEL_FUZZ_FUZZ_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define ZEL_FUZZ_CHECK(cond)                                                         \
  do {                                                                               \
    if (!(cond)) {                                                                   \
      (void)fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      abort();                                                                       \
    }                                                                                \
  } while (0)

// The fuzzer's input read one byte at a time; bytes past the end read as 0.
struct zel_fuzz_bytes {
  const uint8_t *p;
  size_t n;
  uint8_t byte() {
    if (n == 0) return 0;
    --n;
    return *p++;
  }
};

#endif  // ZEL_FUZZ_FUZZ_CHECK_H_
