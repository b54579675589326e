/* Demonstration of libzel_utils: registers the configuration module, switches its flags and
 * shows what a trace point writes. Grows as the families land. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <zel/config.h>
#include <zel/fu.h>
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

/* Stands in for the feature manager: three enable requests, sent as messages on the feature
 * process's message descriptor from a thread of its own. */
static fm_feature_instance_req_t demo_fu_reqs[3] = {{1, 42, 101}, {1, 42, 102}, {1, 42, 103}};

static void *demo_fu_feeder(void *arg) {
  const int fd = *(const int *)arg;
  unsigned i;
  for (i = 0; i < 3; ++i) {
    if (fu_pmx_send(fd, &demo_fu_reqs[i], sizeof demo_fu_reqs[i]) != 0) {
      break;
    }
  }
  return NULL;
}

/* A feature process's loop: one event per zel_fu_dequeue, each message an enable request whose
 * instance is recorded; then the instances are disabled, the feature utility asks the process
 * to exit, and the next heartbeat expiry ends the loop and destroys the handle. */
static int demo_feature_loop(void) {
  static fu_fsm_event_t ev;
  kro_dm_t *dm = NULL;
  int sv[2];
  int32_t fd;
  zel_fu_handle_t *h;
  pthread_t feeder;
  int n, rc = 0;
  if (kro_dm_create(&dm) != KRO_DM_OK) {
    return 1;
  }
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
    kro_dm_destroy(&dm);
    return 1;
  }
  fd = sv[0];
  fu_probe_set_heartbeat_timeout(20); /* the system manager's timeout (stand-in), in ms */
  h = zel_fu_register_events(&dm, &fd);
  if (h == NULL || pthread_create(&feeder, NULL, demo_fu_feeder, &sv[1]) != 0) {
    zel_fu_handle_destroy(h);
    kro_dm_destroy(&dm);
    close(sv[0]);
    close(sv[1]);
    return 1;
  }
  for (n = 0; n < 3 && rc == 0; ++n) {
    fm_feature_instance_req_t req;
    rc = zel_fu_dequeue(h, &ev);
    if (rc == ZEL_FU_OK && ev.msg.len == sizeof req) {
      memcpy(&req, ev.msg.data, sizeof req);
      printf("feature loop: %u-byte message on descriptor %d, enable instance %u: %d\n",
             (unsigned)ev.msg.len, (int)ev.fd, (unsigned)req.instance,
             (int)zel_fu_feature_enable(h, &req));
    }
  }
  pthread_join(feeder, NULL);
  for (n = 0; n < 3; ++n) {
    zel_fu_feature_disable(h, &demo_fu_reqs[n]);
  }
  printf("feature loop: all instances disabled, can exit: %d\n", zel_fu_can_exit(h) != 0);
  fu_probe_set_state(FU_STATE_EXIT); /* what the feature utility does at shutdown (stand-in) */
  if (rc == 0) {
    rc = zel_fu_dequeue(h, &ev);
  }
  if (__atomic_load_n(&fu_global.state, __ATOMIC_RELAXED) == FU_STATE_EXIT) {
    printf("feature loop: exit path, result %d, handle destroyed by the loop\n", rc);
  } else {
    zel_fu_handle_destroy(h);
  }
  kro_dm_destroy(&dm);
  close(sv[0]);
  close(sv[1]);
  return rc == 0 ? 0 : 1;
}

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR);
  printf("module %s registered, flags switched on\n", zel_conf_str_amdt.name);
  if (demo_feature_loop() != 0) {
    return 1;
  }
  return demo_config();
}
