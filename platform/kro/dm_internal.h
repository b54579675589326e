// Records of the dispatch manager shared by its sources (dm*.cpp, mgd_timer.cpp).
//
// Locking, in one place (checked by clang's -Wthread-safety, see kro/kro_mutex.h):
// - the timer heap, the due list and the timer records' state are guarded by
//   kro_dm::timer_mutex; `next_deadline` mirrors the heap's top for lock-free peeks;
// - watched queues are lock-free: producers touch `state`, `head`, `scheduled` and the
//   manager's `incoming` stack, `sleeping` and eventfd; everything else is the owner's;
// - descriptor records, the queue run lists and the event buffer are the owner's alone.
#ifndef KRO_DM_INTERNAL_H_
#define KRO_DM_INTERNAL_H_

#include <kro/dm.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "kro/kro_mutex.h"

constexpr uint64_t kro_dm_never = UINT64_MAX;
constexpr unsigned kro_dm_max_events = 64;
// Separation between fields written by different threads (heap records cannot be over-aligned:
// they come from calloc, so padding stands in for alignas).
constexpr size_t kro_dm_line = 64;

// ---- Watched queues ----------------------------------------------------------------------

struct kro_dm_qlist;

// The `state` word: bit 31 registered; bits 20..30 enqueues under way; bits 0..19 the length
// (messages queued plus enqueues under way). One compare-and-swap admits an enqueue.
constexpr uint32_t kro_dm_q_registered = 0x80000000u;
constexpr uint32_t kro_dm_q_inflight_one = 0x00100000u;
constexpr uint32_t kro_dm_q_inflight_mask = 0x7ff00000u;
constexpr uint32_t kro_dm_q_len_mask = 0x000fffffu;

struct kro_dm_watched_queue {
  // Written by producers.
  std::atomic<uint32_t> state{0};
  std::atomic<void *> head{nullptr};  // the newest node (a message or &stub)
  char pad0[kro_dm_line];
  // Read by producers, written rarely.
  std::atomic<kro_dm_t *> dm{nullptr};  // manager registered with, NULL when none
  std::atomic<bool> scheduled{false};   // queued for a dispatch step (or running)
  uint32_t max_len = 0;
  kro_dm_watched_queue *ready_next = nullptr;  // link in the manager's incoming stack
  char pad1[kro_dm_line];
  // The consumer's.
  void *tail = nullptr;  // the oldest node
  void *stub = nullptr;  // the stub node: its only field is this link word
  kro_dm_watched_queue_fn handler = nullptr;
  void *cookie = nullptr;
  kro_dm_qlist *on_list = nullptr;  // run list holding the queue, NULL when none
  kro_dm_watched_queue *prev = nullptr;
  kro_dm_watched_queue *next = nullptr;
  // Immutable after creation.
  const char *name = nullptr;
  uint32_t id = 0;
  kro_dm_watched_queue_drain_fn drain = nullptr;
  void *drain_arg = nullptr;
};

// An owner-private FIFO of queues.
struct kro_dm_qlist {
  kro_dm_watched_queue *head = nullptr;
  kro_dm_watched_queue *tail = nullptr;
};

// ---- Timers -------------------------------------------------------------------------------

enum kro_dm_timer_state : uint8_t { KRO_DM_TIMER_IDLE, KRO_DM_TIMER_ARMED, KRO_DM_TIMER_DUE };

struct kro_dm_timer;  // below the manager, whose mutex guards it

// ---- Descriptors --------------------------------------------------------------------------

struct kro_dm_fd_rec {
  int fd = -1;
  uint32_t selector = 0;
  kro_dm_fd_fn handler = nullptr;
  void *cookie = nullptr;
  bool armed = false;
  kro_dm_fd_rec *prev = nullptr;
  kro_dm_fd_rec *next = nullptr;
};

// A readiness collected by kro_dm_wait and not yet dispatched; rec NULL once deregistered.
struct kro_dm_ready {
  kro_dm_fd_rec *rec;
  uint32_t events;
};

