// The registry header from C, through the shared library.
#include <zel/ipc_reg.h>

#include <stddef.h>

int main(void) {
  return zel_ipc_reg_mgr_init(NULL) == ZEL_IPC_REG_EINVAL ? 0 : 1;
}
