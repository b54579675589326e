// The bad-input table runner.
#include "bad_input/bad_input.h"

#include <host/probe.h>
#include <kro/dt.h>

#include "support/fault.h"

namespace zel_bad_input {

void run_rows(const Table &table) {
  for (const Row &row : table) {
    SCOPED_TRACE(row.call);
    const long before = zel_test::fault_live_blocks();
    row.run();
    EXPECT_EQ(zel_test::fault_live_blocks(), before) << "blocks left allocated";
  }
}

void run_traced(const Table &table, any_module_dt_t &record, const char *module_name) {
  run_rows(table);
  if (record.trace_flag == nullptr) {
    ASSERT_EQ(any_module_dt_init(&record, module_name), 0);
  }
  kro_dt_flag_enable(record.trace_flag, module_name);
  kro_dt_flag_enable(record.error_flag, module_name);
  for (const int answer : {1, 0}) {
    SCOPED_TRACE(answer != 0 ? "flags on, record and print" : "flags on, checks refuse");
    host_probe_set_subtype_check(answer != 0 ? 0 : 1);
    host_probe_set_chk_int(answer);
    run_rows(table);
  }
}

}  // namespace zel_bad_input
