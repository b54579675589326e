// Watched queues: an intrusive multi-producer, single-consumer FIFO (Vyukov's, with a stub
// node) plus the scheduling that makes the manager run the queue's handler.
//
// Enqueue, on any thread:
//   1. admit: one CAS on `state` checks the registration and the length limit and counts the
//      message and the enqueue in flight;
//   2. link: exchange `head`, then store the link of the previous node;
//   3. schedule: unless `scheduled` is already set, the enqueue that sets it pushes the queue
//      on the manager's `incoming` stack and wakes the manager if it sleeps;
//   4. leave: release the in-flight count (deregistration waits for it to drop to zero).
// While the owner is draining the queue, `scheduled` stays set, so enqueues do steps 1, 2, a
// load, and 4: no system call and no touch of the manager.
//
// After the handler the owner clears `scheduled` and looks at `head` again (seq_cst on both
// sides): a producer that linked a message either sees the cleared flag and schedules, or its
// message is seen by the owner, which schedules the queue itself for the next step.
#include <sched.h>

#include <atomic>
#include <new>

#include "kro/dm_internal.h"

namespace {

std::atomic_ref<void *> kro_dm_link(void *node) {
  return std::atomic_ref<void *>(*static_cast<void **>(node));
}

// Waits a short while for another thread to finish a few instructions (a link store, the end
// of an enqueue): pause first, then yield so that a preempted thread on our core can run.
void kro_dm_backoff(unsigned *round) {
  if (++*round < 64) {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
  } else {
    sched_yield();
  }
}

void *kro_dm_link_await(void *node) {
  unsigned round = 0;
  void *next = nullptr;
  while ((next = kro_dm_link(node).load(std::memory_order_acquire)) == nullptr) {
    kro_dm_backoff(&round);
  }
  return next;
}

void kro_dm_q_push(kro_dm_watched_queue *q, void *node) {
  kro_dm_link(node).store(nullptr, std::memory_order_relaxed);
  void *prev = q->head.exchange(node, std::memory_order_seq_cst);
  kro_dm_link(prev).store(node, std::memory_order_release);
}

// The consumer's pop: the oldest message, or NULL when nothing is linked. A message whose
// producer has exchanged `head` but not yet stored the link is waited for.
void *kro_dm_q_pop(kro_dm_watched_queue *q) {
  void *const stub = &q->stub;
  void *tail = q->tail;
  void *next = kro_dm_link(tail).load(std::memory_order_acquire);
  if (tail == stub) {
    if (next == nullptr) {
      if (q->head.load(std::memory_order_acquire) == stub) {
        return nullptr;
      }
      next = kro_dm_link_await(stub);
    }
    q->tail = next;
    tail = next;
    next = kro_dm_link(tail).load(std::memory_order_acquire);
  }
  if (next == nullptr) {
    // `tail` is the newest linked node. Unless a push is completing behind it, put the stub
    // back behind it so that it can be handed out.
    if (tail == q->head.load(std::memory_order_acquire)) {
      kro_dm_q_push(q, stub);
    }
    next = kro_dm_link_await(tail);
  }
  q->tail = next;
  kro_dm_link(tail).store(nullptr, std::memory_order_relaxed);
  return tail;
}

// Nothing linked and no link under way (consumer side).
bool kro_dm_q_empty(const kro_dm_watched_queue *q) {
  const void *stub = &q->stub;
  return q->tail == stub && q->head.load(std::memory_order_seq_cst) == stub;
}

void kro_dm_qlist_append(kro_dm_qlist *l, kro_dm_watched_queue *q) {
  q->on_list = l;
  q->next = nullptr;
  q->prev = l->tail;
  if (l->tail != nullptr) {
    l->tail->next = q;
  } else {
    l->head = q;
  }
  l->tail = q;
}

void kro_dm_qlist_unlink(kro_dm_watched_queue *q) {
  kro_dm_qlist *l = q->on_list;
  if (l == nullptr) {
    return;
  }
  (q->prev != nullptr ? q->prev->next : l->head) = q->next;
  (q->next != nullptr ? q->next->prev : l->tail) = q->prev;
  q->on_list = nullptr;
  q->prev = nullptr;
  q->next = nullptr;
}

// Pushes the queue on the manager's incoming stack (any thread) and wakes it if it sleeps.
void kro_dm_q_schedule(kro_dm *dm, kro_dm_watched_queue *q) {
  kro_dm_watched_queue *top = dm->incoming.load(std::memory_order_relaxed);
  do {
    q->ready_next = top;
  } while (!dm->incoming.compare_exchange_weak(top, q, std::memory_order_seq_cst,
                                               std::memory_order_relaxed));
  kro_dm_wake_sleeper(dm);
}

}  // namespace

