#include "support/bad_input.h"

#include <host/probe.h>
#include <kro/dt.h>

#include "support/fault.h"

namespace zel_bad_input {

void check(const std::string &label, intptr_t want, const std::function<intptr_t()> &call) {
  SCOPED_TRACE(label);
  const long before = zel_test::fault_live_blocks();
  EXPECT_EQ(call(), want);
  EXPECT_EQ(zel_test::fault_live_blocks(), before) << "blocks left allocated";
}

void run_rows(std::span<const Row> rows, void (*before)(), void (*after)(const Row &)) {
  for (const Row &row : rows) {
    if (before != nullptr) before();
    check(row.call, row.want, row.run);
    SCOPED_TRACE(row.call);
    if (after != nullptr) after(row);
  }
}

void run_traced(std::span<const Row> rows, any_module_dt_t &record, const char *module_name,
                void (*before)(), void (*after)(const Row &)) {
  run_rows(rows, before, after);
  ASSERT_TRUE(record.trace_flag != nullptr || any_module_dt_init(&record, module_name) == 0);
  kro_dt_flag_enable(record.trace_flag, module_name);
  kro_dt_flag_enable(record.error_flag, module_name);
  for (const int answer : {1, 0}) {
    SCOPED_TRACE(answer != 0 ? "flags on, record and print" : "flags on, checks refuse");
    host_probe_set_subtype_check(answer != 0 ? 0 : 1);
    host_probe_set_chk_int(answer);
    run_rows(rows, before, after);
  }
}

}  // namespace zel_bad_input
