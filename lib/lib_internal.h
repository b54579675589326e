// Internals of lib/ shared by the name service and the inter-thread channels.
//
// The channels keep one process-wide name service and one process-wide channel mutex. Every
// channel operation first calls lib_itc_name_service_get(); once that has returned a service,
// the mutex is initialised and may be held with lib_lock. Every lookup, binding, release and slot
// store on the service happens under the mutex, which is never held across a platform queue or
// timer call or a user callback.
#ifndef ZEL_LIB_LIB_INTERNAL_H_
#define ZEL_LIB_LIB_INTERNAL_H_

#include <pthread.h>
#include <stdint.h>

#include <zel/name_service.h>

#include "lib/lib_mutex.h"

// Thread-local variables read on the channels' hot paths: the initial-exec model costs a load
// instead of a __tls_get_addr call, and the library needs only a few hundred bytes of static TLS.
#define LIB_ITC_TLS __attribute__((tls_model("initial-exec")))

// The entry of a handle's id (bits 16 to 31), or nullptr when the id is not bound. The caller
// serialises (for the channels: holds the channel mutex while it uses the entry).
inline lib_name_service_entry_t *lib_name_service_entry_of(lib_name_service_t *service,
                                                           uint32_t handle) {
  // The entry begins with its id-name header, so the element is the entry.
  return reinterpret_cast<lib_name_service_entry_t *>(
      kro_ext_hash_id_name_get_by_id(service, lib_name_service_handle_id(handle)));
}

// The address of the slot a handle names: the slot at the handle's low 8 bits of its id's
// entry. nullptr when the id is not bound or the slot lies at or above the entry's `used`. A
// binder stores its object through this address right after binding; readers load from it.
// Valid only while the caller's serialisation is held.
inline void **lib_name_service_slot(lib_name_service_t *service, uint32_t handle) {
  lib_name_service_entry_t *entry = lib_name_service_entry_of(service, handle);
  if (entry == nullptr) {
    return nullptr;
  }
  const uint32_t slot = lib_name_service_handle_slot(handle);
  return slot < entry->slots->used ? &entry->slots->data[slot] : nullptr;
}

// Links `elem` into both sets of an id-name table under the given id (the id-name insert's own
// last step). The caller has checked that no element of that name or id is linked.
void kro_ext_hash_id_name_link(kro_ext_hash_id_name_t *table, kro_ext_hash_id_name_elem_t *elem,
                               uint32_t id);

// Ids of released names, handed out again, oldest first, once the service's fresh ids (1 to
// LIB_NAME_SERVICE_MAX_ID) are used up: a process can bind and release names forever, and a
// just-released id is the last to come back. Room for every id ever handed out is reserved when
// a fresh id is, so that giving an id back never allocates. The service's serialisation guards
// it; ids that fit 16 bits, so 2 bytes each, 128 KiB at most.
struct lib_name_service_ids {
  uint16_t *ring;
  uint32_t cap;    // ids the ring can hold
  uint32_t head;   // the oldest
  uint32_t count;  // ids waiting
};

// lib_name_service_insert, for a service whose released ids go to `ids`: a new entry takes a
// fresh id while there are any, then the oldest waiting in `ids`. NULL (nothing changed) also
// when no room can be reserved in `ids` or every id is bound.
lib_name_service_entry_t *lib_name_service_insert_recycling(lib_name_service_t *service,
                                                            uint32_t *handle, const char *name,
                                                            int exclusive,
                                                            lib_name_service_ids *ids);

// Gives back the id of an entry that has been freed (by lib_name_service_remove).
void lib_name_service_ids_put(lib_name_service_ids *ids, uint32_t id);

// Frees an entry that holds no binding (owner slot not bound, no shared slot counted), unlinking
// it, and gives its id to `ids`. The name stays the binder's.
void lib_name_service_entry_drop(lib_name_service_t *service, lib_name_service_entry_t *entry,
                                 lib_name_service_ids *ids);

// Whether an entry holds no binding at all.
inline bool lib_name_service_entry_unbound(const lib_name_service_entry_t *entry) {
  return (entry->flags & LIB_NAME_SERVICE_OWNED) == 0 && entry->slots->count <= 1;
}

// The process-wide name service of the channels, created on the first call together with the
// channel mutex (kro_thread_mutex_init, NULL attributes). Concurrent first calls create exactly
// one service; the mutex is initialised exactly once. When the creation fails the call returns
// nullptr and leaves nothing allocated, and the next call tries again. Creation is serialised
// by a private, statically initialised mutex that is held only while creating, never together
// with the channel mutex; once a service exists the call is one atomic load. Any thread.
lib_name_service_t *lib_itc_name_service_get();

// The process-wide channel mutex. Initialised once lib_itc_name_service_get() has returned a
// service; it must not be locked before that.
extern lib_mutex lib_itc_channel_mutex;

// The ids the channels' released names gave back, for lib_name_service_insert_recycling on the
// process-wide service.
lib_name_service_ids *lib_itc_ids() ZEL_REQUIRES(lib_itc_channel_mutex);

#endif  // ZEL_LIB_LIB_INTERNAL_H_
