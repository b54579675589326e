/* Demonstration of libzel_utils: registers the configuration module, switches its flags and
 * shows what a trace point writes. Grows as the families land. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <zel/itc.h>
#include <zel/trace.h>

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
  if (demo_channels() != 0) {
    printf("channels demo failed\n");
    return 1;
  }
  return 0;
}
