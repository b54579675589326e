/* The ID manager header from C: a manager in the caller's memory, ids bound and walked. */
#include <zel/id_mgr.h>

static int count_binding(zel_id_mgr_t *mgr, uint32_t id, void *ctx, void *arg) {
  (void)mgr;
  (void)ctx;
  *(uint32_t *)arg += id;
  return 0;
}

int main(void) {
  zel_id_mgr_t mgr;
  int ctx = 0;
  uint32_t a = 0, b = 0, sum = 0;
  if (zel_id_mgr_xinit(&mgr, ZEL_ID_MGR_F_CHECK_IN_USE) != ZEL_ID_MGR_OK) return 1;
  if (zel_id_mgr_get_id(&mgr, &ctx, &a) != 0 || zel_id_mgr_get_id(&mgr, &ctx, &b) != 0) return 2;
  if (zel_id_mgr_id_to_ctx(&mgr, b) != &ctx || zel_id_mgr_delete_id(&mgr, a) != 0) return 3;
  zel_id_mgr_iterate(&mgr, count_binding, &sum);
  zel_id_mgr_cleanup(&mgr);
  return a == 1 && b == 2 && sum == 2 ? 0 : 4;
}
