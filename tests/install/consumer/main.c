/* A program outside the project, built against the installed library. */
#include <zel/trace.h>

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_ERROR);
  return zel_conf_str_amdt.name != 0 ? 0 : 1;
}
