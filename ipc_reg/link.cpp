// Linking registrations into a registry's two tables and unlinking them. Neither operation
// allocates on its own (the name map allocates its pair) or consults the tables' results.
#include <zel/ipc_reg.h>

#include "trace/trace_point.h"

extern "C" {

void zel_ipc_reg_add(zel_ipc_reg_top_t *top, zel_ipc_reg_t *entry) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  if (top == nullptr || entry == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_EINVAL, "invalid input params\n");
    return;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "adding ipc client %s:%d to db\n",
            entry->name, entry->id);
  kro_hashset_insert(top->set, entry);
  kro_hashmap_insert(top->map, entry, entry);
}

void zel_ipc_reg_delete(zel_ipc_reg_top_t *top, zel_ipc_reg_t *entry) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  if (top == nullptr || entry == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_EINVAL, "invalid input params\n");
    return;
  }
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "deleting ipc client %s:%d from db\n",
            entry->name, entry->id);
  kro_hashset_remove(top->set, entry);
  kro_hashmap_remove(top->map, entry);
}

}  // extern "C"