// Counters bumped by one thread use a relaxed load and store; by several, fetch_add.
struct kro_dm_counter {
  std::atomic<uint64_t> v{0};
  void bump() { v.store(v.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
  uint64_t get() const { return v.load(std::memory_order_relaxed); }
};

// ---- The manager --------------------------------------------------------------------------

struct kro_dm {
  // Touched by producers of every registered queue.
  std::atomic<kro_dm_watched_queue *> incoming{nullptr};  // queues made ready, newest first
  std::atomic<bool> sleeping{false};  // the owner is (about to be) in a blocking epoll_wait
  std::atomic<bool> wake_req{false};
  int efd = -1;
  std::atomic<uint64_t> wakeups{0};
  char pad0[kro_dm_line];

  // Timers.
  kro_mutex timer_mutex;
  kro_dm_timer **heap KRO_GUARDED_BY(timer_mutex) = nullptr;
  uint32_t heap_len KRO_GUARDED_BY(timer_mutex) = 0;
  uint32_t heap_cap KRO_GUARDED_BY(timer_mutex) = 0;
  uint32_t timers KRO_GUARDED_BY(timer_mutex) = 0;  // live timers: the heap's room
  uint64_t seq KRO_GUARDED_BY(timer_mutex) = 0;
  kro_dm_timer *all KRO_GUARDED_BY(timer_mutex) = nullptr;
  kro_dm_timer *due_head KRO_GUARDED_BY(timer_mutex) = nullptr;
  kro_dm_timer *due_tail KRO_GUARDED_BY(timer_mutex) = nullptr;
  std::atomic<uint64_t> next_deadline{kro_dm_never};
  char pad1[kro_dm_line];

  // Set before the manager is shared.
  kro_dm_clock_fn clock = nullptr;
  void *clock_arg = nullptr;

  // The owner's.
  int epfd = -1;
  bool in_dispatch = false;
  kro_dm_qlist pending;                     // queues to run at the next dispatch step
  kro_dm_qlist batch;                       // queues of the dispatch step under way
  kro_dm_watched_queue *running = nullptr;  // queue whose handler runs; cleared by deregister
  std::atomic<uint32_t> queues{0};          // queues registered
  uint32_t trees = 0;                       // managed timer trees attached
  kro_dm_fd_rec *fds = nullptr;
  uint32_t fds_armed = 0;
  uint32_t ev_pos = 0;
  uint32_t ev_count = 0;
  kro_dm_ready ev[kro_dm_max_events] = {};

  std::atomic<uint32_t> spin_ns{KRO_DM_SPIN_DEFAULT_NS};  // any thread may set it
  uint64_t last_gap = kro_dm_never;                       // ns the owner last idled (sleep or spin)

  kro_dm_counter sleeps;
  kro_dm_counter spins;
  kro_dm_counter polls;
  kro_dm_counter dispatches;
  kro_dm_counter queue_runs;
  kro_dm_counter timer_runs;
  kro_dm_counter fd_runs;
};

// ---- Timers (continued) ------------------------------------------------------------------

// Everything but `dm`, `handler` and `cookie` (set at creation) is guarded by the timer_mutex
// of the manager `dm`. The analysis cannot check that: records are reached through the
// manager's heap and lists, and it cannot tell that a record's `dm` is the manager whose mutex
// the caller holds; the functions that touch these fields require that mutex instead.
struct kro_dm_timer {
  kro_dm *dm = nullptr;  // immutable
  kro_dm_timer_fn handler = nullptr;
  void *cookie = nullptr;
  uint64_t deadline = 0;
  uint64_t seq = 0;  // arming order, breaks deadline ties
  uint32_t heap_index = 0;
  kro_dm_timer_state state = KRO_DM_TIMER_IDLE;
  bool running = false;  // its handler is executing
  bool deleted = false;  // deleted while running: freed after
  kro_dm_timer *due_prev = nullptr;
  kro_dm_timer *due_next = nullptr;
  kro_dm_timer *all_prev = nullptr;
  kro_dm_timer *all_next = nullptr;
};

// Shared between the sources, not exported from the shared library.
#define KRO_DM_INTERNAL __attribute__((visibility("hidden")))
KRO_DM_INTERNAL uint64_t kro_dm_clock_now(const kro_dm *dm);
// Writes the eventfd when the owner sleeps (only one caller per sleep does).
KRO_DM_INTERNAL void kro_dm_wake_sleeper(kro_dm *dm);
// Runs the due timers, the ready queues (dispatch steps 2 and 3).
KRO_DM_INTERNAL void kro_dm_timers_run(kro_dm *dm);
KRO_DM_INTERNAL void kro_dm_queues_run(kro_dm *dm);
// Moves the incoming stack into the pending list, oldest first.
KRO_DM_INTERNAL void kro_dm_queues_collect(kro_dm *dm);
// Frees every timer (destroy: no other thread uses the manager any more) and every descriptor
// record.
KRO_DM_INTERNAL void kro_dm_timers_free_all(kro_dm *dm) KRO_NO_TSA;
KRO_DM_INTERNAL void kro_dm_fds_free_all(kro_dm *dm);
// Arms `timer` for an absolute deadline on the manager's clock (the managed timer trees).
KRO_DM_INTERNAL int kro_dm_timer_set_deadline(kro_dm *dm, kro_dm_timer *timer, uint64_t deadline);

// ---- A binary min-heap of records keyed by (deadline, seq) --------------------------------
// T has `deadline`, `seq` and `heap_index`. The array is grown only by kro_dm_heap_reserve, so
// pushes never allocate.

template <typename T>
bool kro_dm_heap_less(const T *a, const T *b) {
  return a->deadline != b->deadline ? a->deadline < b->deadline : a->seq < b->seq;
}

template <typename T>
void kro_dm_heap_place(T **h, uint32_t i, T *x) {
  h[i] = x;
  x->heap_index = i;
}

template <typename T>
void kro_dm_heap_up(T **h, uint32_t i, T *x) {
  while (i > 0) {
    const uint32_t parent = (i - 1) / 2;
    if (!kro_dm_heap_less(x, h[parent])) {
      break;
    }
    kro_dm_heap_place(h, i, h[parent]);
    i = parent;
  }
  kro_dm_heap_place(h, i, x);
}

template <typename T>
void kro_dm_heap_down(T **h, uint32_t n, uint32_t i, T *x) {
  for (;;) {
    uint32_t child = 2 * i + 1;
    if (child >= n) {
      break;
    }
    if (child + 1 < n && kro_dm_heap_less(h[child + 1], h[child])) {
      ++child;
    }
    if (!kro_dm_heap_less(h[child], x)) {
      break;
    }
    kro_dm_heap_place(h, i, h[child]);
    i = child;
  }
  kro_dm_heap_place(h, i, x);
}

// Makes room for `need` entries. False when realloc fails (the heap is unchanged).
constexpr uint32_t kro_dm_heap_initial = 8;

template <typename T>
bool kro_dm_heap_reserve(T ***h, uint32_t *cap, uint32_t need) {
  if (need <= *cap) {
    return true;
  }
  uint32_t n = *cap < kro_dm_heap_initial ? kro_dm_heap_initial : *cap;
  while (n < need) {
    n *= 2;
  }
  void *p = realloc(*h, static_cast<size_t>(n) * sizeof(T *));
  if (p == nullptr) {
    return false;
  }
  *h = static_cast<T **>(p);
  *cap = n;
  return true;
}

template <typename T>
void kro_dm_heap_push(T **h, uint32_t *n, T *x) {
  kro_dm_heap_up(h, (*n)++, x);
}

template <typename T>
void kro_dm_heap_remove(T **h, uint32_t *n, T *x) {
  const uint32_t i = x->heap_index;
  T *last = h[--*n];
  if (last == x) {
    return;
  }
  if (i > 0 && kro_dm_heap_less(last, h[(i - 1) / 2])) {
    kro_dm_heap_up(h, i, last);
  } else {
    kro_dm_heap_down(h, *n, i, last);
  }
}

#endif  // KRO_DM_INTERNAL_H_
