// The trace header from C: registration through the shared library.
#include <zel/trace.h>

int main(void) {
  zel_cfg_string_dt_init_once();
  return zel_conf_str_amdt.name != 0 ? 0 : 1;
}
