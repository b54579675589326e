// Bad input to the trace module switches (the modules share their code): switches of a module
// not yet registered change nothing, each call registers, unknown mask bits are ignored.
#include <gtest/gtest.h>
#include <host/probe.h>
#include <kro/dt.h>
#include <zel/trace.h>

namespace {

TEST(BadInput, TraceSwitches) {
  const any_module_dt_t &rec = zel_conf_str_amdt;
  for (unsigned mask : {0u, 3u, ~0u}) zel_cfg_string_dbg_set(mask);
  EXPECT_EQ(rec.trace_flag, nullptr);
  for (int i = 0; i < 2; ++i) zel_cfg_string_dt_init_once();
  EXPECT_EQ(host_probe_registrations(ZEL_CFG_STR_MODULE_NAME), 2u);
  for (unsigned mask : {~0u, ~ZEL_TRACE_MASK_TRACE, ~ZEL_TRACE_MASK_ERROR, ~3u}) {
    zel_cfg_string_dbg_set(mask);
    EXPECT_EQ(kro_dt_flag_enabled(rec.trace_flag) + 2 * kro_dt_flag_enabled(rec.error_flag),
              int(mask & 3));
  }
}

}  // namespace
