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
#include <zel/itc.h>
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

/* ---- Channels: a server thread echoes what a client on the main thread sends. ---- */

struct demo_itc {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  kro_dm_t *server_dm;
  int server_ready; /* the server's channel is open */
  int client_left;  /* the server has heard the client leave */
  int stop;
  int replies; /* replies the client has received */
};

static struct demo_itc demo_itc_state = {
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, NULL, 0, 0, 0, 0};

static void demo_itc_set(int *flag) {
  pthread_mutex_lock(&demo_itc_state.mutex);
  *flag = 1;
  pthread_cond_broadcast(&demo_itc_state.cond);
  pthread_mutex_unlock(&demo_itc_state.mutex);
}

static void demo_itc_await(const int *flag) {
  pthread_mutex_lock(&demo_itc_state.mutex);
  while (!*flag) {
    pthread_cond_wait(&demo_itc_state.cond, &demo_itc_state.mutex);
  }
  pthread_mutex_unlock(&demo_itc_state.mutex);
}

static void demo_itc_on_server(uint32_t handle, uint32_t type, void *cookie) {
  uint32_t sender = 0, length = 0, event = 0, client = 0;
  void *payload = NULL, *reply = NULL;
  (void)cookie;
  if (type == LIB_ITC_MSG_CONNECT && lib_itc_get_connection_event(handle, &event, &client) == 0) {
    printf("server: client 0x%08x %s\n", (unsigned)client,
           event == LIB_ITC_MSG_CONNECT ? "came" : "left");
    if (event == LIB_ITC_MSG_DISCONNECT) {
      demo_itc_set(&demo_itc_state.client_left);
    }
  } else if (type == LIB_ITC_MSG_DATA && lib_itc_receive(handle, &sender, &payload, &length) == 0) {
    printf("server: got \"%.*s\" from 0x%08x\n", (int)length, (const char *)payload,
           (unsigned)sender);
    if (lib_itc_alloc(handle, length + 6, &reply) == 0) {
      memcpy(reply, "echo: ", 6);
      memcpy((char *)reply + 6, payload, length);
      if (lib_itc_send(handle, sender, reply) != 0) {
        lib_itc_free(handle, reply);
      }
    }
    lib_itc_free(handle, payload);
  }
}

static void *demo_itc_server(void *arg) {
  uint32_t server = 0;
  int stop = 0, i;
  (void)arg;
  kro_dm_create(&demo_itc_state.server_dm);
  lib_itc_open(&server, "demo.echo", LIB_ITC_SERVER, NULL, demo_itc_state.server_dm,
               demo_itc_on_server, NULL);
  demo_itc_set(&demo_itc_state.server_ready);
  while (!stop) {
    kro_dm_wait(demo_itc_state.server_dm);
    kro_dm_dispatch(demo_itc_state.server_dm);
    pthread_mutex_lock(&demo_itc_state.mutex);
    stop = demo_itc_state.stop;
    pthread_mutex_unlock(&demo_itc_state.mutex);
  }
  lib_itc_close(&server);
  for (i = 0; i < 2; ++i) { /* the clean-up runs in the next dispatch step */
    kro_dm_dispatch(demo_itc_state.server_dm);
  }
  return NULL; /* the manager goes once the thread that may still wake it has joined */
}

static void demo_itc_on_client(uint32_t handle, uint32_t type, void *cookie) {
  uint32_t sender = 0, length = 0;
  void *payload = NULL;
  (void)cookie;
  if (type == LIB_ITC_MSG_CONNECTED) {
    printf("client: connected\n");
  } else if (type == LIB_ITC_MSG_DATA && lib_itc_receive(handle, &sender, &payload, &length) == 0) {
    printf("client: got \"%.*s\"\n", (int)length, (const char *)payload);
    lib_itc_free(handle, payload);
    ++demo_itc_state.replies; /* this thread's own */
  }
}

static int demo_channels(void) {
  static const char *const texts[] = {"hello", "how are you", "bye"};
  pthread_t thread;
  kro_dm_t *dm = NULL;
  uint32_t client = 0;
  int i;
  if (pthread_create(&thread, NULL, demo_itc_server, NULL) != 0 || kro_dm_create(&dm) != 0) {
    return 1;
  }
  demo_itc_await(&demo_itc_state.server_ready);
  if (lib_itc_open(&client, "demo.echo", LIB_ITC_CLIENT, NULL, dm, demo_itc_on_client, NULL) != 0) {
    return 1;
  }
  for (i = 0; i < 3; ++i) {
    void *payload = NULL;
    const uint32_t length = (uint32_t)strlen(texts[i]);
    if (lib_itc_alloc(client, length, &payload) != 0) {
      return 1;
    }
    memcpy(payload, texts[i], length);
    if (lib_itc_send(client, 0, payload) != 0) {
      lib_itc_free(client, payload);
      return 1;
    }
    while (demo_itc_state.replies <= i) { /* run this thread's manager until the echo is in */
      kro_dm_wait(dm);
      kro_dm_dispatch(dm);
    }
  }
  lib_itc_close(&client);
  kro_dm_dispatch(dm); /* the client's clean-up */
  kro_dm_destroy(&dm);
  demo_itc_await(&demo_itc_state.client_left);
  pthread_mutex_lock(&demo_itc_state.mutex);
  demo_itc_state.stop = 1;
  pthread_mutex_unlock(&demo_itc_state.mutex);
  kro_dm_wake(demo_itc_state.server_dm);
  pthread_join(thread, NULL);
  kro_dm_destroy(&demo_itc_state.server_dm);
  return 0;
}

int main(void) {
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_TRACE | ZEL_TRACE_MASK_ERROR);
  printf("module %s registered, flags switched on\n", zel_conf_str_amdt.name);
  if (demo_feature_loop() != 0) {
    return 1;
  }
  if (demo_channels() != 0) {
    printf("channels demo failed\n");
    return 1;
  }
  return demo_config();
}