void kro_dm_queues_collect(kro_dm *dm) {
  if (dm->incoming.load(std::memory_order_relaxed) == nullptr) {
    return;
  }
  kro_dm_watched_queue *stack = dm->incoming.exchange(nullptr, std::memory_order_acquire);
  kro_dm_watched_queue *fifo = nullptr;
  while (stack != nullptr) {
    kro_dm_watched_queue *next = stack->ready_next;
    stack->ready_next = fifo;
    fifo = stack;
    stack = next;
  }
  while (fifo != nullptr) {
    kro_dm_watched_queue *next = fifo->ready_next;
    fifo->ready_next = nullptr;
    kro_dm_qlist_append(&dm->pending, fifo);
    fifo = next;
  }
}

void kro_dm_queues_run(kro_dm *dm) {
  kro_dm_queues_collect(dm);
  if (dm->pending.head == nullptr) {
    return;
  }
  // This step runs the queues ready now; those that stay ready go to `pending` for the next.
  dm->batch = dm->pending;
  dm->pending = kro_dm_qlist{};
  for (kro_dm_watched_queue *q = dm->batch.head; q != nullptr; q = q->next) {
    q->on_list = &dm->batch;
  }
  while (dm->batch.head != nullptr) {
    kro_dm_watched_queue *q = dm->batch.head;
    kro_dm_qlist_unlink(q);
    dm->running = q;
    dm->queue_runs.bump();
    q->handler(q, q->cookie);
    if (dm->running != q) {
      continue;  // deregistered (maybe destroyed) by the handler: not to be touched
    }
    dm->running = nullptr;
    q->scheduled.store(false, std::memory_order_seq_cst);
    if (!kro_dm_q_empty(q) && !q->scheduled.exchange(true, std::memory_order_seq_cst)) {
      kro_dm_qlist_append(&dm->pending, q);
    }
  }
}

