// Timers of the dispatch manager: a min-heap by (deadline, arming order) under the manager's
// timer mutex, a due list for the dispatch step under way, and deferred freeing of a timer
// deleted while its handler runs.
//
// A timer is in at most one of: the heap (ARMED), the due list (DUE), neither (IDLE). The
// `running` flag is independent: a running timer may be re-armed, or deleted (then `deleted`
// is set and the dispatch step frees it after the handler returns).
#include <new>

#include "kro/dm_internal.h"

namespace {

constexpr uint64_t kro_dm_ns_per_s = 1000000000u;

// Keeps the lock-free mirror of the heap's top current.
void kro_dm_timers_publish(kro_dm *dm) KRO_REQUIRES(dm->timer_mutex) {
  dm->next_deadline.store(dm->heap_len != 0 ? dm->heap[0]->deadline : kro_dm_never,
                          std::memory_order_seq_cst);
}

void kro_dm_due_unlink(kro_dm *dm, kro_dm_timer *t) KRO_REQUIRES(dm->timer_mutex) {
  (t->due_prev != nullptr ? t->due_prev->due_next : dm->due_head) = t->due_next;
  (t->due_next != nullptr ? t->due_next->due_prev : dm->due_tail) = t->due_prev;
  t->due_prev = nullptr;
  t->due_next = nullptr;
}

void kro_dm_due_append(kro_dm *dm, kro_dm_timer *t) KRO_REQUIRES(dm->timer_mutex) {
  t->due_next = nullptr;
  t->due_prev = dm->due_tail;
  (dm->due_tail != nullptr ? dm->due_tail->due_next : dm->due_head) = t;
  dm->due_tail = t;
}

// Takes the timer out of the heap or the due list.
void kro_dm_timer_disarm(kro_dm *dm, kro_dm_timer *t) KRO_REQUIRES(dm->timer_mutex) {
  if (t->state == KRO_DM_TIMER_ARMED) {
    kro_dm_heap_remove(dm->heap, &dm->heap_len, t);
    kro_dm_timers_publish(dm);
  } else if (t->state == KRO_DM_TIMER_DUE) {
    kro_dm_due_unlink(dm, t);
  }
  t->state = KRO_DM_TIMER_IDLE;
}

// Arms the timer. True when it became the nearest deadline.
bool kro_dm_timer_arm_locked(kro_dm *dm, kro_dm_timer *t, uint64_t deadline)
    KRO_REQUIRES(dm->timer_mutex) {
  kro_dm_timer_disarm(dm, t);
  const uint64_t before = dm->heap_len != 0 ? dm->heap[0]->deadline : kro_dm_never;
  t->deadline = deadline;
  t->seq = ++dm->seq;
  t->state = KRO_DM_TIMER_ARMED;
  kro_dm_heap_push(dm->heap, &dm->heap_len, t);
  kro_dm_timers_publish(dm);
  return deadline < before;
}

int kro_dm_timer_delete(kro_dm *dm, kro_dm_timer **pt) {
  kro_dm_timer *t = *pt;
  if (t == nullptr || t->dm != dm) {
    return KRO_DM_EINVAL;
  }
  {
    const kro_lock lock(dm->timer_mutex);
    if (t->deleted) {
      return KRO_DM_EINVAL;
    }
    kro_dm_timer_disarm(dm, t);
    (t->all_prev != nullptr ? t->all_prev->all_next : dm->all) = t->all_next;
    if (t->all_next != nullptr) {
      t->all_next->all_prev = t->all_prev;
    }
    --dm->timers;
    if (t->running) {
      t->deleted = true;  // the dispatch step frees it after the handler
      t = nullptr;
    }
  }
  if (t != nullptr) {
    t->~kro_dm_timer();
    free(t);
  }
  *pt = nullptr;
  return KRO_DM_OK;
}

}  // namespace

