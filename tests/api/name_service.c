/* The name-service header from C: bind, find by handle, release, through the shared library. */
#include <stdlib.h>

#include <zel/name_service.h>

int main(void) {
  lib_name_service_t *svc = lib_name_service_create();
  uint32_t owner = 0, shared = 0;
  lib_name_service_entry_t *e;
  kro_ext_hash_id_name_elem_t *found;
  static int object;
  if (svc == NULL) {
    return 1;
  }
  e = lib_name_service_insert(svc, &owner, "svc", 1);
  if (e == NULL || owner != lib_name_service_handle_make(1, 0) ||
      lib_name_service_insert(svc, &shared, "svc", 0) != e || shared != 0x10001u) {
    return 1;
  }
  e->slots->data[lib_name_service_handle_slot(shared)] = &object;
  found = kro_ext_hash_id_name_get_by_id(svc, lib_name_service_handle_id(shared));
  if (found != &e->header || kro_ext_hash_name_get(&svc->names, "svc") != e) {
    return 1;
  }
  if (lib_name_service_remove(svc, shared) != &object ||
      lib_name_service_remove(svc, owner) != NULL) {
    return 1;
  }
  if (kro_ext_hash_name_get(&svc->names, "svc") != NULL) {
    return 1;
  }
  /* No destroy operation: an owner that is done with an empty service frees its sets and block. */
  kro_hashset_free(&svc->names);
  kro_hashset_free(&svc->ids);
  free(svc);
  return 0;
}
