/* Hashed name tables and the name service.
 *
 * Hashed name functions (kro_ext_hash_*), built on the platform's intrusive hash sets:
 * - a name set: elements keyed by their `name` string (exact, case-sensitive);
 * - an id-name table: every element is linked into two sets at once, `names` keyed by the
 *   element's name and `ids` keyed by a 32-bit id that the table assigns on insert (1, 2, 3,
 *   ...; never reused).
 * Elements belong to the caller and begin with kro_ext_hash_id_name_elem_t (a bare name set's
 * elements need only its first two fields, `name_link` and `name`). Names are referred to,
 * never copied: a name must stay valid while its element is linked.
 *
 * The name service (lib_name_service_*) is an id-name table whose elements are
 * lib_name_service_entry_t: a name with slots. Binding a name takes either its single owner
 * slot (slot 0) or one of its shared slots (1 to 255) and yields a 32-bit handle: the entry's
 * id in bits 16 to 31, the slot index in bits 0 to 15 (always below 256, so bits 8 to 15 are
 * 0). The binder stores its object in `data[slot]` of the entry's `slots`, and finds it again
 * from the handle alone: kro_ext_hash_id_name_get_by_id(service, handle >> 16), then
 * `slots->data[handle & 0xFF]` (when that index is below `slots->used`).
 *
 * Binding rules:
 * - The first binding of a name, of either kind, creates its entry with the next id and
 *   reserves slot 0 (counted in `slots->count`) whether or not an owner ever binds.
 * - An exclusive binding takes slot 0 unless the name already has an owner.
 * - A shared binding takes the first slot from 1 up that holds NULL, else a new slot at the
 *   end. A reserved slot still holds NULL, so the binder must store its (non-NULL) object
 *   before the next binding of the same name, under the same serialisation.
 * - Releasing the owner slot while shared slots are counted clears LIB_NAME_SERVICE_OWNED and
 *   keeps the entry, its id and its shared slots; slot 0 is emptied and stays reserved, so a
 *   later owner can bind it again. Releasing the owner slot while no shared slot is counted
 *   unlinks and frees the entry; binding the name again creates a new entry with a new id.
 * - Releasing a shared slot empties it for reuse and keeps the entry, even when it was the last
 *   one and the owner has gone: a later binding of either kind reuses that entry.
 * - A release counts a slot out only when it held a non-NULL value: release a slot after
 *   storing a non-NULL object in it.
 *
 * Limits, each refused with NULL and nothing changed:
 * - a name has at most 256 slots: a shared binding of a name whose shared slots 1 to 255 are
 *   all taken is refused (a slot index of 256 or more would not survive the 8-bit slot
 *   lookup);
 * - a service hands out the ids 1 to 65535 over its life (ids are never reused and must fit
 *   the handle's 16 bits): once they are used up, a binding that would create a new entry is
 *   refused, while names that still have entries can still be bound.
 *
 * Threads: nothing here locks. The caller serialises every call on a table or service, and
 * every read or store of its slots; an entry pointer stays valid only while that serialisation
 * is held, or while the caller knows the owner slot won't be released.
 *
 * Memory: only calloc, malloc, realloc and free. A table or service has no destroy operation.
 */
#ifndef ZEL_NAME_SERVICE_H_
#define ZEL_NAME_SERVICE_H_

#include <stdint.h>

#include <kro/hashset.h>
#include <zel/array.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

/* The id-name table. */
typedef struct kro_ext_hash_id_name {
  kro_hashset_t *names; /* elements keyed by `name`; first, so the table's address is also
                           the address of a name set handle */
  kro_hashset_t *ids;   /* elements keyed by `id` */
  uint32_t next_id;     /* id of the next inserted element; 1 after init, only ever raised */
} kro_ext_hash_id_name_t;

/* The header every element of an id-name table begins with. */
typedef struct kro_ext_hash_id_name_elem {
  kro_hashset_link_t name_link; /* link of the `names` set (link offset 0) */
  const char *name;             /* the caller's NUL-terminated string, never copied */
  kro_hashset_link_t id_link;   /* link of the `ids` set */
  uint32_t id;                  /* assigned by kro_ext_hash_id_name_insert */
} kro_ext_hash_id_name_elem_t;

/* Bit 0 of an entry's `flags`: the owner slot is bound. */
#define LIB_NAME_SERVICE_OWNED 1u

/* kro_ext_hash_id_name_insert's refusal. */
#define KRO_EXT_HASH_ID_NAME_REFUSED 1

/* Slots of one name: the owner slot 0 and the shared slots 1 to 255. */
#define LIB_NAME_SERVICE_MAX_SLOTS 256u
/* Largest id a handle can carry; a service never hands out more. */
#define LIB_NAME_SERVICE_MAX_ID 65535u

