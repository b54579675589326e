// Feature process host services: heartbeat, event record, clean-up report, global record and
// the feature manager's instance request, with their probe counters.
#include <host/fu.h>
#include <host/fu_probe.h>
#include <kro/probe.h>

#include <atomic>
#include <cstddef>

#include "host/fu_internal.h"

fu_global_t fu_global;

static_assert(offsetof(fu_global_t, state) == 476, "the state word lies at byte 476");
static_assert(sizeof(fu_fsm_event_t) == 12 + 4096 && offsetof(fu_fsm_event_t, msg) == 12,
              "the message starts at byte 12");
static_assert(sizeof(fu_pmx_recv_opts_t) == 40, "the options record has 40 bytes");

namespace {

std::atomic<uint32_t> fu_hb_timeout{FU_HEARTBEAT_TIMEOUT_DEFAULT};
std::atomic<unsigned> fu_hb_count{0};
std::atomic<unsigned> fu_postcleanup_count{0};
std::atomic<unsigned> fu_event_init_count{0};
std::atomic<unsigned> fu_instance_req_count{0};

}  // namespace

extern "C" {

int supvd_heartbeat(uint32_t flags) {
  kro_probe_journal_add("supvd_heartbeat %u", flags);
  fu_hb_count.fetch_add(1, std::memory_order_release);
  fu_hb_count.notify_all();
  return 0;
}

uint32_t supvd_heartbeat_timeout_get(void) {
  return fu_hb_timeout.load(std::memory_order_relaxed);
}

void fu_fsm_event_init(fu_fsm_event_t *event) {
  fu_event_init_count.fetch_add(1, std::memory_order_relaxed);
  if (event == nullptr) {
    return;
  }
  event->type = FU_FSM_EVENT_NONE;
  event->from_fd = 0;
  event->fd = 0;
  event->msg.len = 0;
}

int fu_condnal_postcleanup_done(uint32_t flags) {
  kro_probe_journal_add("fu_condnal_postcleanup_done %u", flags);
  fu_postcleanup_count.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

uint32_t fm_get_feature_instance_req(const fm_feature_instance_req_t *req, uint32_t *scratch) {
  fu_instance_req_count.fetch_add(1, std::memory_order_relaxed);
  if (req == nullptr) {
    return 0;
  }
  if (scratch != nullptr) {
    *scratch = req->feature;
  }
  return req->instance;
}

void fu_probe_reset(void) {
  fu_hb_timeout.store(FU_HEARTBEAT_TIMEOUT_DEFAULT, std::memory_order_relaxed);
  fu_probe_set_state(0);
  fu_hb_count.store(0, std::memory_order_relaxed);
  fu_postcleanup_count.store(0, std::memory_order_relaxed);
  fu_event_init_count.store(0, std::memory_order_relaxed);
  fu_instance_req_count.store(0, std::memory_order_relaxed);
  fu_pmx_probe_reset();
}

void fu_probe_set_heartbeat_timeout(uint32_t ms) {
  fu_hb_timeout.store(ms, std::memory_order_relaxed);
}

void fu_probe_set_state(uint32_t state) {
  __atomic_store_n(&fu_global.state, state, __ATOMIC_RELAXED);
}

unsigned fu_probe_heartbeats(void) {
  return fu_hb_count.load(std::memory_order_acquire);
}

void fu_probe_wait_heartbeats(unsigned n) {
  for (unsigned seen = fu_hb_count.load(std::memory_order_acquire); seen < n;
       seen = fu_hb_count.load(std::memory_order_acquire)) {
    fu_hb_count.wait(seen, std::memory_order_acquire);
  }
}

unsigned fu_probe_postcleanup_calls(void) {
  return fu_postcleanup_count.load(std::memory_order_relaxed);
}

unsigned fu_probe_event_inits(void) {
  return fu_event_init_count.load(std::memory_order_relaxed);
}

unsigned fu_probe_instance_reqs(void) {
  return fu_instance_req_count.load(std::memory_order_relaxed);
}

}  // extern "C"
