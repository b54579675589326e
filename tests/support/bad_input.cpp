#include "support/bad_input.h"

#include <host/probe.h>
#include <kro/dt.h>

void zel_bad_input::run_traced(std::span<const Row> rows, any_module_dt_t &record,
                               const char *module, void (*before)(), void (*after)(const Row &)) {
  run_rows(rows, before, after);
  ASSERT_TRUE(record.trace_flag != nullptr || any_module_dt_init(&record, module) == 0);
  kro_dt_flag_enable(record.trace_flag, module);
  kro_dt_flag_enable(record.error_flag, module);
  for (const int answer : {1, 0}) {
    SCOPED_TRACE(answer != 0 ? "flags on, record and print" : "flags on, checks refuse");
    host_probe_set_subtype_check(answer != 0 ? 0 : 1);
    host_probe_set_chk_int(answer);
    run_rows(rows, before, after);
  }
}