extern "C" {

int kro_dm_watched_queue_attr_init(kro_dm_watched_queue_attr_t *attr) {
  if (attr == nullptr) {
    return KRO_DM_EINVAL;
  }
  attr->max_len = KRO_DM_WATCHED_QUEUE_LEN_DEFAULT;
  attr->flags = 0;
  attr->drain = nullptr;
  attr->drain_arg = nullptr;
  return KRO_DM_OK;
}

int kro_dm_watched_queue_create(const char *name, uint32_t id,
                                const kro_dm_watched_queue_attr_t *attr,
                                kro_dm_watched_queue_t **queue) {
  kro_dm_watched_queue_attr_t defaults;
  kro_dm_watched_queue_attr_init(&defaults);
  const kro_dm_watched_queue_attr_t *a = attr != nullptr ? attr : &defaults;
  if (queue == nullptr || a->max_len == 0 || a->max_len > KRO_DM_WATCHED_QUEUE_LEN_MAX ||
      a->flags != 0) {
    return KRO_DM_EINVAL;
  }
  void *mem = calloc(1, sizeof(kro_dm_watched_queue));
  if (mem == nullptr) {
    return KRO_DM_ENOMEM;
  }
  auto *q = new (mem) kro_dm_watched_queue();
  q->head.store(&q->stub, std::memory_order_relaxed);
  q->tail = &q->stub;
  q->max_len = a->max_len;
  q->name = name;
  q->id = id;
  q->drain = a->drain;
  q->drain_arg = a->drain_arg;
  *queue = q;
  return KRO_DM_OK;
}

int kro_dm_watched_queue_register(kro_dm_t *dm, kro_dm_watched_queue_t *q,
                                  kro_dm_watched_queue_fn handler, void *cookie) {
  if (dm == nullptr || q == nullptr || handler == nullptr) {
    return KRO_DM_EINVAL;
  }
  kro_dm_t *none = nullptr;
  if (!q->dm.compare_exchange_strong(none, dm, std::memory_order_acq_rel)) {
    return KRO_DM_EBUSY;
  }
  q->handler = handler;
  q->cookie = cookie;
  dm->queues.fetch_add(1, std::memory_order_relaxed);
  // Publishing the registration admits producers; messages left from an earlier registration
  // are scheduled here (an enqueue under way may schedule too: `scheduled` picks one).
  const uint32_t s = q->state.fetch_or(kro_dm_q_registered, std::memory_order_seq_cst);
  if ((s & kro_dm_q_len_mask) != 0 && !q->scheduled.exchange(true, std::memory_order_seq_cst)) {
    kro_dm_q_schedule(dm, q);
  }
  return KRO_DM_OK;
}

int kro_dm_watched_queue_deregister(kro_dm_t *dm, kro_dm_watched_queue_t *q) {
  if (dm == nullptr || q == nullptr) {
    return KRO_DM_EINVAL;
  }
  if (q->dm.load(std::memory_order_acquire) != dm) {
    return KRO_DM_ENOENT;
  }
  q->state.fetch_and(~kro_dm_q_registered, std::memory_order_acq_rel);
  unsigned round = 0;
  while ((q->state.load(std::memory_order_acquire) & kro_dm_q_inflight_mask) != 0) {
    kro_dm_backoff(&round);
  }
  // No producer touches the manager for this queue any more: take it off every run list.
  kro_dm_queues_collect(dm);
  kro_dm_qlist_unlink(q);
  if (dm->running == q) {
    dm->running = nullptr;
  }
  q->scheduled.store(false, std::memory_order_relaxed);
  q->handler = nullptr;
  q->cookie = nullptr;
  dm->queues.fetch_sub(1, std::memory_order_release);
  q->dm.store(nullptr, std::memory_order_release);
  return KRO_DM_OK;
}

int kro_dm_watched_queue_destroy(kro_dm_watched_queue_t **queue) {
  if (queue == nullptr || *queue == nullptr) {
    return KRO_DM_EINVAL;
  }
  kro_dm_watched_queue *q = *queue;
  if (q->dm.load(std::memory_order_acquire) != nullptr) {
    return KRO_DM_EBUSY;
  }
  if (!kro_dm_q_empty(q)) {
    if (q->drain == nullptr) {
      return KRO_DM_ENOTEMPTY;
    }
    while (void *msg = kro_dm_q_pop(q)) {
      q->state.fetch_sub(1, std::memory_order_relaxed);
      q->drain(msg, q->drain_arg);
    }
  }
  q->~kro_dm_watched_queue();
  free(q);
  *queue = nullptr;
  return KRO_DM_OK;
}

int kro_dm_watched_queue_enqueue(kro_dm_watched_queue_t *q, void *msg) {
  if (q == nullptr || msg == nullptr) {
    return KRO_DM_EINVAL;
  }
  uint32_t s = q->state.load(std::memory_order_relaxed);
  unsigned round = 0;
  for (;;) {
    if ((s & kro_dm_q_registered) == 0) {
      return KRO_DM_ENOTCONN;
    }
    if ((s & kro_dm_q_len_mask) >= q->max_len) {
      return KRO_DM_EAGAIN;
    }
    if ((s & kro_dm_q_inflight_mask) == kro_dm_q_inflight_mask) {
      kro_dm_backoff(&round);  // 2047 enqueues under way at once: let one finish
      s = q->state.load(std::memory_order_relaxed);
      continue;
    }
    if (q->state.compare_exchange_weak(s, s + kro_dm_q_inflight_one + 1, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
      break;
    }
  }
  kro_dm_q_push(q, msg);
  if (!q->scheduled.load(std::memory_order_seq_cst) &&
      !q->scheduled.exchange(true, std::memory_order_seq_cst)) {
    kro_dm_q_schedule(q->dm.load(std::memory_order_relaxed), q);
  }
  q->state.fetch_sub(kro_dm_q_inflight_one, std::memory_order_release);
  return KRO_DM_OK;
}

int kro_dm_watched_queue_dequeue(kro_dm_watched_queue_t *q, void **msg) {
  if (q == nullptr || msg == nullptr) {
    return KRO_DM_EINVAL;
  }
  void *m = kro_dm_q_pop(q);
  if (m == nullptr) {
    return KRO_DM_ENOMSG;
  }
  q->state.fetch_sub(1, std::memory_order_relaxed);
  *msg = m;
  return KRO_DM_OK;
}

uint32_t kro_dm_watched_queue_count(const kro_dm_watched_queue_t *q) {
  return q == nullptr ? 0 : q->state.load(std::memory_order_relaxed) & kro_dm_q_len_mask;
}

const char *kro_dm_watched_queue_name(const kro_dm_watched_queue_t *q) {
  return q == nullptr ? nullptr : q->name;
}

uint32_t kro_dm_watched_queue_id(const kro_dm_watched_queue_t *q) {
  return q == nullptr ? 0 : q->id;
}

}  // extern "C"
