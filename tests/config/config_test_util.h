// Shared helpers of the configuration tests: an owning handle, texts, allocation sizes, and the
// error-level trace points read back from the platform's call journal.
#ifndef ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_
#define ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/probe.h>
#include <malloc.h>
#include <zel/config.h>
#include <zel/trace.h>

#include <memory>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
extern "C" size_t __sanitizer_get_allocated_size(const volatile void *p);
#endif

namespace cfg_test {

struct Destroy {
  void operator()(zel_util_config_t *c) const { zel_util_config_destroy(c); }
};
using Config = std::unique_ptr<zel_util_config_t, Destroy>;

inline Config make(const char *loc = "loc1", const char *prov = "snmp") {
  static const bool registered = (zel_cfg_string_dt_init_once(), true);  // once per process
  (void)registered;
  return Config(zel_util_config_create(loc, prov));
}

// Builds the configuration string: its text, or "(null)".
inline std::string str(zel_util_config_t *c) {
  const char *s = zel_util_config_string_get(c);
  return s == nullptr ? "(null)" : s;
}

// The block was allocated with exactly `bytes` bytes (exact under the address sanitizer, whose
// allocator knows the requested size; a lower bound otherwise).
inline void expect_block_size(const void *p, size_t bytes) {
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(__sanitizer_get_allocated_size(p), bytes);
#else
  EXPECT_GE(malloc_usable_size(const_cast<void *>(p)), bytes);
#endif
}

// The filtered-log entries journalled since kro_probe_journal_start, recorded as
// "_kro_dt_log_filter_adv FLAG 0 0 0 0 0 slot=P TID: MODULE: FUNC: LINE: CODE: MESSAGE".
struct Logged {
  std::string flag, module, func, msg;
  int code;
};

inline std::vector<Logged> logged() {
  std::vector<Logged> out;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) {
    char flag[64], module[64], func[64];
    unsigned tid;
    int line, code, used = 0;
    if (sscanf(e, "_kro_dt_log_filter_adv %63s 0 0 0 0 0 slot=%*s %u: %63[^:]: %63[^:]: %d: %d: %n",
               flag, &tid, module, func, &line, &code, &used) == 6 &&
        used > 0) {
      out.push_back({flag, module, func, e + used, code});
    }
  }
  return out;
}

// Exactly one error-level trace point was journalled, with this function, message and code.
inline void expect_one_trace(const char *func, const char *msg, int code) {
  const auto log = logged();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].func, func);
  EXPECT_EQ(log[0].msg, msg);
  EXPECT_EQ(log[0].code, code);
  EXPECT_EQ(log[0].module, "ZEL-CFG-STR");
  EXPECT_EQ(log[0].flag, "ZEL-CFG-STR.error");
}

}  // namespace cfg_test

#endif  // ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_
