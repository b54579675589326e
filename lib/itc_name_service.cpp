// The channels' process-wide name service and channel mutex.
//
// Double-checked creation: a published service is read with one acquire load; callers that
// find none serialise on a private creation mutex, and the first of them creates. Unlike a
// once-control, a failed creation publishes nothing, so the next call tries again. The channel
// mutex is initialised by the first creation attempt that gets that far and never again, and
// it is initialised before the service is published, so every caller that sees the service
// also sees an initialised mutex.
#include <atomic>

#include <kro/thread.h>

#include "lib/lib_internal.h"

// Initialised by the first creation attempt through the platform's mutex init.
alignas(64) lib_mutex lib_itc_channel_mutex{lib_mutex::late};

namespace {

lib_mutex lib_itc_create_mutex;
bool lib_itc_channel_mutex_ready ZEL_GUARDED_BY(lib_itc_create_mutex) = false;
// On a cache line of its own: every channel operation reads the service pointer, and every lock
// and unlock writes the mutex; sharing a line would make readers miss on each write.
alignas(64) std::atomic<lib_name_service_t *> lib_itc_service{nullptr};
lib_name_service_ids lib_itc_released_ids ZEL_GUARDED_BY(lib_itc_channel_mutex){};

}  // namespace

lib_name_service_t *lib_itc_name_service_get() {
  lib_name_service_t *service = lib_itc_service.load(std::memory_order_acquire);
  if (service != nullptr) {
    return service;
  }
  const lib_lock lock(lib_itc_create_mutex);
  service = lib_itc_service.load(std::memory_order_relaxed);
  if (service == nullptr) {
    if (!lib_itc_channel_mutex_ready) {
      lib_itc_channel_mutex_ready =
          kro_thread_mutex_init(lib_itc_channel_mutex.native(), nullptr) == 0;
    }
    if (lib_itc_channel_mutex_ready) {
      service = lib_name_service_create();
      if (service != nullptr) {
        lib_itc_service.store(service, std::memory_order_release);
      }
    }
  }
  return service;
}

lib_name_service_ids *lib_itc_ids() {
  return &lib_itc_released_ids;
}
