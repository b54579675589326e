/* Demonstration of libzel_utils: registers the configuration module, switches its flags and
 * shows what a trace point writes. Grows as the families land. */
#include <stdio.h>

#include <zel/trace.h>

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR);
  printf("module %s registered, flags switched on\n", zel_conf_str_amdt.name);
  return 0;
}
