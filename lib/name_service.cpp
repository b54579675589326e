// The name service: an id-name table of names with an owner slot and shared slots, handing
// out 32-bit handles of id and slot.
//
// Slot accounting: slot 0 is reserved (counted) for the whole life of an entry, so `count` is
// 1 plus the number of counted shared slots, and "count is 1 or less" means "no shared slot
// is bound". A release that finds the slot empty counts nothing out.
#include <zel/name_service.h>

#include <cstdlib>

#include "lib/lib_internal.h"

namespace {

constexpr uint16_t lib_name_service_slots_capacity = 3;
constexpr uint16_t lib_name_service_slots_increment = 3;

lib_name_service_entry_t *lib_name_service_entry_cast(void *elem) {
  return static_cast<lib_name_service_entry_t *>(elem);
}

void lib_name_service_entry_free(lib_name_service_entry_t *entry) {
  if (entry->slots != nullptr) {
    free(entry->slots->data);
    free(entry->slots);
  }
  free(entry);
}

// Unlinks an entry from both sets and frees it with its slots; the name stays the binder's.
void lib_name_service_entry_release(lib_name_service_t *service, lib_name_service_entry_t *entry) {
  kro_hashset_remove(service->ids, entry);
  kro_hashset_remove(service->names, entry);
  lib_name_service_entry_free(entry);
}

// Makes room in `ids` for every id up to `id`, so that any of them can be given back without an
// allocation. Fresh ids are handed out before any is taken back, so the ring is still unwrapped
// (head 0) whenever it grows.
bool lib_name_service_ids_reserve(lib_name_service_ids *ids, uint32_t id) {
  if (id <= ids->cap) {
    return true;
  }
  uint32_t cap = ids->cap < 64 ? 64 : ids->cap * 2;
  cap = cap < id ? id : cap;
  cap = cap > LIB_NAME_SERVICE_MAX_ID ? LIB_NAME_SERVICE_MAX_ID : cap;
  void *ring = realloc(ids->ring, cap * sizeof *ids->ring);
  if (ring == nullptr) {
    return false;
  }
  ids->ring = static_cast<uint16_t *>(ring);
  ids->cap = cap;
  return true;
}

// Creates, numbers and links the entry of an unbound name, with slot 0 reserved. Its id is a
// fresh one while any are left, else (with `ids`) the oldest given back. nullptr, with nothing
// allocated and nothing linked, when memory can't be had or no id is free.
lib_name_service_entry_t *lib_name_service_entry_create(lib_name_service_t *service,
                                                        const char *name,
                                                        lib_name_service_ids *ids) {
  const bool fresh = service->next_id != 0 && service->next_id <= LIB_NAME_SERVICE_MAX_ID;
  if (fresh ? ids != nullptr && !lib_name_service_ids_reserve(ids, service->next_id)
            : ids == nullptr || ids->count == 0) {
    return nullptr;
  }
  auto *entry =
      static_cast<lib_name_service_entry_t *>(calloc(1, sizeof(lib_name_service_entry_t)));
  if (entry == nullptr) {
    return nullptr;
  }
  entry->header.name = name;
  entry->slots = lib_array_pointers_create(
      lib_name_service_slots_capacity, lib_name_service_slots_increment, LIB_ARRAY_SPARSE, nullptr);
  // The reservation of slot 0 is made before the entry is linked, so that every failure
  // below leaves nothing to unlink. The id-name insert links both sets or neither; an id left
  // at 0 means it did not insert.
  if (entry->slots == nullptr || lib_array_pointers_append(entry->slots, nullptr) != 0) {
    lib_name_service_entry_free(entry);
    return nullptr;
  }
  if (!fresh) {
    kro_ext_hash_id_name_link(service, &entry->header, ids->ring[ids->head]);
    ids->head = ids->head + 1 == ids->cap ? 0 : ids->head + 1;
    --ids->count;
  } else if (kro_ext_hash_id_name_insert(service, &entry->header) != 0 || entry->header.id == 0) {
    lib_name_service_entry_free(entry);
    return nullptr;
  }
  return entry;
}

// The slot a shared binding takes: the first hole from slot 1 up, else `used` (a new slot).
// -1 when there is no hole and a new slot would lie beyond the 8-bit slot range.
int32_t lib_name_service_shared_slot(const lib_array_t *slots) {
  for (uint16_t i = 1; i < slots->used; ++i) {
    if (slots->data[i] == nullptr) {
      return i;
    }
  }
  return slots->used < LIB_NAME_SERVICE_MAX_SLOTS ? slots->used : -1;
}

lib_name_service_entry_t *lib_name_service_bind(lib_name_service_t *service, uint32_t *handle,
                                                const char *name, int exclusive,
                                                lib_name_service_ids *ids) {
  if (service == nullptr || handle == nullptr || name == nullptr) {
    return nullptr;
  }
  lib_name_service_entry_t *entry =
      lib_name_service_entry_cast(kro_ext_hash_name_get(&service->names, name));
  const bool created = entry == nullptr;
  if (created) {
    entry = lib_name_service_entry_create(service, name, ids);
    if (entry == nullptr) {
      return nullptr;
    }
  }
  const uint32_t id = entry->header.id;
  if (exclusive != 0) {
    if ((entry->flags & LIB_NAME_SERVICE_OWNED) != 0) {
      return nullptr;
    }
    entry->flags |= LIB_NAME_SERVICE_OWNED;
    *handle = lib_name_service_handle_make(id, 0);
    return entry;
  }
  const int32_t wanted = lib_name_service_shared_slot(entry->slots);
  const int32_t slot = wanted < 0 ? -1 : lib_array_pointers_insert(entry->slots, nullptr, wanted);
  if (slot < 1) {
    // Only an existing entry can run out of slots (a fresh one has room for slot 1); an entry
    // made by this call is released all the same rather than left with no binding.
    if (created) {
      lib_name_service_entry_release(service, entry);
      if (ids != nullptr) {
        lib_name_service_ids_put(ids, id);
      }
    }
    return nullptr;
  }
  *handle = lib_name_service_handle_make(id, slot);
  return entry;
}

}  // namespace