void kro_dm_timers_run(kro_dm *dm) {
  const uint64_t next = dm->next_deadline.load(std::memory_order_acquire);
  if (next == kro_dm_never) {
    return;
  }
  const uint64_t now = kro_dm_clock_now(dm);
  if (next > now) {
    return;
  }
  kro_lock lock(dm->timer_mutex);
  // Collect first: popping the heap yields deadline order, ties in arming order.
  while (dm->heap_len != 0 && dm->heap[0]->deadline <= now) {
    kro_dm_timer *t = dm->heap[0];
    kro_dm_heap_remove(dm->heap, &dm->heap_len, t);
    t->state = KRO_DM_TIMER_DUE;
    kro_dm_due_append(dm, t);
  }
  kro_dm_timers_publish(dm);
  // Then run, one at a time, without the lock: handlers may arm and delete timers, this one
  // and those still due included.
  while (kro_dm_timer *t = dm->due_head) {
    kro_dm_due_unlink(dm, t);
    t->state = KRO_DM_TIMER_IDLE;
    t->running = true;
    const kro_dm_timer_fn handler = t->handler;
    void *cookie = t->cookie;
    lock.unlock();
    dm->timer_runs.bump();
    handler(dm, t, cookie);
    lock.lock();
    t->running = false;
    if (t->deleted) {
      t->~kro_dm_timer();
      free(t);
    }
  }
}

void kro_dm_timers_free_all(kro_dm *dm) {
  while (kro_dm_timer *t = dm->all) {
    dm->all = t->all_next;
    t->~kro_dm_timer();
    free(t);
  }
  dm->heap_len = 0;
  dm->due_head = nullptr;
  dm->due_tail = nullptr;
  dm->timers = 0;
}

int kro_dm_timer_set_deadline(kro_dm *dm, kro_dm_timer *t, uint64_t deadline) {
  const kro_lock lock(dm->timer_mutex);
  if (t->deleted) {
    return KRO_DM_EINVAL;
  }
  // The wake-up goes out before the lock is released: the owner can't run the timer without the
  // lock, so until then it can't have run the handler that lets it destroy the manager. Once the
  // lock is released, this call touches nothing of the manager (see kro_dm_destroy).
  if (kro_dm_timer_arm_locked(dm, t, deadline)) {
    kro_dm_wake_sleeper(dm);
  }
  return KRO_DM_OK;
}

extern "C" {

int kro_dm_timer_register(kro_dm_t *dm, kro_dm_timer_t **timer, kro_dm_timer_fn handler,
                          void *cookie) {
  if (dm == nullptr || timer == nullptr) {
    return KRO_DM_EINVAL;
  }
  if (handler == nullptr) {
    return cookie == nullptr ? kro_dm_timer_delete(dm, timer) : KRO_DM_EINVAL;
  }
  void *mem = calloc(1, sizeof(kro_dm_timer));
  if (mem == nullptr) {
    return KRO_DM_ENOMEM;
  }
  auto *t = new (mem) kro_dm_timer();
  t->dm = dm;
  t->handler = handler;
  t->cookie = cookie;
  {
    const kro_lock lock(dm->timer_mutex);
    // Room in the heap for every live timer, so that arming never allocates.
    if (!kro_dm_heap_reserve(&dm->heap, &dm->heap_cap, dm->timers + 1)) {
      t = nullptr;
    } else {
      ++dm->timers;
      t->all_next = dm->all;
      if (dm->all != nullptr) {
        dm->all->all_prev = t;
      }
      dm->all = t;
    }
  }
  if (t == nullptr) {
    free(mem);
    return KRO_DM_ENOMEM;
  }
  *timer = t;
  return KRO_DM_OK;
}

int kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *timer, const kro_dm_time_t *value) {
  if (dm == nullptr || timer == nullptr || value == nullptr || timer->dm != dm ||
      value->nsec >= kro_dm_ns_per_s) {
    return KRO_DM_EINVAL;
  }
  const uint64_t delay = static_cast<uint64_t>(value->sec) * kro_dm_ns_per_s + value->nsec;
  const uint64_t now = kro_dm_clock_now(dm);
  const uint64_t deadline = now > kro_dm_never - delay ? kro_dm_never - 1 : now + delay;
  return kro_dm_timer_set_deadline(dm, timer, deadline);
}

int kro_dm_timer_cancel(kro_dm_t *dm, kro_dm_timer_t *timer) {
  if (dm == nullptr || timer == nullptr || timer->dm != dm) {
    return KRO_DM_EINVAL;
  }
  const kro_lock lock(dm->timer_mutex);
  if (timer->deleted) {
    return KRO_DM_EINVAL;
  }
  kro_dm_timer_disarm(dm, timer);
  return KRO_DM_OK;
}

}  // extern "C"
