// The registry's tables: the four hash callbacks that key them, and their set-up and tear-down.
//
// The id set chains registrations through their leading link; the name map holds one pair per
// registration with the record as key and value. The callbacks are handed to the platform
// tables and run inside them, so each traces under its own function name.
#include <zel/ipc_reg.h>

#include <cstddef>
#include <cstring>

#include "trace/trace_internal.h"
#include "trace/trace_point.h"

static_assert(offsetof(zel_ipc_reg_t, link) == 0, "the id set links registrations at offset 0");

namespace {

// Hash of the id's four bytes as they lie in memory. A NULL element hashes to 0 silently.
uint32_t zel_ipc_reg_hashset_calc(const void *elem) {
  const auto *entry = static_cast<const zel_ipc_reg_t *>(elem);
  if (entry == nullptr) {
    return 0;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "ipc reg id is :%d\n", entry->id);
  return kro_hash_calculate(&entry->id, sizeof entry->id);
}

// Equal ids match, whatever the names. A NULL element counts as a match.
int zel_ipc_reg_hashset_matcher(const void *member, const void *key) {
  const auto *a = static_cast<const zel_ipc_reg_t *>(member);
  const auto *b = static_cast<const zel_ipc_reg_t *>(key);
  if (a == nullptr || b == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "hash elements NULL\n");
    return 1;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "The value 1:%d:, 2 :%d:\n", a->id, b->id);
  return a->id == b->id ? 1 : 0;
}

// Hash of the name's characters, terminator excluded. The length is bounded by the name limit
// so that the hash covers exactly what the matcher compares.
uint32_t zel_ipc_reg_hashmap_calc(const void *elem) {
  const auto *entry = static_cast<const zel_ipc_reg_t *>(elem);
  if (entry == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "ipc reg null\n");
    return 0;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "ipc reg name is :%s\n", entry->name);
  return kro_hash_calculate(entry->name, strnlen(entry->name, ZEL_IPC_REG_NAME_MAX));
}

// Names equal in their first 100 characters match, whatever the ids. A NULL element counts as
// a match.
int zel_ipc_reg_hashmap_matcher(const void *member, const void *key) {
  const auto *a = static_cast<const zel_ipc_reg_t *>(member);
  const auto *b = static_cast<const zel_ipc_reg_t *>(key);
  if (a == nullptr || b == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "hash elements NULL\n");
    return 1;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "The value 1:%s 2:%s\n", a->name, b->name);
  return strncmp(a->name, b->name, ZEL_IPC_REG_NAME_MAX) == 0 ? 1 : 0;
}

}  // namespace

extern "C" {

uint32_t zel_ipc_reg_mgr_init(zel_ipc_reg_top_t *top) {
  // The module is registered before this call's first trace point, once per process; racing
  // first calls all wait for the one registration to finish.
  pthread_once(&zel_ipc_reg_once, zel_ipc_reg_init_once);
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  if (top == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_EINVAL,
              "ipc reg top cannot be null\n");
    return ZEL_IPC_REG_EINVAL;
  }
  top->inited = 1;
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "hashset create\n");
  if (kro_hashset_create(&top->set, 0, offsetof(zel_ipc_reg_t, link), zel_ipc_reg_hashset_calc,
                         zel_ipc_reg_hashset_matcher, 0) != 0) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_ENOMEM,
              "memory allocation failure\n");
    return ZEL_IPC_REG_ENOMEM;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "hashmap create\n");
  if (kro_hashmap_create(&top->map, 0, zel_ipc_reg_hashmap_calc, zel_ipc_reg_hashmap_matcher, 0) !=
      0) {
    kro_hashset_free(&top->set);
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_ENOMEM,
              "memory allocation failure\n");
    return ZEL_IPC_REG_ENOMEM;
  }
  return ZEL_IPC_REG_OK;
}

void zel_ipc_reg_mgr_cleanup(zel_ipc_reg_top_t *top) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  if (top == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "ipc reg top cannot be null\n");
    return;
  }
  kro_hashset_free(&top->set);
  kro_hashmap_free(&top->map);
}

}  // extern "C"
