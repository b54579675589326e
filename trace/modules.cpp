// The three trace module records, their registration and their flag switches.
#include <kro/dt.h>
#include <zel/trace.h>

#include "trace/trace_internal.h"

any_module_dt_t zel_ipc_reg_mgr_amdt;
any_module_dt_t zel_conf_str_amdt;
any_module_dt_t lib_amdt;

pthread_once_t zel_ipc_reg_once = PTHREAD_ONCE_INIT;

namespace {

// Writes both flags, the trace flag first, from bits 0 and 1 of the mask. The module's
// constant name is handed to the flag operations, not the record's name field.
void zel_trace_switch(const any_module_dt_t &rec, const char *module, unsigned int mask) {
  if ((mask & ZEL_TRACE_MASK_TRACE) != 0) {
    kro_dt_flag_enable(rec.trace_flag, module);
  } else {
    kro_dt_flag_disable(rec.trace_flag, module);
  }
  if ((mask & ZEL_TRACE_MASK_ERROR) != 0) {
    kro_dt_flag_enable(rec.error_flag, module);
  } else {
    kro_dt_flag_disable(rec.error_flag, module);
  }
}

}  // namespace

extern "C" {

void zel_ipc_reg_init_once(void) {
  any_module_dt_init(&zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME);
}

void zel_ipc_reg_dbg_set(unsigned int mask) {
  zel_trace_switch(zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME, mask);
}

void zel_cfg_string_dt_init_once(void) {
  any_module_dt_init(&zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME);
}

void zel_cfg_string_dbg_set(unsigned int mask) {
  zel_trace_switch(zel_conf_str_amdt, ZEL_CFG_STR_MODULE_NAME, mask);
}

}  // extern "C"
