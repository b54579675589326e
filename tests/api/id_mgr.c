// The ID manager header from C, through the shared library.
#include <zel/id_mgr.h>

int main(void) {
  zel_id_mgr_t mgr;
  if (zel_id_mgr_xinit(&mgr, ZEL_ID_MGR_F_CHECK_IN_USE) != ZEL_ID_MGR_OK) return 1;
  zel_id_mgr_cleanup(&mgr);
  return 0;
}
