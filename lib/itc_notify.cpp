// Notifications of opens and closes: posting, collecting the peers under the channel mutex and
// taking the posting phases in turn.
#include <pthread.h>

#include "lib/itc_internal.h"
#include "trace/trace_point.h"

namespace {

// Tickets of the posting phases: drawn under the channel mutex, so their order is the order of
// the critical sections that collected the peers; a phase posts when `serving` reaches its
// ticket and hands over by raising it. Unsigned wrap-around is harmless (only equality). A
// phase that must wait sleeps on a condition variable whose mutex guards nothing but the wait
// (it is never held while posting, nor together with the channel mutex).
std::atomic<uint32_t> lib_itc_ticket_next{0};
std::atomic<uint32_t> lib_itc_ticket_serving{0};
pthread_mutex_t lib_itc_ticket_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t lib_itc_ticket_cond = PTHREAD_COND_INITIALIZER;

void lib_itc_ticket_wait(uint32_t ticket) {
  if (lib_itc_ticket_serving.load(std::memory_order_acquire) == ticket) {
    return;
  }
  pthread_mutex_lock(&lib_itc_ticket_mutex);
  while (lib_itc_ticket_serving.load(std::memory_order_acquire) != ticket) {
    pthread_cond_wait(&lib_itc_ticket_cond, &lib_itc_ticket_mutex);
  }
  pthread_mutex_unlock(&lib_itc_ticket_mutex);
}

void lib_itc_ticket_done() {
  lib_itc_ticket_serving.fetch_add(1, std::memory_order_release);
  pthread_mutex_lock(&lib_itc_ticket_mutex);
  pthread_cond_broadcast(&lib_itc_ticket_cond);
  pthread_mutex_unlock(&lib_itc_ticket_mutex);
}

}  // namespace

void lib_itc_post_msg(lib_itc_channel_t *rec, uint32_t type, uint32_t handle, uint32_t length) {
  lib_itc_msg_hdr_t *msg = lib_itc_block_alloc_plain(type == LIB_ITC_MSG_DATA ? length : 0);
  if (msg == nullptr) {
    ZEL_TRACE(lib_amdt, ZEL_TRACE_ERROR, LIB_ITC_ENOMEM, "malloc failed\n");
    return;
  }
  msg->link = nullptr;
  msg->type = type;
  msg->handle = handle;
  msg->length = length;
  const int rc = kro_dm_watched_queue_enqueue(rec->queue, msg);
  if (rc != 0) {
    lib_itc_block_release(msg);
    // A queue being deregistered belongs to a channel that is gone: nobody is left to tell.
    if (rc != KRO_DM_ENOTCONN) {
      ZEL_TRACE(lib_amdt, ZEL_TRACE_ERROR, rc, "kro_dm_watched_queue_enqueue failed\n");
    }
  }
}

void lib_itc_notice::add(lib_itc_channel_t *rec, uint32_t handle) {
  lib_itc_channel_ref(rec);
  peers_[count_++] = {rec, handle};
}

void lib_itc_notice::collect(const lib_name_service_entry_t *entry) {
  if (entry == nullptr) {
    return;
  }
  const uint32_t id = entry->header.id;
  if (kind_ == client_open || kind_ == client_close) {
    // Slot 0 holds a record only while the server is open (never while it is still opening).
    lib_itc_channel_t *server = lib_itc_entry_record(entry, 0);
    if (server != nullptr && (entry->flags & LIB_NAME_SERVICE_OWNED) != 0) {
      add(server, lib_name_service_handle_make(id, 0));
    }
  } else {
    for (uint32_t i = 1; i < entry->slots->used; ++i) {
      if (lib_itc_channel_t *client = lib_itc_entry_record(entry, i)) {
        add(client, lib_name_service_handle_make(id, i));
      }
    }
  }
  if (count_ == 0) {
    return;
  }
  if (kind_ == client_open || kind_ == server_open) {
    lib_itc_channel_ref(self_);  // posted to as well; a stray close can't free it meanwhile
  }
  ticket_ = lib_itc_ticket_next.fetch_add(1, std::memory_order_relaxed);
}

void lib_itc_notice::post() {
  if (count_ == 0) {
    return;
  }
  lib_itc_ticket_wait(ticket_);
  switch (kind_) {
    case client_open:
      lib_itc_post_msg(peers_[0].rec, LIB_ITC_MSG_CONNECT, self_handle_, LIB_ITC_MSG_CONNECT);
      lib_itc_post_msg(self_, LIB_ITC_MSG_CONNECTED, 0, 0);
      break;
    case server_open:
      for (uint32_t i = 0; i < count_; ++i) {
        lib_itc_post_msg(self_, LIB_ITC_MSG_CONNECT, peers_[i].handle, LIB_ITC_MSG_CONNECT);
        lib_itc_post_msg(peers_[i].rec, LIB_ITC_MSG_CONNECTED, 0, 0);
      }
      break;
    case client_close:
      lib_itc_post_msg(peers_[0].rec, LIB_ITC_MSG_CONNECT, self_handle_, LIB_ITC_MSG_DISCONNECT);
      break;
    case server_close:
      for (uint32_t i = 0; i < count_; ++i) {
        lib_itc_post_msg(peers_[i].rec, LIB_ITC_MSG_DISCONNECT, 0, 0);
      }
      break;
  }
  lib_itc_ticket_done();
  for (uint32_t i = 0; i < count_; ++i) {
    lib_itc_channel_unref(peers_[i].rec);
  }
  if (kind_ == client_open || kind_ == server_open) {
    lib_itc_channel_unref(self_);
  }
  count_ = 0;
}
