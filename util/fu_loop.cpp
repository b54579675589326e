// Feature event loop: the handle's creation and destruction, and the wait-and-dispatch loop.
// Everything runs on the dispatch manager's owner thread; nothing locks.
#include <cstdlib>

#include "util/fu_internal.h"

namespace {

// Selector of the descriptor registration: readable.
constexpr uint32_t zel_fu_readable = KRO_DM_FD_READABLE;

}  // namespace

extern "C" {

zel_fu_handle_t *zel_fu_register_events(kro_dm_t *const *dm_ref, const int32_t *fd_ref) {
  if (dm_ref == nullptr || *dm_ref == nullptr || fd_ref == nullptr || *fd_ref <= 0) {
    return nullptr;
  }
  auto *h = static_cast<zel_fu_handle_t *>(calloc(1, sizeof(zel_fu_handle_t)));
  if (h == nullptr) {
    return nullptr;
  }
  kro_dm_t *dm = *dm_ref;
  h->dm_ref = dm_ref;
  // The platform calls' results are not checked: whatever fails leaves a field NULL or a
  // source unarmed, and every later call on it fails harmlessly (see zel/fu.h).
  kro_dm_fd_register(dm, *fd_ref, zel_fu_readable, zel_fu_dm_fd_handler, h);
  h->timer_tree = kro_mgd_timer_tree_alloc();
  kro_mgd_timer_attach_xdm(h->timer_tree, dm, zel_fu_timer_event_handler);
  h->hb_leaf = kro_mgd_timer_leaf_alloc(h->timer_tree, 0, KRO_MGD_TIMER_ONESHOT, h);
  const uint32_t timeout = supvd_heartbeat_timeout_get();
  if (timeout != 0) {
    kro_mgd_timer_leaf_start(h->hb_leaf, timeout, 0);
  }
  kro_queue_init(&h->instances, ZEL_FU_INSTANCES_MAX);
  return h;
}

int32_t zel_fu_dequeue(zel_fu_handle_t *handle, fu_fsm_event_t *event) {
  if (handle == nullptr) {
    return ZEL_FU_EINVAL;
  }
  handle->event = event;
  kro_dm_t *dm = *handle->dm_ref;
  while (handle->done == 0) {
    supvd_heartbeat(0);
    // A manager that refuses to wait refuses every time: give up instead of spinning.
    if (kro_dm_wait(dm) != KRO_DM_OK) {
      return ZEL_FU_EINVAL;
    }
    kro_dm_dispatch(dm);
  }
  // A start with timeout 0 stops the leaf (the timer layer's rule).
  kro_mgd_timer_leaf_start(handle->hb_leaf, supvd_heartbeat_timeout_get(), 0);
  const bool exiting = handle->exit_req != 0;
  handle->done = 0;
  if (exiting) {
    zel_fu_handle_destroy(handle);
    fu_condnal_postcleanup_done(0);
    return ZEL_FU_OK;
  }
  return handle->result;
}

void zel_fu_handle_destroy(zel_fu_handle_t *handle) {
  if (handle == nullptr) {
    return;
  }
  // The descriptor registration names the handle: withdraw it (also a readiness already
  // collected) so that the manager never calls the handler with freed memory.
  kro_dm_fd_deregister_cookie(*handle->dm_ref, handle);
  if (handle->timer_tree != nullptr) {
    kro_mgd_timer_detach_xdm(handle->timer_tree);
    kro_mgd_timer_tree_free(&handle->timer_tree);
  }
  if (handle->hb_leaf != nullptr) {
    kro_mgd_timer_leaf_free(&handle->hb_leaf);
  }
  zel_fu_instances_release(handle);
  free(handle);
}

}  // extern "C"
