// The queue handler: delivers a channel's messages to its callback, one call per message, in
// one run of the dispatch step.
#include "lib/itc_internal.h"

namespace {

// Delivers what the queue holds, one callback per message, until it is empty (false) or the
// channel is closed meanwhile by the callback or another thread (true: deliver nothing more).
bool lib_itc_deliver(kro_dm_watched_queue_t *queue, uint32_t handle, lib_itc_channel_t *rec) {
  for (;;) {
    if (rec->closed.load(std::memory_order_acquire)) {
      return true;
    }
    lib_itc_msg_hdr_t *msg = rec->pending;
    if (msg != nullptr) {
      rec->pending = nullptr;
    } else {
      void *m = nullptr;
      if (kro_dm_watched_queue_dequeue(queue, &m) != 0) {
        return false;
      }
      msg = static_cast<lib_itc_msg_hdr_t *>(m);
    }
    const uint32_t type = msg->type;
    if (type == lib_itc_msg_wake) {
      continue;  // queued after `closed` was set: the check above takes over
    }
    if (type == LIB_ITC_MSG_CONNECTED || type == LIB_ITC_MSG_DISCONNECT) {
      rec->callback(handle, type, rec->cookie);
      lib_itc_block_release(msg);
      continue;
    }
    rec->current = msg;
    rec->callback(handle, type, rec->cookie);
    if (rec->current == msg) {
      // Not taken: discarded, and a data message gives its bytes back.
      rec->current = nullptr;
      if (type == LIB_ITC_MSG_DATA) {
        lib_itc_queued_leave(rec, msg->length);
      }
      lib_itc_block_release(msg);
    }
  }
}

}  // namespace

void lib_itc_queue_handler(kro_dm_watched_queue_t *queue, void *cookie) {
  const auto handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(cookie));
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr) {
    return;
  }
  lib_itc_channel_t *rec = nullptr;
  {
    // A closed channel's handle is unknown, or names a newer channel that took the same slot:
    // that one may belong to another thread, which may free it as soon as the mutex is
    // released, so it is told apart by its queue here and never read afterwards. A record whose
    // queue is this one is this channel, freed only on this thread.
    lib_lock lock(lib_itc_channel_mutex);
    rec = lib_itc_slot_record(service, handle);
    if (rec != nullptr && rec->queue != queue) {
      rec = nullptr;
    }
  }
  bool closed = rec == nullptr;
  if (!closed) {
    const lib_itc_delivery_scope delivering(handle, rec);
    closed = lib_itc_deliver(queue, handle, rec);
  }
  if (closed) {
    // What this queue holds is for nobody. The record stays valid until the clean-up, which
    // runs on this thread, perhaps right here.
    lib_itc_queue_closed_drain(queue);
  }
}
