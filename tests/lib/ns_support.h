// Test helpers for name services, which have no destroy operation of their own.
#ifndef ZEL_TESTS_LIB_NS_SUPPORT_H_
#define ZEL_TESTS_LIB_NS_SUPPORT_H_

#include <zel/name_service.h>

#include <cstdlib>
#include <vector>

namespace ns_test {

inline lib_name_service_entry_t *entry_of(lib_name_service_t *svc, const char *name) {
  return static_cast<lib_name_service_entry_t *>(kro_ext_hash_name_get(&svc->names, name));
}

// Frees every entry with its slots, both sets and the table block.
inline void destroy(lib_name_service_t *svc) {
  if (svc == nullptr) {
    return;
  }
  std::vector<lib_name_service_entry_t *> entries;
  for (void *e = kro_hashset_first(svc->names); e != nullptr; e = kro_hashset_next(svc->names, e)) {
    entries.push_back(static_cast<lib_name_service_entry_t *>(e));
  }
  for (lib_name_service_entry_t *e : entries) {
    free(e->slots->data);
    free(e->slots);
    free(e);
  }
  kro_hashset_free(&svc->names);
  kro_hashset_free(&svc->ids);
  free(svc);
}

}  // namespace ns_test

#endif  // ZEL_TESTS_LIB_NS_SUPPORT_H_
