// lib_itc_open: bind the name with the record in its slot, create and register the queue,
// publish the record, tell the peers.
#include "lib/itc_internal.h"

namespace {

constexpr lib_itc_attr_t lib_itc_attr_default = {0, LIB_ITC_DEFAULT_QUEUE_LEN,
                                                 LIB_ITC_DEFAULT_MAX_BYTES};

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
  const bool server = role == LIB_ITC_SERVER;
  lib_itc_channel_t *rec = lib_itc_channel_alloc(
      name, attr != nullptr ? *attr : lib_itc_attr_default, dm, callback, cookie);
  if (rec == nullptr) {
    return LIB_ITC_ENOMEM;
  }
  uint32_t h = 0;
  {
    lib_lock lock(lib_itc_channel_mutex);
    if (lib_name_service_insert_recycling(service, &h, name, server ? 1 : 0, lib_itc_ids()) ==
        nullptr) {
      lib_itc_channel_free(rec);
      return LIB_ITC_EBUSY;
    }
    // Until it is published the record is in its slot for the name service only: lookups take
    // it for an unknown handle, the notification loops of concurrent opens and closes skip it,
    // and no concurrent binding takes the slot.
    *lib_name_service_slot(service, h) = rec;
  }
  const int rc = lib_itc_channel_start(rec, h);
  if (rc != 0) {
    {
      lib_lock lock(lib_itc_channel_mutex);
      lib_itc_release(service, h, rec);
    }
    lib_itc_channel_free(rec);
    return static_cast<uint32_t>(rc);
  }

  lib_itc_notice notice(server ? lib_itc_notice::server_open : lib_itc_notice::client_open, rec, h);
  {
    lib_lock lock(lib_itc_channel_mutex);
    rec->published = true;
    notice.collect(lib_name_service_entry_of(service, h));
  }
  notice.post();
  *handle = h;
  return LIB_ITC_OK;
}
