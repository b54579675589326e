// lib_itc_open: bind the name, create and register the queue, publish the record, tell the
// peers.
#include "lib/itc_internal.h"

namespace {

constexpr lib_itc_attr_t lib_itc_attr_default = {0, LIB_ITC_DEFAULT_QUEUE_LEN,
                                                 LIB_ITC_DEFAULT_MAX_BYTES};

// Takes back a binding whose record was never stored.
void lib_itc_open_unbind(lib_name_service_t *service, uint32_t handle) {
  lib_itc_lock lock;
  lib_name_service_unbind(service, handle);
  lib_itc_note_release(service, handle);
}

}  // namespace

extern "C" uint32_t lib_itc_open(uint32_t *handle, const char *name, int32_t role,
                                 const lib_itc_attr_t *attr, kro_dm_t *dm,
                                 lib_itc_callback_t callback, void *cookie) {
  // The name service comes first, so that even a rejected call creates it.
  lib_name_service_t *service = lib_itc_name_service_get();
  if (handle == nullptr) {
    return LIB_ITC_EINVAL;
  }
  if (service == nullptr) {
    return LIB_ITC_ENOMEM;
  }
  if (name == nullptr || dm == nullptr || callback == nullptr) {
    return LIB_ITC_EINVAL;
  }
  const lib_itc_attr_t &a = attr != nullptr ? *attr : lib_itc_attr_default;
  const bool server = role == LIB_ITC_SERVER;

  uint32_t h = 0;
  {
    lib_itc_lock lock;
    if (lib_name_service_insert(service, &h, name, server ? 1 : 0) == nullptr) {
      return LIB_ITC_EBUSY;
    }
    *lib_name_service_slot(service, h) = lib_itc_slot_reserved();
  }
  // Until the record is stored the slot holds the reservation mark: lookups treat it as an
  // unknown handle, the notification loops of concurrent opens and closes skip it, and no
  // concurrent binding takes it.
  lib_itc_channel_t *rec = nullptr;
  const int rc = lib_itc_channel_create(name, h, a, dm, callback, cookie, &rec);
  if (rc != 0) {
    lib_itc_open_unbind(service, h);
    return static_cast<uint32_t>(rc);
  }

  lib_itc_notice notice(server ? lib_itc_notice::server_open : lib_itc_notice::client_open, rec, h);
  {
    lib_itc_lock lock;
    *lib_name_service_slot(service, h) = rec;
    notice.collect(lib_name_service_entry_of(service, h));
  }
  notice.post();
  *handle = h;
  return LIB_ITC_OK;
}
