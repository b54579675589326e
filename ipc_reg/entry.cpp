// Making and releasing registrations. Neither touches a registry.
#include <zel/ipc_reg.h>

#include <cstdlib>
#include <cstring>

#include "trace/trace_point.h"

extern "C" {

zel_ipc_reg_t *zel_ipc_reg_new(const char *name, uint32_t id, uint32_t data) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  // Tested in this order: NULL, empty, too long, id 0. strnlen stops one past the limit, so an
  // over-long name is never read further.
  const size_t len = name == nullptr ? 0 : strnlen(name, ZEL_IPC_REG_NAME_MAX + 1);
  if (name == nullptr || len == 0 || len > ZEL_IPC_REG_NAME_MAX || id == 0) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_EINVAL,
              "ipc reg registration invalid input params\n");
    return nullptr;
  }
  auto *entry = static_cast<zel_ipc_reg_t *>(calloc(1, sizeof(zel_ipc_reg_t)));
  if (entry == nullptr) {
    ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_ERROR, ZEL_IPC_REG_ENOMEM,
              "unable to allocate ipc reg\n");
    return nullptr;
  }
  entry->id = id;
  entry->data = data;
  memcpy(entry->name, name, len);  // the zero-filled field keeps the terminator
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "ipc reg id %d allocated to ipc client %s\n",
            entry->id, entry->name);
  return entry;
}

void zel_ipc_reg_cleanup(zel_ipc_reg_t *entry) {
  ZEL_TRACE(zel_ipc_reg_mgr_amdt, ZEL_TRACE_TRACE, 0, "entering\n");
  free(entry);
}

}  // extern "C"
