// Taking data messages and connection events out of a channel, on its own thread.
#include "lib/itc_internal.h"

namespace {

// The next message of `type` for the channel: the one being delivered, else the next one
// queued. 11 when a message is set aside, when the current one is of another kind (it stays),
// or when the one dequeued is (it is set aside); the dequeue's code when nothing is queued; 22
// when the dequeue meets the wake message of a channel closed meanwhile.
int lib_itc_take(lib_itc_channel_t *rec, uint32_t type, lib_itc_msg_hdr_t **out) {
  if (rec->pending != nullptr) {
    return LIB_ITC_EAGAIN;
  }
  lib_itc_msg_hdr_t *msg = rec->current;
  if (msg != nullptr) {
    if (msg->type != type) {
      return LIB_ITC_EAGAIN;
    }
    rec->current = nullptr;
  } else {
    void *m = nullptr;
    const int rc = kro_dm_watched_queue_dequeue(rec->queue, &m);
    if (rc != 0) {
      return rc;
    }
    msg = static_cast<lib_itc_msg_hdr_t *>(m);
    if (msg->type == lib_itc_msg_wake) {
      lib_itc_wake_requeue(rec, msg);
      return LIB_ITC_EINVAL;
    }
    if (msg->type != type) {
      rec->pending = msg;
      return LIB_ITC_EAGAIN;
    }
  }
  *out = msg;
  return 0;
}

}  // namespace

extern "C" {

int lib_itc_receive(uint32_t handle, uint32_t *sender, void **payload, uint32_t *length) {
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || sender == nullptr || payload == nullptr || length == nullptr ||
      !lib_itc_handle_shaped(handle)) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_channel_t *rec = lib_itc_own_record(service, handle);
  if (rec == nullptr) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_msg_hdr_t *msg = nullptr;
  const int rc = lib_itc_take(rec, LIB_ITC_MSG_DATA, &msg);
  if (rc != 0) {
    return rc;
  }
  *sender = msg->handle;
  *payload = lib_itc_payload_of(msg);
  *length = msg->length;
  lib_itc_queued_leave(rec, msg->length);
  return LIB_ITC_OK;
}

int lib_itc_get_connection_event(uint32_t handle, uint32_t *event, uint32_t *client) {
  if (event == nullptr) {
    return LIB_ITC_EINVAL;
  }
  *event = 0;
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || client == nullptr || !lib_itc_handle_shaped(handle)) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_channel_t *rec = lib_itc_own_record(service, handle);
  if (rec == nullptr) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_msg_hdr_t *msg = nullptr;
  const int rc = lib_itc_take(rec, LIB_ITC_MSG_CONNECT, &msg);
  if (rc != 0) {
    return rc;
  }
  *event = msg->length;
  *client = msg->handle;
  lib_itc_block_release(msg);
  return LIB_ITC_OK;
}

}  // extern "C"
