/* The configuration header from C: the worked example through the shared library. */
#include <string.h>

#include <zel/config.h>

int main(void) {
  zel_util_config_t *c = zel_util_config_create("loc1", "snmp");
  const char *s;
  int ok;
  if (c == NULL) {
    return 1;
  }
  ok = zel_util_snmp_add_object(c, "ifCounters", "1.3.6.1.2.1.2.2.1.10") == ZEL_CFG_OK &&
       zel_util_snmp_add_object(c, "ifCounters", "1.3.6.1.2.1.2.2.1.16") == ZEL_CFG_OK &&
       zel_util_snmp_add_instance(c, "ports", ZEL_SNMP_INSTANCE_RANGE, "1", "24", 0) == 0 &&
       zel_util_snmp_add_instance(c, "ports", ZEL_SNMP_INSTANCE_RANGE, "101", "124", 0) == 0 &&
       zel_util_snmp_add_context(c, "ctxA") == ZEL_CFG_OK;
  s = zel_util_config_string_get(c);
  ok = ok && s != NULL && s == c->config_str &&
       strcmp(s,
              "/loc1/snmp///ifCounters;1.3.6.1.2.1.2.2.1.10,1.3.6.1.2.1.2.2.1.16/ports;range;"
              "1-24,101-124/ctxA") == 0;
  zel_util_config_destroy(c);
  return ok ? 0 : 1;
}
