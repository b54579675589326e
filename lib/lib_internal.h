// Internals of lib/ shared by the name service and the inter-thread channels.
//
// The channels keep one process-wide name service and one process-wide channel mutex. Every
// channel operation first calls lib_itc_name_service_get(); once that has returned a service,
// the mutex is initialised and lib_itc_lock guards it. Every lookup, binding, release and slot
// store on the service happens under the mutex, which is never held across a platform queue or
// timer call or a user callback.
#ifndef ZEL_LIB_LIB_INTERNAL_H_
#define ZEL_LIB_LIB_INTERNAL_H_

#include <pthread.h>
#include <stdint.h>

#include <zel/name_service.h>

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

// Takes back a binding whose object was never stored (its slot still holds NULL), counting the
// reservation out exactly as a release of a filled slot would: an owner binding of a name with
// no shared slot counted frees the entry, an owner binding with shared slots clears
// LIB_NAME_SERVICE_OWNED, a shared binding frees its slot for reuse. For a slot that holds a
// value it is lib_name_service_remove. Unknown ids change nothing. The caller serialises.
void lib_name_service_unbind(lib_name_service_t *service, uint32_t handle);

// The process-wide name service of the channels, created on the first call together with the
// channel mutex (kro_thread_mutex_init, NULL attributes). Concurrent first calls create exactly
// one service; the mutex is initialised exactly once. When the creation fails the call returns
// nullptr and leaves nothing allocated, and the next call tries again. Creation is serialised
// by a private, statically initialised mutex that is held only while creating, never together
// with the channel mutex; once a service exists the call is one atomic load. Any thread.
lib_name_service_t *lib_itc_name_service_get();

// The process-wide channel mutex. Initialised once lib_itc_name_service_get() has returned a
// service; it must not be locked before that.
pthread_mutex_t *lib_itc_mutex();

// Holds the channel mutex for its scope. Construct only after lib_itc_name_service_get() has
// returned a service.
class lib_itc_lock {
 public:
  lib_itc_lock() : mutex_(lib_itc_mutex()) { pthread_mutex_lock(mutex_); }
  ~lib_itc_lock() { pthread_mutex_unlock(mutex_); }
  lib_itc_lock(const lib_itc_lock &) = delete;
  lib_itc_lock &operator=(const lib_itc_lock &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

#endif  // ZEL_LIB_LIB_INTERNAL_H_