/* Builds a handle from an id and a slot, and takes one apart (the slot as every lookup reads
 * it: the low 8 bits). */
static inline uint32_t lib_name_service_handle_make(uint32_t id, uint32_t slot) {
  return (id << 16) | (slot & 0xFFFFu);
}
static inline uint32_t lib_name_service_handle_id(uint32_t handle) {
  return handle >> 16;
}
static inline uint32_t lib_name_service_handle_slot(uint32_t handle) {
  return handle & 0xFFu;
}

/* The element of a name service. */
typedef struct lib_name_service_entry {
  kro_ext_hash_id_name_elem_t header; /* `name` is the pointer given by the creating binding */
  uint8_t flags;                      /* LIB_NAME_SERVICE_OWNED */
  lib_array_t *slots; /* sparse pointer array (capacity 3, increment 3, empty NULL); slot 0
                         is the owner slot, 1 and up are shared slots */
} lib_name_service_entry_t;

/* A name service is an id-name table of lib_name_service_entry_t. It owns its entries, their
 * slot arrays and the table block; names belong to the binders. */
typedef kro_ext_hash_id_name_t lib_name_service_t;

/* Creates an empty name set into *set (elements keyed by the string at offset
 * sizeof(kro_hashset_link_t), linked at offset 0).
 * Returns kro_hashset_create's result: 0 with *set filled; otherwise the platform's code
 * (KRO_HASHSET_EINVAL for a NULL address, KRO_HASHSET_ENOMEM) with *set untouched and nothing
 * allocated. Any thread. */
ZEL_API int kro_ext_hash_name_init(kro_hashset_t **set);

/* Looks a name up in a name set; `set` is the address of the set's handle (for an id-name
 * table, &table->names, which is the table's own address).
 * Returns the element whose name equals `name` (strcmp), or NULL; NULL also for a NULL `set`,
 * a NULL handle or a NULL name. Changes nothing. The caller serialises. */
ZEL_API void *kro_ext_hash_name_get(kro_hashset_t *const *set, const char *name);

/* Initialises a caller-allocated id-name table: both sets created, `next_id` 1.
 * Returns 0; KRO_HASHSET_EINVAL for a NULL table; otherwise the platform's failure code, with
 * nothing left allocated (a `names` set already made is freed again). Any thread. */
ZEL_API int kro_ext_hash_id_name_init(kro_ext_hash_id_name_t *table);

/* Inserts an element whose `name` is set. When no element of that name is linked, the element
 * gets `id` = `next_id`, `next_id` is raised, and the element is linked into `names` and then
 * `ids`. When an element of that name is already linked, nothing is inserted and `id` is left
 * alone, and the result is still 0.
 * Returns 0; KRO_EXT_HASH_ID_NAME_REFUSED for a NULL table, element or element name, or when
 * the table's 32-bit ids are used up (nothing changed then). The caller serialises; the element
 * stays the caller's and must stay in place while linked. */
ZEL_API int kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *table,
                                        kro_ext_hash_id_name_elem_t *elem);

/* Returns the linked element with that id, or NULL; NULL also for a NULL table or id 0 (the
 * sets are then not consulted). Changes nothing. The caller serialises. */
ZEL_API kro_ext_hash_id_name_elem_t *kro_ext_hash_id_name_get_by_id(kro_ext_hash_id_name_t *table,
                                                                    uint32_t id);

/* Creates an empty name service.
 * Returns the service, owned by the caller and never destroyed; NULL when memory or a set
 * can't be had (nothing left allocated). Any thread. */
ZEL_API lib_name_service_t *lib_name_service_create(void);

/* Binds `name`: its owner slot when `exclusive` is non-zero, else a shared slot (see the
 * binding rules above). `name` is kept by reference when the binding creates the entry.
 * Returns the name's entry with the handle written to *handle; NULL with *handle untouched
 * and nothing changed for a NULL service, handle address or name, an exclusive binding of a
 * name that has an owner, a name with no free shared slot, used-up ids, or memory that can't
 * be had. The caller serialises. */
ZEL_API lib_name_service_entry_t *lib_name_service_insert(lib_name_service_t *service,
                                                          uint32_t *handle, const char *name,
                                                          int exclusive);

/* Releases the binding of `handle` (its slot is the low 8 bits; bits 8 to 15 are ignored).
 * Returns the value the slot held (NULL for a slot at or above `used`), after emptying the
 * slot or, for the owner slot of a name with no shared slot counted, freeing the whole entry
 * (the name string is not freed). Returns NULL and changes nothing for a NULL service or an
 * unknown id. The caller serialises. */
ZEL_API void *lib_name_service_remove(lib_name_service_t *service, uint32_t handle);

ZEL_END_DECLS

#endif /* ZEL_NAME_SERVICE_H_ */
