// Data messages: allocation, freeing and sending.
#include <cstdint>

#include "lib/itc_internal.h"

namespace {

// The destination this thread sent to last, pinned by a reference of the thread's own: while
// that record is not closed it is still what the handle and destination name (a closed
// channel's record leaves its slot, and a slot is filled again only by a new record), and its
// channel keeps the name bound. So a stream of sends to one destination takes neither the
// channel mutex nor a reference per message. The reference goes when the thread sends elsewhere,
// finds the record closed, or exits; until then a closed record (its queue already drained by
// the clean-up) stays allocated for this thread.
struct lib_itc_send_pin {
  uint32_t handle = 0;
  uint32_t destination = 0;  // as looked up: 0 for a client's sends
  lib_itc_channel_t *dst = nullptr;

  lib_itc_send_pin() = default;
  lib_itc_send_pin(const lib_itc_send_pin &) = delete;
  lib_itc_send_pin &operator=(const lib_itc_send_pin &) = delete;
  ~lib_itc_send_pin() { drop(); }
  void drop() {
    if (dst != nullptr) {
      lib_itc_channel_unref(dst);
      dst = nullptr;
    }
  }
};
thread_local lib_itc_send_pin lib_itc_sent_to;

}  // namespace

void lib_itc_send_unpin_closed() {
  lib_itc_send_pin &pin = lib_itc_sent_to;
  if (pin.dst != nullptr && pin.dst->closed.load(std::memory_order_acquire)) {
    pin.drop();
  }
}

namespace {

// The destination of a send from `handle`, or nullptr. A client's is the server of its name;
// the server's is the record in `destination`'s slot, which must be of the same name. The
// record is pinned for this thread (see lib_itc_send_pin); a new one is looked up, and pinned,
// under the channel mutex.
lib_itc_channel_t *lib_itc_send_target(lib_name_service_t *service, uint32_t handle,
                                       uint32_t destination) {
  const bool from_server = lib_name_service_handle_slot(handle) == 0;
  if (from_server &&
      (!lib_itc_handle_shaped(destination) ||
       lib_name_service_handle_id(destination) != lib_name_service_handle_id(handle))) {
    return nullptr;
  }
  const uint32_t key = from_server ? destination : 0;
  lib_itc_send_pin &pin = lib_itc_sent_to;
  if (pin.dst != nullptr && pin.handle == handle && pin.destination == key) {
    if (!pin.dst->closed.load(std::memory_order_acquire)) {
      return pin.dst;
    }
  }
  pin.drop();
  lib_itc_channel_t *dst = nullptr;
  {
    lib_lock lock(lib_itc_channel_mutex, lib_lock::spin);
    lib_name_service_entry_t *entry = lib_itc_entry(service, handle);
    if (entry == nullptr) {
      return nullptr;
    }
    dst = lib_itc_entry_record(entry, from_server ? lib_name_service_handle_slot(destination) : 0);
    if (dst == nullptr) {
      return nullptr;
    }
    lib_itc_channel_ref(dst);
  }
  pin.handle = handle;
  pin.destination = key;
  pin.dst = dst;
  return dst;
}

// Admits a data message of `length` bytes to the destination: 0 with the message counted
// against both bounds, else 28 when its bytes don't fit the budget, or KRO_DM_EAGAIN when the
// channel already holds its queue_len data messages. One compare-and-swap does both.
int lib_itc_admit(lib_itc_channel_t *dst, uint32_t length) {
  uint64_t queued = dst->queued.load(std::memory_order_relaxed);
  do {
    if (static_cast<uint64_t>(length) + static_cast<uint32_t>(queued) > dst->max_bytes) {
      return LIB_ITC_ENOSPC;
    }
    if ((queued >> 32) >= dst->queue_len) {
      return KRO_DM_EAGAIN;
    }
  } while (!dst->queued.compare_exchange_weak(queued, queued + lib_itc_queued_msg(length),
                                              std::memory_order_relaxed));
  return 0;
}

}  // namespace

extern "C" {

int lib_itc_alloc(uint32_t handle, uint32_t length, void **payload) {
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || payload == nullptr || !lib_itc_handle_shaped(handle) ||
      !lib_itc_id_bound(service, handle)) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_msg_hdr_t *msg = lib_itc_block_alloc(length);
  if (msg == nullptr) {
    return LIB_ITC_ENOMEM;
  }
  msg->link = nullptr;
  msg->type = LIB_ITC_MSG_DATA;
  msg->handle = handle;
  msg->length = length;
  *payload = lib_itc_payload_of(msg);
  return LIB_ITC_OK;
}

int lib_itc_free(uint32_t handle, void *payload) {
  // The name need not be bound any more: whoever holds a message can always give it back.
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || !lib_itc_handle_shaped(handle) || payload == nullptr) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_msg_hdr_t *msg = lib_itc_hdr_of(payload);
  if (msg->type != LIB_ITC_MSG_DATA) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_block_free(msg);
  return LIB_ITC_OK;
}

int lib_itc_send(uint32_t handle, uint32_t destination, void *payload) {
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || payload == nullptr || !lib_itc_handle_shaped(handle)) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_msg_hdr_t *msg = lib_itc_hdr_of(payload);
  if (msg->type != LIB_ITC_MSG_DATA) {
    return LIB_ITC_EINVAL;
  }
  lib_itc_channel_t *dst = lib_itc_send_target(service, handle, destination);
  if (dst == nullptr) {
    return LIB_ITC_EINVAL;
  }
  const uint32_t length = msg->length;
  int rc = lib_itc_admit(dst, length);
  if (rc == 0) {
    // The message belongs to the queue as soon as it is in: read nothing of it afterwards.
    rc = kro_dm_watched_queue_enqueue(dst->queue, msg);
    if (rc != 0) {
      lib_itc_queued_leave(dst, length);
    }
  }
  return rc;
}

}  // extern "C"
