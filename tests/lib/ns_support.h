// Test helpers for name services, which have no destroy operation of their own.
#ifndef ZEL_TESTS_LIB_NS_SUPPORT_H_
#define ZEL_TESTS_LIB_NS_SUPPORT_H_

#include <zel/name_service.h>

#include <cstdlib>

namespace ns_test {

inline lib_name_service_entry_t *entry_of(lib_name_service_t *svc, const char *name) {
  return static_cast<lib_name_service_entry_t *>(kro_ext_hash_name_get(&svc->names, name));
}

// Unlinks and frees every entry with its slots, then both sets and the table block.
inline void destroy(lib_name_service_t *svc) {
  for (void *e; svc != nullptr && (e = kro_hashset_first(svc->names)) != nullptr;) {
    auto *entry = static_cast<lib_name_service_entry_t *>(e);
    kro_hashset_remove(svc->names, e);
    kro_hashset_remove(svc->ids, e);
    free(entry->slots->data);
    free(entry->slots);
    free(entry);
  }
  if (svc != nullptr) {
    kro_hashset_free(&svc->names);
    kro_hashset_free(&svc->ids);
  }
  free(svc);
}

}  // namespace ns_test

#endif  // ZEL_TESTS_LIB_NS_SUPPORT_H_
