// Feature event loop: the descriptor and heartbeat timer handlers, run from the dispatch step
// of the manager inside zel_fu_dequeue.
#include <cstddef>

#include "util/fu_internal.h"

namespace {

static_assert(offsetof(fu_fsm_event_t, from_fd) == 4 && offsetof(fu_fsm_event_t, fd) == 8 &&
                  offsetof(fu_fsm_event_t, msg) == 12,
              "the loop writes the words at bytes 4 and 8, the message goes from byte 12");
static_assert(offsetof(fu_global_t, state) == 476, "the process state word lies at byte 476");

// Ends the current wait of zel_fu_dequeue with `result`.
void zel_fu_wait_over(zel_fu_handle_t *h, int32_t result) {
  h->done = 1;
  h->result = result;
}

// The feature utility's process state, written by any of its threads.
uint32_t zel_fu_process_state() {
  return __atomic_load_n(&fu_global.state, __ATOMIC_RELAXED);
}

}  // namespace

extern "C" {

void zel_fu_dm_fd_handler(kro_dm_t *dm, int fd, uint32_t, void *handle) {
  auto *h = static_cast<zel_fu_handle_t *>(handle);
  if (h == nullptr) {
    return;
  }
  fu_fsm_event_t *event = h->event;
  if (event == nullptr) {
    zel_fu_wait_over(h, ZEL_FU_EBUSY);
    return;
  }
  fu_fsm_event_init(event);
  fu_pmx_recv_opts_t opts{};
  opts.nonblock = 1;
  event->from_fd = 1;
  event->fd = fd;
  if (fu_pmx_recv(fd, &event->msg, &opts) == -1) {
    zel_fu_wait_over(h, ZEL_FU_EBUSY);  // not armed again
    return;
  }
  kro_dm_fd_register(dm, fd, KRO_DM_FD_READABLE, zel_fu_dm_fd_handler, h);
  zel_fu_wait_over(h, ZEL_FU_OK);
}

int zel_fu_timer_event_handler(kro_mgd_timer_tree_t *, kro_mgd_timer_leaf_t *leaf, void *handle) {
  auto *h = static_cast<zel_fu_handle_t *>(handle);
  if (h == nullptr) {
    return 0;
  }
  if (zel_fu_process_state() == FU_STATE_EXIT) {
    h->done = 1;
    h->exit_req = 1;
    return kro_mgd_timer_leaf_stop(leaf);
  }
  const uint32_t timeout = supvd_heartbeat_timeout_get();
  return timeout != 0 ? kro_mgd_timer_leaf_start(leaf, timeout, 0) : 0;
}

}  // extern "C"
