// Shared helpers of the configuration tests: an owning handle, the texts used by the tables,
// and the error-level trace points read back from the platform's call journal.
#ifndef ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_
#define ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_

#include <kro/probe.h>
#include <zel/config.h>
#include <zel/trace.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace cfg_test {

struct Destroy {
  void operator()(zel_util_config_t *c) const { zel_util_config_destroy(c); }
};
using Config = std::unique_ptr<zel_util_config_t, Destroy>;

inline Config make(const char *loc = "loc1", const char *prov = "snmp") {
  return Config(zel_util_config_create(loc, prov));
}

inline std::string text(size_t n, char c = 'o') {
  return std::string(n, c);
}

// The configuration string, or "(null)".
inline std::string str(zel_util_config_t *c) {
  const char *s = zel_util_config_string_get(c);
  return s == nullptr ? "(null)" : s;
}

// The module is registered once per process; a test case runs in a process of its own.
inline void register_module() {
  static const bool once = (zel_cfg_string_dt_init_once(), true);
  (void)once;
}

// One filtered-log entry as the journal records it:
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

}  // namespace cfg_test

#endif  // ZEL_TESTS_CONFIG_CONFIG_TEST_UTIL_H_
