/* The registry header from C: one client through its whole life on one registry. */
#include <string.h>

#include <zel/ipc_reg.h>

int main(void) {
  zel_ipc_reg_top_t top;
  zel_ipc_reg_t *entry;
  int ok;

  memset(&top, 0, sizeof top);
  if (zel_ipc_reg_mgr_init(&top) != ZEL_IPC_REG_OK) {
    return 1;
  }
  entry = zel_ipc_reg_new("client-c", 7u, 42u);
  if (entry == NULL) {
    zel_ipc_reg_mgr_cleanup(&top);
    return 1;
  }
  zel_ipc_reg_add(&top, entry);
  ok = zel_ipc_reg_get_by_name(top, "client-c") == entry && zel_ipc_reg_get_by_id(top, 7u) == entry;
  zel_ipc_reg_delete(&top, entry);
  ok = ok && zel_ipc_reg_get_by_id(top, 7u) == NULL && entry->data == 42u;
  zel_ipc_reg_cleanup(entry);
  zel_ipc_reg_mgr_cleanup(&top);
  return ok && top.inited == 1u ? 0 : 1;
}
