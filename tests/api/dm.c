/* The dispatch manager and managed timer headers from C, through the shared library. */
#include <kro/dm.h>
#include <kro/mgd_timer.h>

#include <stddef.h>

int main(void) {
  kro_dm_t *dm = NULL;
  kro_mgd_timer_tree_t *tree = kro_mgd_timer_tree_alloc();
  int ok = kro_mgd_timer_tree_free(&tree) == KRO_MGD_TIMER_OK && kro_dm_create(&dm) == KRO_DM_OK;
  return ok && kro_dm_destroy(&dm) == KRO_DM_OK ? 0 : 1;
}
