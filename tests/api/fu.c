/* The feature event loop header from C: one message through the loop on a pipe, instances
 * enabled and disabled, the handle destroyed. */
#define _POSIX_C_SOURCE 200809L
#include <zel/fu.h>

#include <unistd.h>

int main(void) {
  kro_dm_t *dm = NULL;
  int p[2];
  int32_t fd;
  zel_fu_handle_t *h;
  static fu_fsm_event_t ev;
  fm_feature_instance_req_t req = {1, 2, 3};
  int ok = 1;

  if (kro_dm_create(&dm) != KRO_DM_OK || pipe(p) != 0) return 1;
  fd = p[0];
  h = zel_fu_register_events(&dm, &fd);
  ok &= h != NULL;
  ok &= fu_pmx_send(p[1], "hi", 2) == 0;
  ok &= zel_fu_dequeue(h, &ev) == ZEL_FU_OK;
  ok &= ev.from_fd == 1 && ev.fd == fd && ev.msg.len == 2 && ev.msg.data[0] == 'h';
  ok &= zel_fu_feature_enable(h, &req) == 1 && zel_fu_can_exit(h) == 0;
  zel_fu_feature_disable(h, &req);
  ok &= zel_fu_can_exit(h) != 0;
  zel_fu_handle_destroy(h);
  ok &= kro_dm_destroy(&dm) == KRO_DM_OK;
  close(p[0]);
  close(p[1]);
  return ok ? 0 : 2;
}
