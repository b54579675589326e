/* The channels' header from C: a server and a client on one dispatch manager driven by this
 * thread exchange a message and a reply, then close; the public records keep their layout. */
#include <stddef.h>
#include <string.h>

#include <zel/itc.h>

typedef char attr_is_three_words[sizeof(lib_itc_attr_t) == 12 ? 1 : -1];
typedef char
    hdr_ends_with_length[offsetof(lib_itc_msg_hdr_t, length) == sizeof(void *) + 8 ? 1 : -1];

static int got_reply = 0;

static void on_server(uint32_t handle, uint32_t type, void *cookie) {
  uint32_t sender = 0, length = 0, event = 0, client = 0;
  void *payload = NULL;
  (void)cookie;
  if (type == LIB_ITC_MSG_CONNECT) {
    lib_itc_get_connection_event(handle, &event, &client);
  } else if (type == LIB_ITC_MSG_DATA &&
             lib_itc_receive(handle, &sender, &payload, &length) == LIB_ITC_OK) {
    if (length == 4 && memcmp(payload, "ping", 4) == 0) {
      memcpy(payload, "pong", 4);
      if (lib_itc_send(handle, sender, payload) != LIB_ITC_OK) {
        lib_itc_free(handle, payload);
      }
    } else {
      lib_itc_free(handle, payload);
    }
  }
}

static void on_client(uint32_t handle, uint32_t type, void *cookie) {
  uint32_t sender = 0, length = 0;
  void *payload = NULL;
  (void)cookie;
  if (type == LIB_ITC_MSG_DATA && lib_itc_receive(handle, &sender, &payload, &length) == 0) {
    got_reply = length == 4 && memcmp(payload, "pong", 4) == 0;
    lib_itc_free(handle, payload);
  }
}

int main(void) {
  kro_dm_t *dm = NULL;
  uint32_t server = 0, client = 0;
  void *payload = NULL;
  int i;
  if (kro_dm_create(&dm) != 0 ||
      lib_itc_open(&server, "c-api", LIB_ITC_SERVER, NULL, dm, on_server, NULL) != 0 ||
      lib_itc_open(&client, "c-api", LIB_ITC_CLIENT, NULL, dm, on_client, NULL) != 0) {
    return 1;
  }
  if (lib_itc_alloc(client, 4, &payload) != 0) {
    return 1;
  }
  memcpy(payload, "ping", 4);
  if (lib_itc_send(client, 0, payload) != 0) {
    return 1;
  }
  for (i = 0; i < 4; ++i) {
    kro_dm_dispatch(dm);
  }
  if (!got_reply || lib_itc_close(&client) != 0 || lib_itc_close(&server) != 0 || client != 0 ||
      server != 0) {
    return 1;
  }
  for (i = 0; i < 4; ++i) {
    kro_dm_dispatch(dm);
  }
  return kro_dm_destroy(&dm) == 0 ? 0 : 1;
}
