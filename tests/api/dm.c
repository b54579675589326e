// The dispatch manager and managed timer headers from C, through the shared library.
#include <kro/dm.h>
#include <kro/mgd_timer.h>

#include <stddef.h>

int main(void) {
  return kro_dm_create(NULL) == KRO_DM_EINVAL &&
                 kro_mgd_timer_tree_free(NULL) == KRO_MGD_TIMER_EINVAL
             ? 0
             : 1;
}
