// Lookups by name and by id. Each builds its key registration on the stack (nothing is
// allocated) and fills in only the field its table's callbacks read.
#include <zel/ipc_reg.h>

#include <cstring>

#include "trace/trace_point.h"

extern "C" {

zel_ipc_reg_t *zel_ipc_reg_get_by_name(zel_ipc_reg_top_t top, const char *name) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  if (name == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_EINVAL, "invalid input params\n");
    return nullptr;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "searching ipc reg db by name %s\n", name);
  // Only the first 100 characters take part: a longer name finds the registration named by
  // its prefix. The zero fill keeps the key terminated.
  zel_ipc_reg_t key;
  memset(key.name, 0, sizeof key.name);
  memcpy(key.name, name, strnlen(name, ZEL_IPC_REG_NAME_MAX));
  return static_cast<zel_ipc_reg_t *>(kro_hashmap_value(kro_hashmap_get(top.map, &key)));
}

zel_ipc_reg_t *zel_ipc_reg_get_by_id(zel_ipc_reg_top_t top, uint32_t id) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "searching ipc reg db by ipc client id %d\n",
            id);
  zel_ipc_reg_t key;
  key.id = id;
  return static_cast<zel_ipc_reg_t *>(kro_hashset_get(top.set, &key));
}

}  // extern "C"
