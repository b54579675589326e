// Channel records: lookups, creation, references, the clean-up proper and the orphan list.
#include <cstdlib>
#include <cstring>
#include <new>

#include "lib/itc_internal.h"

namespace {

// Raised (under the channel mutex) each time a release frees a whole name entry, i.e. each
// time a name id stops being bound; ids are reused only after that. A thread that saw id X
// bound at count E knows X is still bound to the same entry while the count is E. 64 bits: it
// never wraps in a process's life, however fast names come and go.
alignas(64) std::atomic<uint64_t> lib_itc_unbind_count{0};  // read on hot paths: a line alone

// The last name entry this thread looked up: valid while the unbind count is unchanged.
struct lib_itc_bound_cache {
  uint32_t id;
  uint64_t unbinds;
  lib_name_service_entry_t *entry;
};
thread_local lib_itc_bound_cache lib_itc_bound_seen LIB_ITC_TLS = {0, 0, nullptr};
thread_local lib_itc_delivery lib_itc_delivering LIB_ITC_TLS = {0, nullptr};

// Closed records whose clean-up timer could not be created or armed, and how many there are
// (read without the mutex, so that handlers of closed channels skip the list when it is empty).
lib_itc_channel_t *lib_itc_orphans ZEL_GUARDED_BY(lib_itc_channel_mutex) = nullptr;
std::atomic<uint32_t> lib_itc_orphan_count{0};

// Drain callback of every channel queue: frees what a destroyed queue still holds.
void lib_itc_queue_drain(void *msg, void * /*arg*/) {
  lib_itc_msg_discard(static_cast<lib_itc_msg_hdr_t *>(msg));
}

}  // namespace

lib_itc_channel_t *lib_itc_slot_record(lib_name_service_t *service, uint32_t handle) {
  void **slot = lib_name_service_slot(service, handle);
  return slot != nullptr ? lib_itc_record_in(*slot) : nullptr;
}

lib_name_service_entry_t *lib_itc_entry(lib_name_service_t *service, uint32_t handle) {
  const uint32_t id = lib_name_service_handle_id(handle);
  lib_itc_bound_cache &seen = lib_itc_bound_seen;
  const uint64_t unbinds = lib_itc_unbind_count.load(std::memory_order_relaxed);
  if (id != 0 && seen.id == id && seen.unbinds == unbinds) {
    return seen.entry;  // no entry has been freed since it was looked up: still this one
  }
  lib_name_service_entry_t *entry = lib_name_service_entry_of(service, handle);
  if (entry != nullptr) {
    seen = {id, unbinds, entry};
  }
  return entry;
}

bool lib_itc_id_bound(lib_name_service_t *service, uint32_t handle) {
  const uint32_t id = lib_name_service_handle_id(handle);
  const lib_itc_bound_cache &seen = lib_itc_bound_seen;
  if (id != 0 && seen.id == id &&
      seen.unbinds == lib_itc_unbind_count.load(std::memory_order_acquire)) {
    return true;
  }
  lib_lock lock(lib_itc_channel_mutex);
  return lib_itc_entry(service, handle) != nullptr;
}

void lib_itc_release(lib_name_service_t *service, uint32_t handle, const lib_itc_channel_t *rec) {
  lib_name_service_remove(service, handle);
  lib_name_service_entry_t *entry = lib_name_service_entry_of(service, handle);
  if (entry == nullptr || lib_name_service_entry_unbound(entry)) {
    // The name's last binding went: the entry with it (the name service frees it itself only
    // when the owner slot goes last), and its id to the back of the queue of ids to reuse.
    if (entry != nullptr) {
      lib_name_service_entry_drop(service, entry, lib_itc_ids());
    } else {
      lib_name_service_ids_put(lib_itc_ids(), lib_name_service_handle_id(handle));
    }
    lib_itc_unbind_count.fetch_add(1, std::memory_order_release);
    return;
  }
  if (entry->header.name != rec->name) {
    return;
  }
  // The string the entry points at is the closing channel's, which its caller may free once
  // the close has returned: take the string of a channel that stays (every counted slot holds
  // a record, published or still opening).
  const lib_array_t *slots = entry->slots;
  for (uint32_t i = 0; i < slots->used; ++i) {
    if (const auto *other = static_cast<const lib_itc_channel_t *>(slots->data[i])) {
      entry->header.name = other->name;
      return;
    }
  }
}

lib_itc_channel_t *lib_itc_own_record(lib_name_service_t *service, uint32_t handle) {
  // Inside a callback its own handle means the channel being delivered, even when a reopened
  // channel has taken the same handle since a close: that one may belong to another thread.
  const lib_itc_delivery &d = lib_itc_delivering;
  if (d.rec != nullptr && d.handle == handle) {
    return d.rec->closed.load(std::memory_order_acquire) ? nullptr : d.rec;
  }
  lib_lock lock(lib_itc_channel_mutex);
  return lib_itc_slot_record(service, handle);
}

lib_itc_delivery lib_itc_delivery_swap(lib_itc_delivery next) {
  const lib_itc_delivery prev = lib_itc_delivering;
  lib_itc_delivering = next;
  return prev;
}

