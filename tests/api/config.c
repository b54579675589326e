/* The configuration header from C: one object built and rendered through the shared library. */
#include <zel/config.h>

#include <string.h>

int main(void) {
  zel_util_config_t *c = zel_util_config_create("loc1", "snmp");
  int ok = zel_util_snmp_add_object(c, "n", "1.3.6") == ZEL_CFG_OK &&
           strcmp(zel_util_config_string_get(c), "/loc1/snmp///n;1.3.6/;;") == 0;
  zel_util_config_destroy(c);
  return ok ? 0 : 1;
}
