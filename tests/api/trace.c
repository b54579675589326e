/* The trace header from C: registration and switches through the shared library. */
#include <zel/trace.h>

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_ERROR);
  zel_ipc_reg_dbg_set(0);
  return zel_conf_str_amdt.name != 0 && lib_amdt.name == 0 ? 0 : 1;
}