extern "C" {

lib_name_service_t *lib_name_service_create(void) {
  auto *service = static_cast<lib_name_service_t *>(calloc(1, sizeof(lib_name_service_t)));
  if (service == nullptr) {
    return nullptr;
  }
  if (kro_ext_hash_id_name_init(service) != 0) {
    free(service);
    return nullptr;
  }
  return service;
}

lib_name_service_entry_t *lib_name_service_insert(lib_name_service_t *service, uint32_t *handle,
                                                  const char *name, int exclusive) {
  return lib_name_service_bind(service, handle, name, exclusive, nullptr);
}

void *lib_name_service_remove(lib_name_service_t *service, uint32_t handle) {
  if (service == nullptr) {
    return nullptr;
  }
  lib_name_service_entry_t *entry = lib_name_service_entry_of(service, handle);
  if (entry == nullptr) {
    return nullptr;
  }
  lib_array_t *slots = entry->slots;
  const uint32_t slot = lib_name_service_handle_slot(handle);
  void *const value = slot < slots->used ? slots->data[slot] : nullptr;
  if (slot != 0) {
    lib_array_pointers_remove(slots, static_cast<int32_t>(slot));
    return value;
  }
  if (slots->count <= 1) {
    lib_name_service_entry_release(service, entry);
    return value;
  }
  entry->flags &= static_cast<uint8_t>(~LIB_NAME_SERVICE_OWNED);
  // Emptying slot 0 counts its value out; reserving it again keeps the entry's accounting (one
  // count for slot 0), so that the entry is released only when no shared slot is left.
  if (lib_array_pointers_remove(slots, 0) != nullptr) {
    lib_array_pointers_insert(slots, nullptr, 0);
  }
  return value;
}

}  // extern "C"

lib_name_service_entry_t *lib_name_service_insert_recycling(lib_name_service_t *service,
                                                            uint32_t *handle, const char *name,
                                                            int exclusive,
                                                            lib_name_service_ids *ids) {
  return lib_name_service_bind(service, handle, name, exclusive, ids);
}

void lib_name_service_ids_put(lib_name_service_ids *ids, uint32_t id) {
  // Room was reserved when the id was handed out fresh: the ring holds every id ever handed out.
  uint32_t tail = ids->head + ids->count;
  tail = tail >= ids->cap ? tail - ids->cap : tail;
  ids->ring[tail] = static_cast<uint16_t>(id);
  ++ids->count;
}

void lib_name_service_entry_drop(lib_name_service_t *service, lib_name_service_entry_t *entry,
                                 lib_name_service_ids *ids) {
  const uint32_t id = entry->header.id;
  lib_name_service_entry_release(service, entry);
  lib_name_service_ids_put(ids, id);
}
