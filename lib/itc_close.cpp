// lib_itc_close and the deferred clean-up on the channel's own dispatch manager.
#include "lib/itc_internal.h"
#include "trace/trace_point.h"

namespace {

// The clean-up, as a one-shot timer handler on the closed channel's dispatch manager.
int lib_itc_cleanup_timer_handler(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
  lib_itc_channel_retire(static_cast<lib_itc_channel_t *>(cookie));
  const int rc = kro_dm_timer_register(dm, &timer, nullptr, nullptr);
  if (rc != 0) {
    ZEL_TRACE(lib_amdt, ZEL_TRACE_ERROR, rc, "kro_dm_timer_register (delete) failed\n");
    return rc;
  }
  return 0;
}

// When no timer can be had, the channel's own queue carries the clean-up: the record goes on
// the orphan list and its embedded wake message makes the handler run (a full queue makes it
// run anyway). The reference held meanwhile keeps the record if the handler is quicker.
void lib_itc_cleanup_fallback(lib_itc_channel_t *rec) {
  lib_itc_channel_ref(rec);
  lib_itc_orphan_add(rec);
  rec->wake.link = nullptr;
  kro_dm_watched_queue_enqueue(rec->queue, &rec->wake);
  lib_itc_channel_unref(rec);
}

// Schedules the clean-up of a closed channel's record. The record must not be touched once
// the timer is armed: the clean-up may already have run.
void lib_itc_queue_entry_destroy(lib_itc_channel_t *rec) {
  kro_dm_timer_t *timer = nullptr;
  int rc = kro_dm_timer_register(rec->dm, &timer, lib_itc_cleanup_timer_handler, rec);
  if (rc != 0) {
    ZEL_TRACE(lib_amdt, ZEL_TRACE_ERROR, rc, "kro_dm_timer_register failed\n");
    lib_itc_cleanup_fallback(rec);
    return;
  }
  const kro_dm_time_t now = {0, 0};
  rc = kro_dm_timer_settime(rec->dm, timer, &now);
  if (rc != 0) {
    ZEL_TRACE(lib_amdt, ZEL_TRACE_ERROR, rc, "kro_dm_timer_settime failed\n");
    kro_dm_timer_register(rec->dm, &timer, nullptr, nullptr);  // never armed: it can't run
    lib_itc_cleanup_fallback(rec);
  }
}

}  // namespace

extern "C" int lib_itc_close(uint32_t *handle) {
  if (handle == nullptr) {
    return LIB_ITC_EINVAL;
  }
  const uint32_t h = *handle;
  lib_name_service_t *service = lib_itc_name_service_get();
  if (service == nullptr || !lib_itc_handle_shaped(h)) {
    return LIB_ITC_EINVAL;
  }
  const bool server = lib_name_service_handle_slot(h) == 0;
  lib_itc_channel_t *rec = nullptr;
  lib_itc_notice notice(server ? lib_itc_notice::server_close : lib_itc_notice::client_close,
                        nullptr, h);
  {
    lib_lock lock(lib_itc_channel_mutex);
    rec = lib_itc_slot_record(service, h);
    if (rec == nullptr) {
      return LIB_ITC_EINVAL;
    }
    // The record leaves its slot, the peers are read and the binding is released in one
    // critical section: concurrent opens see either the channel with its record or neither.
    rec->closed.store(true, std::memory_order_release);
    notice.collect(lib_name_service_entry_of(service, h));
    lib_itc_release(service, h, rec);
  }
  notice.post();
  lib_itc_send_unpin_closed();  // a thread that closes what it sent to keeps nothing pinned
  lib_itc_queue_entry_destroy(rec);
  *handle = 0;
  return LIB_ITC_OK;
}
