// Hashed name functions: a name-keyed set and the id-name table, on the platform's intrusive
// hash sets. The callbacks always receive the start of an element (or of a key element of the
// same shape), whatever the set's link offset.
#include <zel/name_service.h>

#include <cstddef>
#include <cstring>

#include "lib/lib_internal.h"

namespace {

const kro_ext_hash_id_name_elem_t *kro_ext_hash_elem(const void *elem) {
  return static_cast<const kro_ext_hash_id_name_elem_t *>(elem);
}

// The names set: the bytes of the name, without its terminator.
uint32_t kro_ext_hash_name_hash(const void *elem) {
  const char *name = kro_ext_hash_elem(elem)->name;
  return kro_hash_calculate(name, strlen(name));
}

int kro_ext_hash_name_match(const void *member, const void *key) {
  return strcmp(kro_ext_hash_elem(member)->name, kro_ext_hash_elem(key)->name) == 0 ? 1 : 0;
}

// The ids set: the four bytes of the id as they lie in memory.
uint32_t kro_ext_hash_id_hash(const void *elem) {
  if (elem == nullptr) {
    return 0;
  }
  const uint32_t *id = &kro_ext_hash_elem(elem)->id;
  return kro_hash_calculate(id, sizeof *id);
}

int kro_ext_hash_id_match(const void *member, const void *key) {
  return kro_ext_hash_elem(member)->id == kro_ext_hash_elem(key)->id ? 1 : 0;
}

}  // namespace

extern "C" {

int kro_ext_hash_name_init(kro_hashset_t **set) {
  return kro_hashset_create(set, 0, 0, kro_ext_hash_name_hash, kro_ext_hash_name_match, 0);
}

void *kro_ext_hash_name_get(kro_hashset_t *const *set, const char *name) {
  if (set == nullptr || name == nullptr) {
    return nullptr;
  }
  kro_ext_hash_id_name_elem_t key{};
  key.name = name;
  return kro_hashset_get(*set, &key);
}

int kro_ext_hash_id_name_init(kro_ext_hash_id_name_t *table) {
  if (table == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  int rc = kro_ext_hash_name_init(&table->names);
  if (rc != 0) {
    return rc;
  }
  rc = kro_hashset_create(&table->ids, 0, offsetof(kro_ext_hash_id_name_elem_t, id_link),
                          kro_ext_hash_id_hash, kro_ext_hash_id_match, 0);
  if (rc != 0) {
    kro_hashset_free(&table->names);
    return rc;
  }
  table->next_id = 1;
  return 0;
}

int kro_ext_hash_id_name_insert(kro_ext_hash_id_name_t *table, kro_ext_hash_id_name_elem_t *elem) {
  if (table == nullptr || elem == nullptr || elem->name == nullptr) {
    return KRO_EXT_HASH_ID_NAME_REFUSED;
  }
  if (kro_ext_hash_name_get(&table->names, elem->name) != nullptr) {
    return 0;
  }
  // next_id wraps to 0 only after 2^32 - 1 insertions; ids are never reused, so the table is
  // full then.
  if (table->next_id == 0) {
    return KRO_EXT_HASH_ID_NAME_REFUSED;
  }
  kro_ext_hash_id_name_link(table, elem, table->next_id++);
  return 0;
}

kro_ext_hash_id_name_elem_t *kro_ext_hash_id_name_get_by_id(kro_ext_hash_id_name_t *table,
                                                            uint32_t id) {
  if (table == nullptr || id == 0) {
    return nullptr;
  }
  kro_ext_hash_id_name_elem_t key{};
  key.id = id;
  return static_cast<kro_ext_hash_id_name_elem_t *>(kro_hashset_get(table->ids, &key));
}

}  // extern "C"

void kro_ext_hash_id_name_link(kro_ext_hash_id_name_t *table, kro_ext_hash_id_name_elem_t *elem,
                               uint32_t id) {
  elem->id = id;
  kro_hashset_insert(table->names, elem);
  kro_hashset_insert(table->ids, elem);
}
