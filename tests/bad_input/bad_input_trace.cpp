// Bad input to the trace module switches: masks with unknown bits, switches of modules that
// were never registered, registrations repeated.
#include <gtest/gtest.h>
#include <host/probe.h>
#include <kro/dt.h>
#include <zel/trace.h>

#include "bad_input/bad_input.h"

namespace {

struct Module {
  any_module_dt_t &record;
  const char *name;
  void (*init)();
  void (*dbg_set)(unsigned int);
};

const Module kModules[] = {
    {zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME, zel_ipc_reg_init_once, zel_ipc_reg_dbg_set},
    {zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, zel_cfg_string_dt_init_once,
     zel_cfg_string_dbg_set},
};

void expect_flags(const any_module_dt_t &rec, bool trace, bool error) {
  EXPECT_EQ(kro_dt_flag_enabled(rec.trace_flag) != 0, trace);
  EXPECT_EQ(kro_dt_flag_enabled(rec.error_flag) != 0, error);
}

TEST(BadInput, TraceSwitches) {
  zel_bad_input::run_rows({
      {"switches of unregistered modules, any mask",
       [] {
         for (const Module &m : kModules) {
           SCOPED_TRACE(m.name);
           for (unsigned mask : {0u, 3u, ~0u}) m.dbg_set(mask);
           EXPECT_EQ(m.record.trace_flag, nullptr);
           expect_flags(m.record, false, false);
         }
       }},
      {"registration repeated; masks with unknown bits",
       [] {
         for (const Module &m : kModules) {
           SCOPED_TRACE(m.name);
           const unsigned before = host_probe_registrations(m.name);
           m.init();
           m.init();
           EXPECT_EQ(host_probe_registrations(m.name), before + 2);
           m.dbg_set(~0u);
           expect_flags(m.record, true, true);
           m.dbg_set(~0u & ~ZEL_TRACE_MASK_TRACE);
           expect_flags(m.record, false, true);
           m.dbg_set(~0u & ~(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR));
           expect_flags(m.record, false, false);
         }
       }},
  });
}

}  // namespace
