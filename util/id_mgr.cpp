// ID manager: a wrapping 32-bit counter whose ids are bound to caller contexts in a platform
// hash set. No locking: the caller serialises every call on one manager.
#include <zel/id_mgr.h>

#include <cstddef>
#include <cstdlib>

namespace {

// Hash of a binding (or of a lookup key): the 4 bytes of its id as they lie in memory.
uint32_t id_mgr_hash(const void *elem) {
  if (elem == nullptr) {
    return 0;
  }
  const auto *entry = static_cast<const zel_id_mgr_entry_t *>(elem);
  return kro_hash_calculate(&entry->id, sizeof entry->id);
}

// 1 when the two ids are equal (or either entry is NULL), else 0.
int id_mgr_match(const void *member, const void *key) {
  if (member == nullptr || key == nullptr) {
    return 1;
  }
  return static_cast<const zel_id_mgr_entry_t *>(member)->id ==
                 static_cast<const zel_id_mgr_entry_t *>(key)->id
             ? 1
             : 0;
}

// The newest binding of `id`, or NULL. The key lives on the stack with only its id filled in.
zel_id_mgr_entry_t *zel_id_mgr_find(const zel_id_mgr_t *mgr, uint32_t id) {
  zel_id_mgr_entry_t key{};
  key.id = id;
  return static_cast<zel_id_mgr_entry_t *>(kro_hashset_get(mgr->set, &key));
}

bool zel_id_mgr_probing(const zel_id_mgr_t *mgr) {
  constexpr unsigned both = ZEL_ID_MGR_F_CHECK_IN_USE | ZEL_ID_MGR_F_WRAPPED;
  return (mgr->flags & both) == both;
}

}  // namespace

extern "C" {

int32_t zel_id_mgr_init(zel_id_mgr_t *mgr) {
  if (mgr == nullptr) {
    return ZEL_ID_MGR_ERROR;
  }
  // The set chains entries through their leading link (offset 0); it fills mgr->set only on
  // success.
  static_assert(offsetof(zel_id_mgr_entry_t, link) == 0, "the link leads the entry");
  if (kro_hashset_create(&mgr->set, 0, 0, id_mgr_hash, id_mgr_match, 0) != KRO_HASHSET_OK) {
    return ZEL_ID_MGR_ERROR;
  }
  mgr->next_id = 1;
  mgr->flags = 0;
  return ZEL_ID_MGR_OK;
}

int32_t zel_id_mgr_xinit(zel_id_mgr_t *mgr, uint16_t flags) {
  const int32_t rc = zel_id_mgr_init(mgr);
  if (rc == ZEL_ID_MGR_OK) {
    mgr->flags = static_cast<uint16_t>(mgr->flags | flags);
  }
  return rc;
}

void zel_id_mgr_cleanup(zel_id_mgr_t *mgr) {
  if (mgr == nullptr || mgr->set == nullptr) {
    return;
  }
  // The set may not change during a walk and never frees its elements, so the walk only
  // threads the entries into a list through their ctx field (no longer needed); the entries
  // are freed once the set is gone. No allocation, one pass over the set.
  zel_id_mgr_entry_t *doomed = nullptr;
  for (void *e = kro_hashset_first(mgr->set); e != nullptr; e = kro_hashset_next(mgr->set, e)) {
    auto *entry = static_cast<zel_id_mgr_entry_t *>(e);
    entry->ctx = doomed;
    doomed = entry;
  }
  kro_hashset_free(&mgr->set);
  while (doomed != nullptr) {
    zel_id_mgr_entry_t *next = static_cast<zel_id_mgr_entry_t *>(doomed->ctx);
    free(doomed);
    doomed = next;
  }
}

int32_t zel_id_mgr_get_id(zel_id_mgr_t *mgr, void *ctx, uint32_t *id) {
  if (mgr == nullptr || ctx == nullptr || id == nullptr || mgr->set == nullptr) {
    return ZEL_ID_MGR_ERROR;
  }
  uint32_t candidate = mgr->next_id;
  if (candidate == 0) {
    mgr->flags = static_cast<uint16_t>(mgr->flags | ZEL_ID_MGR_F_WRAPPED);
    candidate = 1;
  }
  mgr->next_id = candidate + 1;  // unsigned: 0xFFFFFFFF + 1 is 0, the wrap marker
  if (zel_id_mgr_probing(mgr)) {
    while (zel_id_mgr_find(mgr, candidate) != nullptr) {
      candidate = mgr->next_id++;
      if (candidate == 0) {
        // Ran past 0xFFFFFFFF while probing; next_id now stands at 1.
        *id = ZEL_ID_MGR_NO_ID;
        return ZEL_ID_MGR_ERROR;
      }
    }
  }
  *id = candidate;
  auto *entry = static_cast<zel_id_mgr_entry_t *>(calloc(1, sizeof(zel_id_mgr_entry_t)));
  if (entry == nullptr) {
    *id = ZEL_ID_MGR_NO_ID;
    return ZEL_ID_MGR_ERROR;
  }
  entry->id = candidate;
  entry->ctx = ctx;
  // A set that cannot link the entry would lose it: free it and report the id as not given.
  if (kro_hashset_insert(mgr->set, entry) != KRO_HASHSET_OK) {
    free(entry);
    *id = ZEL_ID_MGR_NO_ID;
    return ZEL_ID_MGR_ERROR;
  }
  return ZEL_ID_MGR_OK;
}

void *zel_id_mgr_id_to_ctx(zel_id_mgr_t *mgr, uint32_t id) {
  if (mgr == nullptr || id == ZEL_ID_MGR_NO_ID || mgr->set == nullptr) {
    return nullptr;
  }
  const zel_id_mgr_entry_t *entry = zel_id_mgr_find(mgr, id);
  return entry != nullptr ? entry->ctx : nullptr;
}

int32_t zel_id_mgr_delete_id(zel_id_mgr_t *mgr, uint32_t id) {
  if (mgr == nullptr || id == ZEL_ID_MGR_NO_ID || mgr->set == nullptr) {
    return ZEL_ID_MGR_ERROR;
  }
  zel_id_mgr_entry_t *entry = zel_id_mgr_find(mgr, id);
  if (entry == nullptr) {
    return ZEL_ID_MGR_ERROR;
  }
  kro_hashset_remove(mgr->set, entry);
  free(entry);
  return ZEL_ID_MGR_OK;
}

void zel_id_mgr_iterate(zel_id_mgr_t *mgr, zel_id_mgr_iterate_cb cb, void *arg) {
  if (mgr == nullptr || cb == nullptr || mgr->set == nullptr) {
    return;
  }
  for (void *e = kro_hashset_first(mgr->set); e != nullptr; e = kro_hashset_next(mgr->set, e)) {
    const auto *entry = static_cast<const zel_id_mgr_entry_t *>(e);
    cb(mgr, entry->id, entry->ctx, arg);
  }
}

}  // extern "C"
