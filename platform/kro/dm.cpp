// The dispatch manager: creation, the wait and dispatch steps, wake-ups and the clock.
//
// Sleeping and waking pair up like this (all seq_cst):
//   owner:    sleeping = true;  re-check incoming, wake_req, next_deadline;  epoll_wait
//   producer: publish work (incoming push, wake_req, next_deadline);  if sleeping: eventfd
// Either the owner's re-check sees the work, or the producer sees `sleeping` and writes. Only
// the producer whose exchange takes `sleeping` from true to false writes, so one sleep costs at
// most one write however many producers race. The eventfd is edge-triggered and never read:
// every write is one epoll event, and its counter cannot reach its limit in practice (2^64-2).
#include <errno.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <new>

#include "kro/dm_internal.h"

namespace {

uint64_t kro_dm_monotonic_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Anything for a dispatch step to do right now? Consumes a pending wake request.
bool kro_dm_work_due(kro_dm *dm) {
  if (dm->pending.head != nullptr || dm->incoming.load(std::memory_order_seq_cst) != nullptr) {
    return true;
  }
  if (dm->wake_req.load(std::memory_order_seq_cst) &&
      dm->wake_req.exchange(false, std::memory_order_seq_cst)) {
    return true;
  }
  const uint64_t next = dm->next_deadline.load(std::memory_order_seq_cst);
  return next != kro_dm_never && next <= kro_dm_clock_now(dm);
}

// Before sleeping, spin for a short while when the last idle gap was short: in a stream of
// messages or a ping-pong the next message usually comes within microseconds, and catching it
// here saves the sender its eventfd write and this thread two context switches. A spin that
// finds nothing disables spinning until a sleep turns out short again, so an idle manager (or
// one fed slower than the spin limit) sleeps at once and burns nothing. While spinning the
// owner is not marked asleep, so enqueues make no system call.
// - Work is looked for every 64 pauses (about a microsecond), not at every pause: an owner that
//   pounced on each message would take a stream one message at a time, its queue's lines
//   bouncing between the cores per message (bench_itc 64 B 1->1 fell from 1.7x to 1.26x ZeroMQ
//   that way; sleeping lets a batch build up).
// - A yield that takes longer than kro_dm_yield_given_ns ran another thread on this core.
constexpr uint64_t kro_dm_yield_given_ns = 5000;

bool kro_dm_spin(kro_dm *dm) {
  const uint32_t spin_ns = dm->spin_ns.load(std::memory_order_relaxed);
  if (spin_ns == 0 || dm->last_gap > spin_ns) {
    return false;
  }
  const uint64_t start = kro_dm_monotonic_ns();
  for (unsigned i = 1;; ++i) {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
    if ((i & 63) != 0) {
      continue;
    }
    if (dm->incoming.load(std::memory_order_relaxed) != nullptr ||
        dm->wake_req.load(std::memory_order_relaxed)) {
      dm->last_gap = kro_dm_monotonic_ns() - start;
      dm->spins.bump();
      return true;
    }
    const uint64_t now = kro_dm_monotonic_ns();
    if (now - start >= spin_ns) {
      dm->last_gap = kro_dm_never;  // until a short sleep is seen again
      return false;
    }
    const uint64_t next = dm->next_deadline.load(std::memory_order_relaxed);
    if (next != kro_dm_never && next <= kro_dm_clock_now(dm)) {
      return true;
    }
    if ((i & 127) == 0) {
      // Let a thread that shares this core run; when one did, sleep instead (see above).
      sched_yield();
      if (kro_dm_monotonic_ns() - now > kro_dm_yield_given_ns) {
        dm->last_gap = kro_dm_never;
        return false;
      }
    }
  }
}

// epoll_wait timeout until the nearest deadline, rounded up to whole milliseconds; -1 without.
int kro_dm_timeout_ms(const kro_dm *dm) {
  const uint64_t next = dm->next_deadline.load(std::memory_order_seq_cst);
  if (next == kro_dm_never) {
    return -1;
  }
  const uint64_t now = kro_dm_clock_now(dm);
  if (next <= now) {
    return 0;
  }
  const uint64_t ms = (next - now + 999999u) / 1000000u;
  return ms > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(ms);
}

// One epoll_wait; the descriptor readinesses go to the event buffer.
int kro_dm_poll(kro_dm *dm, int timeout) {
  epoll_event events[kro_dm_max_events];
  const int n = epoll_wait(dm->epfd, events, static_cast<int>(kro_dm_max_events), timeout);
  (timeout == 0 ? dm->polls : dm->sleeps).bump();
  if (n < 0) {
    return errno == EINTR ? KRO_DM_OK : errno;
  }
  for (int i = 0; i < n; ++i) {
    auto *rec = static_cast<kro_dm_fd_rec *>(events[i].data.ptr);
    if (rec != nullptr && dm->ev_count < kro_dm_max_events) {  // NULL: the eventfd
      dm->ev[dm->ev_count++] = kro_dm_ready{rec, events[i].events};
    }
  }
  return KRO_DM_OK;
}

// Selector bits reported for the epoll events of a record.
uint32_t kro_dm_fd_ready_bits(const kro_dm_fd_rec *rec, uint32_t events) {
  uint32_t bits = 0;
  if ((rec->selector & KRO_DM_FD_READABLE) != 0 &&
      (events & (EPOLLIN | EPOLLPRI | EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
    bits |= KRO_DM_FD_READABLE;
  }
  if ((rec->selector & KRO_DM_FD_WRITABLE) != 0 && (events & (EPOLLOUT | EPOLLERR)) != 0) {
    bits |= KRO_DM_FD_WRITABLE;
  }
  return bits != 0 ? bits : rec->selector;
}

// Dispatch step 1: one callback per collected readiness. A handler may deregister records
// further down the buffer; they are NULLed there.
void kro_dm_fds_run(kro_dm *dm) {
  while (dm->ev_pos < dm->ev_count) {
    const kro_dm_ready r = dm->ev[dm->ev_pos++];
    if (r.rec == nullptr) {
      continue;
    }
    if (r.rec->armed) {
      r.rec->armed = false;
      --dm->fds_armed;
    }
    dm->fd_runs.bump();
    r.rec->handler(dm, r.rec->fd, kro_dm_fd_ready_bits(r.rec, r.events), r.rec->cookie);
  }
  dm->ev_pos = 0;
  dm->ev_count = 0;
}

// Creation's failure path and destroy: no other thread can reach the manager.
void kro_dm_release(kro_dm *dm) KRO_NO_TSA {
  if (dm->epfd >= 0) {
    close(dm->epfd);
  }
  if (dm->efd >= 0) {
    close(dm->efd);
  }
  free(dm->heap);
  dm->~kro_dm();
  free(dm);
}

}  // namespace

uint64_t kro_dm_clock_now(const kro_dm *dm) {
  return dm->clock != nullptr ? dm->clock(dm->clock_arg) : kro_dm_monotonic_ns();
}

void kro_dm_wake_sleeper(kro_dm *dm) {
  if (!dm->sleeping.load(std::memory_order_seq_cst) ||
      !dm->sleeping.exchange(false, std::memory_order_seq_cst)) {
    return;
  }
  dm->wakeups.fetch_add(1, std::memory_order_relaxed);
  const uint64_t one = 1;
  while (write(dm->efd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

extern "C" {

int kro_dm_create(kro_dm_t **out) {
  if (out == nullptr) {
    return KRO_DM_EINVAL;
  }
  void *mem = calloc(1, sizeof(kro_dm));
  if (mem == nullptr) {
    return KRO_DM_ENOMEM;
  }
  kro_dm *dm = new (mem) kro_dm();
  // Room for a few timers up front; kro_dm_timer_register grows it as timers are created.
  if (!kro_dm_heap_reserve(&dm->heap, &dm->heap_cap, kro_dm_heap_initial)) {
    kro_dm_release(dm);
    return KRO_DM_ENOMEM;
  }
  dm->epfd = epoll_create1(EPOLL_CLOEXEC);
  if (dm->epfd < 0) {
    const int rc = errno;
    kro_dm_release(dm);
    return rc;
  }
  dm->efd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (dm->efd < 0) {
    const int rc = errno;
    kro_dm_release(dm);
    return rc;
  }
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLET;
  ev.data.ptr = nullptr;
  if (epoll_ctl(dm->epfd, EPOLL_CTL_ADD, dm->efd, &ev) != 0) {
    const int rc = errno;
    kro_dm_release(dm);
    return rc;
  }
  *out = dm;
  return KRO_DM_OK;
}

int kro_dm_destroy(kro_dm_t **pdm) {
  if (pdm == nullptr || *pdm == nullptr) {
    return KRO_DM_EINVAL;
  }
  kro_dm *dm = *pdm;
  if (dm->in_dispatch || dm->trees != 0 || dm->queues.load(std::memory_order_acquire) != 0) {
    return KRO_DM_EBUSY;
  }
  kro_dm_timers_free_all(dm);
  kro_dm_fds_free_all(dm);
  kro_dm_release(dm);
  *pdm = nullptr;
  return KRO_DM_OK;
}

int kro_dm_wait(kro_dm_t *dm) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  if (dm->in_dispatch) {
    return KRO_DM_EBUSY;
  }
  if (dm->ev_pos < dm->ev_count) {
    return KRO_DM_OK;
  }
  if (!kro_dm_work_due(dm) && !kro_dm_spin(dm)) {
    dm->sleeping.store(true, std::memory_order_seq_cst);
    if (!kro_dm_work_due(dm)) {
      const uint64_t start = kro_dm_monotonic_ns();
      const int rc = kro_dm_poll(dm, kro_dm_timeout_ms(dm));
      dm->last_gap = kro_dm_monotonic_ns() - start;
      dm->sleeping.store(false, std::memory_order_seq_cst);
      // A wake request is answered by this return; the exchange (not a store) makes whatever
      // the waker published before its request visible to the owner.
      dm->wake_req.exchange(false, std::memory_order_seq_cst);
      return rc;
    }
    dm->sleeping.store(false, std::memory_order_seq_cst);
  }
  // Work is due: look at the descriptors without blocking, so that they are not starved.
  return dm->fds_armed != 0 ? kro_dm_poll(dm, 0) : KRO_DM_OK;
}

int kro_dm_dispatch(kro_dm_t *dm) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  if (dm->in_dispatch) {
    return KRO_DM_EBUSY;
  }
  dm->in_dispatch = true;
  dm->dispatches.bump();
  kro_dm_fds_run(dm);
  kro_dm_timers_run(dm);
  kro_dm_queues_run(dm);
  dm->in_dispatch = false;
  return KRO_DM_OK;
}

int kro_dm_wake(kro_dm_t *dm) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  dm->wake_req.store(true, std::memory_order_seq_cst);
  kro_dm_wake_sleeper(dm);
  return KRO_DM_OK;
}

uint64_t kro_dm_now(kro_dm_t *dm) {
  return dm == nullptr ? 0 : kro_dm_clock_now(dm);
}

int kro_dm_set_clock(kro_dm_t *dm, kro_dm_clock_fn clock, void *arg) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  const kro_lock lock(dm->timer_mutex);
  if (dm->heap_len != 0 || dm->due_head != nullptr) {
    return KRO_DM_EBUSY;
  }
  dm->clock = clock;
  dm->clock_arg = clock != nullptr ? arg : nullptr;
  return KRO_DM_OK;
}

int kro_dm_set_spin(kro_dm_t *dm, uint32_t spin_ns) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  dm->spin_ns.store(spin_ns, std::memory_order_relaxed);
  return KRO_DM_OK;
}

int kro_dm_stats_get(kro_dm_t *dm, kro_dm_stats_t *stats) {
  if (dm == nullptr || stats == nullptr) {
    return KRO_DM_EINVAL;
  }
  stats->wakeups = dm->wakeups.load(std::memory_order_relaxed);
  stats->sleeps = dm->sleeps.get();
  stats->polls = dm->polls.get();
  stats->spins = dm->spins.get();
  stats->dispatches = dm->dispatches.get();
  stats->queue_runs = dm->queue_runs.get();
  stats->timer_runs = dm->timer_runs.get();
  stats->fd_runs = dm->fd_runs.get();
  return KRO_DM_OK;
}

}  // extern "C"
