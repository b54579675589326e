/* A program outside the project, built against the installed library. */
#include <stdio.h>
#include <string.h>

#include <zel/trace.h>
#include <zel/version.h>

int main(void) {
  char expected[40];
  snprintf(expected, sizeof expected, "%d.%d.%d", ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR,
           ZEL_VERSION_PATCH);
  if (strcmp(zel_version(), expected) != 0) {
    return 1;
  }
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_ERROR);
  return zel_conf_str_amdt.name != 0 ? 0 : 1;
}
