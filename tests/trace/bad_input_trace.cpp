// Bad input to the trace module switches: switches of modules that were never registered,
// registrations repeated, masks with unknown bits.
#include <host/probe.h>
#include <kro/dt.h>
#include <zel/trace.h>

#include "support/bad_input.h"

namespace {

// Switches of a module never registered change nothing; registering twice registers twice;
// unknown mask bits are ignored.
void check_module(any_module_dt_t &record, const char *name, void (*init)(),
                  void (*dbg_set)(unsigned int)) {
  SCOPED_TRACE(name);
  for (unsigned mask : {0u, 3u, ~0u}) dbg_set(mask);
  EXPECT_EQ(record.trace_flag, nullptr);
  const unsigned before = host_probe_registrations(name);
  init();
  init();
  EXPECT_EQ(host_probe_registrations(name), before + 2);
  for (unsigned mask : {~0u, ~ZEL_TRACE_MASK_TRACE, ~3u}) {
    dbg_set(mask);
    EXPECT_EQ(
        (std::pair{kro_dt_flag_enabled(record.trace_flag), kro_dt_flag_enabled(record.error_flag)}),
        std::pair(int(mask & 1), int(mask >> 1 & 1)))
        << mask;
  }
}

TEST(BadInput, TraceSwitches) {
  check_module(zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME, zel_ipc_reg_init_once,
               zel_ipc_reg_dbg_set);
  check_module(zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, zel_cfg_string_dt_init_once,
               zel_cfg_string_dbg_set);
}

}  // namespace
