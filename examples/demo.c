/* Demonstration of libzel_utils: registers the configuration module, switches its flags and
 * shows what a trace point writes. Grows as the families land. */
#include <stdio.h>

#include <zel/config.h>
#include <zel/trace.h>

/* Builds the collection request of two interface counters over two port ranges in context
 * ctxA, and prints its configuration string. */
static int demo_config(void) {
  zel_util_config_t *cfg = zel_util_config_create("loc1", "snmp");
  const char *s;
  int rc = 0;
  if (cfg == NULL) {
    return 1;
  }
  rc |= zel_util_snmp_add_object(cfg, "ifCounters", "1.3.6.1.2.1.2.2.1.10");
  rc |= zel_util_snmp_add_object(cfg, "ifCounters", "1.3.6.1.2.1.2.2.1.16");
  rc |= zel_util_snmp_add_instance(cfg, "ports", ZEL_SNMP_INSTANCE_RANGE, "1", "24", 0);
  rc |= zel_util_snmp_add_instance(cfg, "ports", ZEL_SNMP_INSTANCE_RANGE, "101", "124", 0);
  rc |= zel_util_snmp_add_context(cfg, "ctxA");
  s = zel_util_config_string_get(cfg);
  if (rc == 0 && s != NULL) {
    printf("configuration string: %s\n", s);
  }
  /* A refused addition: the result code, and its trace point on standard output. */
  printf("different list name gives %d\n", (int)zel_util_snmp_add_object(cfg, "other", "1"));
  zel_util_config_destroy(cfg);
  return rc == 0 && s != NULL ? 0 : 1;
}

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR);
  printf("module %s registered, flags switched on\n", zel_conf_str_amdt.name);
  return demo_config();
}
