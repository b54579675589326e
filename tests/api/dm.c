/* The dispatch manager and managed timer headers from C: a queue round trip, a timer and a
 * timer tree through the shared platform library. */
#include <kro/dm.h>
#include <kro/mgd_timer.h>

#include <stddef.h>

struct msg {
  void *link;
  int value;
};

static int got;

static void on_queue(kro_dm_watched_queue_t *queue, void *cookie) {
  void *m = NULL;
  while (kro_dm_watched_queue_dequeue(queue, &m) == KRO_DM_OK) {
    got += ((struct msg *)m)->value + *(int *)cookie;
  }
}

static int on_timer(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie) {
  got += *(int *)cookie;
  return kro_dm_timer_register(dm, &timer, NULL, NULL);
}

static int on_leaf(kro_mgd_timer_tree_t *tree, kro_mgd_timer_leaf_t *leaf, void *context) {
  (void)tree;
  (void)leaf;
  (void)context;
  return 0;
}

int main(void) {
  kro_dm_t *dm = NULL;
  kro_dm_watched_queue_attr_t attr;
  kro_dm_watched_queue_t *queue = NULL;
  kro_dm_timer_t *timer = NULL;
  kro_dm_time_t zero = {0, 0};
  kro_mgd_timer_tree_t *tree = NULL;
  kro_mgd_timer_leaf_t *leaf = NULL;
  struct msg m = {NULL, 40};
  int one = 1;
  int ok = 1;

  ok &= kro_dm_create(&dm) == KRO_DM_OK;
  ok &= kro_dm_watched_queue_attr_init(&attr) == KRO_DM_OK;
  attr.max_len = 4;
  ok &= kro_dm_watched_queue_create("c", 1, &attr, &queue) == KRO_DM_OK;
  ok &= kro_dm_watched_queue_register(dm, queue, on_queue, &one) == KRO_DM_OK;
  ok &= kro_dm_watched_queue_enqueue(queue, &m) == KRO_DM_OK;
  ok &= kro_dm_timer_register(dm, &timer, on_timer, &one) == KRO_DM_OK;
  ok &= kro_dm_timer_settime(dm, timer, &zero) == KRO_DM_OK;
  tree = kro_mgd_timer_tree_alloc();
  ok &= kro_mgd_timer_attach_xdm(tree, dm, on_leaf) == KRO_MGD_TIMER_OK;
  leaf = kro_mgd_timer_leaf_alloc(tree, 0, KRO_MGD_TIMER_ONESHOT, NULL);
  ok &= kro_mgd_timer_leaf_start(leaf, 1000, 0) == KRO_MGD_TIMER_OK;
  ok &= kro_dm_wait(dm) == KRO_DM_OK && kro_dm_dispatch(dm) == KRO_DM_OK;
  ok &= got == 42;
  ok &= kro_mgd_timer_detach_xdm(tree) == KRO_MGD_TIMER_OK;
  ok &= kro_mgd_timer_tree_free(&tree) == KRO_MGD_TIMER_OK;
  ok &= kro_mgd_timer_leaf_free(&leaf) == KRO_MGD_TIMER_OK;
  ok &= kro_dm_watched_queue_deregister(dm, queue) == KRO_DM_OK;
  ok &= kro_dm_watched_queue_destroy(&queue) == KRO_DM_OK;
  ok &= kro_dm_destroy(&dm) == KRO_DM_OK;
  return ok ? 0 : 1;
}