lib_itc_channel_t *lib_itc_channel_alloc(const char *name, const lib_itc_attr_t &attr, kro_dm_t *dm,
                                         lib_itc_callback_t callback, void *cookie) {
  const size_t name_size = strlen(name) + 1;
  void *mem = calloc(1, sizeof(lib_itc_channel_t) + name_size);
  if (mem == nullptr) {
    return nullptr;
  }
  auto *rec = new (mem) lib_itc_channel_t();
  memcpy(static_cast<char *>(mem) + sizeof(lib_itc_channel_t), name, name_size);
  rec->max_bytes = attr.max_bytes;
  rec->queue_len = attr.queue_len;
  rec->dm = dm;
  rec->callback = callback;
  rec->cookie = cookie;
  rec->name = name;
  rec->refs.store(1, std::memory_order_relaxed);
  rec->wake.type = lib_itc_msg_wake;
  return rec;
}

int lib_itc_channel_start(lib_itc_channel_t *rec, uint32_t handle) {
  kro_dm_watched_queue_attr_t qattr;
  kro_dm_watched_queue_attr_init(&qattr);
  // The channel holds data messages to queue_len itself; notifications must never be refused
  // for want of room, so the queue's own limit is the platform's largest. Out-of-range lengths
  // go to the platform as they are, which refuses them.
  const uint32_t len = rec->queue_len;
  qattr.max_len =
      len == 0 || len > KRO_DM_WATCHED_QUEUE_LEN_MAX ? len : KRO_DM_WATCHED_QUEUE_LEN_MAX;
  qattr.drain = lib_itc_queue_drain;
  const char *qname = reinterpret_cast<const char *>(rec) + sizeof(lib_itc_channel_t);
  int rc = kro_dm_watched_queue_create(qname, handle, &qattr, &rec->queue);
  if (rc != 0) {
    return rc;
  }
  // The handle itself is the cookie: the handler finds the record by it.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  void *cookie_handle = reinterpret_cast<void *>(static_cast<uintptr_t>(handle));
  rc = kro_dm_watched_queue_register(rec->dm, rec->queue, lib_itc_queue_handler, cookie_handle);
  if (rc != 0) {
    kro_dm_watched_queue_destroy(&rec->queue);
  }
  return rc;
}

void lib_itc_channel_free(lib_itc_channel_t *rec) {
  rec->~lib_itc_channel_t();
  free(rec);
}

void lib_itc_channel_unref(lib_itc_channel_t *rec) {
  if (rec->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  // The queue is unregistered (see the lifetime rules), so destroy drains it and can only fail
  // on a queue that is already gone; the record is then kept rather than freed under a queue.
  if (kro_dm_watched_queue_destroy(&rec->queue) == 0) {
    lib_itc_channel_free(rec);
  }
}

int lib_itc_channel_retire(lib_itc_channel_t *rec) {
  const int rc = kro_dm_watched_queue_deregister(rec->dm, rec->queue);
  if (rc != 0) {
    return rc;
  }
  if (rec->pending != nullptr) {
    lib_itc_msg_discard(rec->pending);
    rec->pending = nullptr;
  }
  if (rec->current != nullptr) {
    lib_itc_msg_discard(rec->current);
    rec->current = nullptr;
  }
  // What is still queued goes now, not with the last reference: a sender may keep the record
  // pinned for long. Sends from now on are refused by the deregistered queue.
  lib_itc_queue_discard_all(rec->queue);
  lib_itc_channel_unref(rec);
  return 0;
}

void lib_itc_msg_discard(lib_itc_msg_hdr_t *msg) {
  if (msg->type != lib_itc_msg_wake) {
    lib_itc_block_release(msg);
  }
}

void lib_itc_orphan_add(lib_itc_channel_t *rec) {
  lib_lock lock(lib_itc_channel_mutex);
  rec->orphan_next = lib_itc_orphans;
  lib_itc_orphans = rec;
  lib_itc_orphan_count.fetch_add(1, std::memory_order_release);
}

void lib_itc_queue_discard_all(kro_dm_watched_queue_t *queue) {
  void *msg = nullptr;
  while (kro_dm_watched_queue_dequeue(queue, &msg) == 0) {
    lib_itc_msg_discard(static_cast<lib_itc_msg_hdr_t *>(msg));
  }
}

void lib_itc_queue_closed_drain(kro_dm_watched_queue_t *queue) {
  lib_itc_queue_discard_all(queue);
  if (lib_itc_orphan_count.load(std::memory_order_acquire) == 0) {
    return;
  }
  lib_itc_channel_t *found = nullptr;
  {
    lib_lock lock(lib_itc_channel_mutex);
    for (lib_itc_channel_t **p = &lib_itc_orphans; *p != nullptr; p = &(*p)->orphan_next) {
      if ((*p)->queue == queue) {
        found = *p;
        *p = found->orphan_next;
        found->orphan_next = nullptr;
        lib_itc_orphan_count.fetch_sub(1, std::memory_order_relaxed);
        break;
      }
    }
  }
  if (found != nullptr) {
    lib_itc_channel_retire(found);
  }
}

void lib_itc_wake_requeue(lib_itc_channel_t *rec, lib_itc_msg_hdr_t *msg) {
  // A failure means the queue is full, so the handler runs anyway and finds the orphan.
  kro_dm_watched_queue_enqueue(rec->queue, msg);
}
