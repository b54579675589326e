/* libkro stand-in: the event dispatch manager.
 *
 * A dispatch manager (kro_dm_t *) gathers three kinds of event sources and runs their handlers
 * on one thread, the thread that runs its loop:
 *
 *     for (;;) { kro_dm_wait(dm); kro_dm_dispatch(dm); }
 *
 * - watched queues: intrusive multi-producer FIFO queues of messages; any thread enqueues, and
 *   the queue's handler runs in the dispatch step while the queue holds messages;
 * - timers: one-shot timers on a monotonic clock, armable from any thread;
 * - descriptors: one callback per readiness of a registered descriptor (one-shot, re-armed by
 *   registering again).
 *
 * Threads. "The owner" below is the thread that runs the manager's loop (kro_dm_wait and
 * kro_dm_dispatch) and every handler called from it. Only one thread at a time may act as the
 * owner; another thread may take over between dispatch steps when the caller serialises the
 * hand-over (e.g. before the loop starts or after it has stopped). Each function says whether
 * it is for the owner only or for any thread.
 *
 * Handlers run on the owner thread inside kro_dm_dispatch with no lock of the manager held, so
 * a handler may call any function of this header except kro_dm_wait, kro_dm_dispatch and
 * kro_dm_destroy on its own manager.
 *
 * Wake-ups. A sleeping manager sleeps in epoll_wait on an eventfd and its descriptors. An
 * enqueue writes the eventfd only when it finds the queue idle (not already scheduled for a
 * dispatch step) and the manager asleep; while the owner is busy, or while the queue is already
 * scheduled, an enqueue makes no system call. kro_dm_stats_get counts the writes.
 *
 * Result codes are positive errno numbers, 0 for success. Creation may also pass on the errno
 * of a failed system call (e.g. EMFILE).
 */
#ifndef KRO_DM_H_
#define KRO_DM_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KRO_DM_OK 0
#define KRO_DM_ENOENT 2     /* no such registration (descriptor, or queue not on this manager) */
#define KRO_DM_EAGAIN 11    /* enqueue: the queue holds its length limit */
#define KRO_DM_ENOMEM 12    /* an allocation failed; nothing was changed */
#define KRO_DM_EBUSY 16     /* in use: registered queue, attached timer tree, nested loop call */
#define KRO_DM_EINVAL 22    /* NULL or out-of-range argument, handle of another manager */
#define KRO_DM_ENOTEMPTY 39 /* destroy: messages remain and no drain callback was given */
#define KRO_DM_ENOMSG 42    /* dequeue: the queue holds no message */
#define KRO_DM_ENOTCONN 107 /* enqueue: the queue is not registered (or is being deregistered) */

typedef struct kro_dm kro_dm_t;
typedef struct kro_dm_watched_queue kro_dm_watched_queue_t;
typedef struct kro_dm_timer kro_dm_timer_t;

/* ---- The manager --------------------------------------------------------------------------- */

/* Creates a dispatch manager into *dm: an epoll instance and an eventfd, no timers, queues or
 * descriptors. Any thread. Returns 0 with *dm set; KRO_DM_EINVAL for a NULL dm; KRO_DM_ENOMEM,
 * or the errno of epoll_create1/eventfd, with *dm untouched and nothing left allocated or
 * open. */
int kro_dm_create(kro_dm_t **dm);

/* Destroys *dm and sets it to NULL. Refused with KRO_DM_EBUSY (nothing changed) while a
 * watched queue is registered with it or a managed timer tree is attached to it: deregister and
 * detach them first. Timers that still exist are deleted without their handlers being called,
 * and descriptor registrations are dropped (the descriptors themselves stay open: they are the
 * caller's). KRO_DM_EINVAL for a NULL dm or *dm; KRO_DM_EBUSY also when called from inside one
 * of the manager's own handlers.
 * When the owner may call it: once nothing is registered or attached, and every call another
 * thread made into the manager has either returned or had its effect seen by the owner. Two
 * calls from other threads are done with the manager by the time the owner sees their effect:
 * - kro_dm_watched_queue_enqueue touches the manager only while it holds the queue's
 *   registration, and deregistration waits for such enqueues: once the owner has deregistered
 *   the queue, no enqueue onto it touches the manager again;
 * - kro_dm_timer_settime (and the managed timers' arming) wakes the manager before it lets go
 *   of the timer: once the armed timer's handler has started, the arming call touches the
 *   manager no more, even if it has not returned yet.
 * So an owner may destroy its manager right after a timer handler armed from another thread has
 * run (a channel's clean-up, say). Every other call from another thread (kro_dm_wake,
 * kro_dm_timer_register, kro_dm_timer_cancel, ...) must have returned, and none may follow. */
int kro_dm_destroy(kro_dm_t **dm);

/* Blocks the owner until something is due: a watched queue with messages, a timer whose
 * deadline has passed, a registered descriptor that is ready, or a kro_dm_wake. Returns at once
 * when something is already due. It may also return with nothing due (a signal, a clock that
 * moved back); the following kro_dm_dispatch then does nothing, so callers simply loop. While
 * waiting it sleeps in epoll_wait, with a timeout up to the nearest timer deadline rounded up
 * to whole milliseconds. Descriptor readiness is collected here (and handed to the next
 * dispatch step); when work is already due and descriptors are armed, it polls them without
 * blocking so that busy queues cannot starve descriptors. Owner only. Returns 0; KRO_DM_EINVAL
 * for NULL; KRO_DM_EBUSY from inside a handler; the errno of a failed epoll_wait other than
 * EINTR. */
int kro_dm_wait(kro_dm_t *dm);

/* One dispatch step on the owner thread, in this order:
 *   1. descriptors: one callback for each readiness collected by the last kro_dm_wait;
 *   2. timers: the timers due now are collected first, in deadline order (equal deadlines in
 *      the order they were armed), then their handlers run one after the other. A timer armed
 *      or re-armed during this step, even with {0, 0}, runs at the next step, never in this
 *      one;
 *   3. watched queues: the handler of each queue that holds messages runs once. A queue whose
 *      handler returns with messages left (or that receives messages while its handler runs)
 *      is run again at the next step, and kro_dm_wait returns at once until then.
 * Handlers may delete or re-arm timers, (de)register descriptors and queues, enqueue and
 * dequeue; what they delete or deregister is not called any more in this step. Returns 0;
 * KRO_DM_EINVAL for NULL; KRO_DM_EBUSY when called from inside a handler. */
int kro_dm_dispatch(kro_dm_t *dm);

/* Makes the current kro_dm_wait of the manager return, or the next one return at once, without
 * any work: for stopping a loop from another thread. Several wakes before the wait returns
 * count as one. Any thread. Returns 0, or KRO_DM_EINVAL for NULL. */
int kro_dm_wake(kro_dm_t *dm);

/* The manager's clock: nanoseconds of CLOCK_MONOTONIC, or of the clock set with
 * kro_dm_set_clock. Any thread. 0 for NULL. */
uint64_t kro_dm_now(kro_dm_t *dm);

/* Replaces the manager's clock, for tests that drive time: `clock(arg)` must return a
 * non-decreasing nanosecond count and be callable from every thread that uses the manager.
 * NULL restores CLOCK_MONOTONIC. A kro_dm_wait sleeps at most until the nearest deadline on the
 * given clock measured in real milliseconds, so a test that advances its clock calls kro_dm_wake
 * (or does not wait). Only while no timer is armed (else KRO_DM_EBUSY) and before other threads
 * use the manager. Returns 0, KRO_DM_EINVAL for a NULL dm. */
typedef uint64_t (*kro_dm_clock_fn)(void *arg);
int kro_dm_set_clock(kro_dm_t *dm, kro_dm_clock_fn clock, void *arg);

/* Spinning before sleeping, for up to `spin_ns` nanoseconds (default KRO_DM_SPIN_DEFAULT_NS; 0
 * turns it off). An owner that finds nothing due spins (pause instructions, looking for a ready
 * queue about once a microsecond, so that a stream still arrives in batches) before it sleeps: a
 * message that arrives meanwhile costs neither its sender an eventfd write nor the owner two
 * context switches, which on a virtual machine take tens of microseconds. The spin is adaptive:
 * - it happens only while the owner's last idle gap was shorter than `spin_ns`, and a spin that
 *   finds nothing disables it until a sleep turns out short again, so an idle manager, or one
 *   fed less often than every `spin_ns`, sleeps at once;
 * - it yields the core every few microseconds, and stops (sleeping instead, and disabled as
 *   above) when a yield gave the core to another thread: threads outnumber cores, and the spin
 *   would take the core a sender needs.
 * The cost is bounded: at most `spin_ns` of CPU per idle period, and only while messages come
 * closer together than that. Any thread; takes effect at the owner's next wait. Returns 0,
 * KRO_DM_EINVAL for NULL. */
#define KRO_DM_SPIN_DEFAULT_NS 50000u
int kro_dm_set_spin(kro_dm_t *dm, uint32_t spin_ns);

/* Counters since creation. `wakeups` counts eventfd writes (by enqueues, timer operations from
 * other threads and kro_dm_wake): with coalescing it stays far below the number of messages.
 * `sleeps` counts the epoll_wait calls that could block, `polls` the non-blocking ones. */
typedef struct kro_dm_stats {
  uint64_t wakeups;    /* eventfd writes */
  uint64_t sleeps;     /* blocking epoll_wait calls */
  uint64_t polls;      /* non-blocking epoll_wait calls */
  uint64_t spins;      /* idle waits ended by spinning, without sleeping */
  uint64_t dispatches; /* kro_dm_dispatch calls */
  uint64_t queue_runs; /* watched-queue handler calls */
  uint64_t timer_runs; /* timer handler calls */
  uint64_t fd_runs;    /* descriptor handler calls */
} kro_dm_stats_t;

/* Copies the counters into *stats. Any thread; each counter is read atomically, the set is not
 * a snapshot. Returns 0, or KRO_DM_EINVAL for NULL arguments. */
int kro_dm_stats_get(kro_dm_t *dm, kro_dm_stats_t *stats);

/* ---- Watched queues ------------------------------------------------------------------------ *
 *
 * A watched queue carries messages from any thread to the owner of the manager it is
 * registered with, first in, first out. A message is any pointer-aligned block whose first
 * word is a pointer-sized link word that the queue uses while the message is queued (its value
 * on entry does not matter; dequeue hands the message back with it set to NULL). Nothing is
 * allocated or copied per message: enqueue links the message, and it stays the caller's memory
 * throughout; the queue merely holds it between enqueue and dequeue (or the drain at destroy).
 *
 * Enqueue is lock-free (one compare-and-swap on the length and in-flight count, one exchange on
 * the tail, one release decrement); dequeue is for a single consumer, the owner. */

/* Handler of a watched queue: the queue and the cookie given to kro_dm_watched_queue_register.
 * It runs in the dispatch step while the queue holds messages and normally dequeues them all. */
typedef void (*kro_dm_watched_queue_fn)(kro_dm_watched_queue_t *queue, void *cookie);

/* Called by kro_dm_watched_queue_destroy once for each message still queued, oldest first,
 * with the `drain_arg` of the attributes: the owner's chance to free them. */
typedef void (*kro_dm_watched_queue_drain_fn)(void *msg, void *arg);

/* Queue attributes. The first field is the length limit. */
typedef struct kro_dm_watched_queue_attr {
  uint32_t max_len;                    /* 1 .. KRO_DM_WATCHED_QUEUE_LEN_MAX messages */
  uint32_t flags;                      /* reserved, 0 */
  kro_dm_watched_queue_drain_fn drain; /* NULL: destroy refuses while messages remain */
  void *drain_arg;                     /* second argument of drain */
} kro_dm_watched_queue_attr_t;

#define KRO_DM_WATCHED_QUEUE_LEN_DEFAULT 1024u
#define KRO_DM_WATCHED_QUEUE_LEN_MAX 0xfffffu /* 1048575 */

/* Fills *attr with the defaults: max_len KRO_DM_WATCHED_QUEUE_LEN_DEFAULT, flags 0, no drain
 * callback. Any thread. Returns 0, or KRO_DM_EINVAL for NULL. */
int kro_dm_watched_queue_attr_init(kro_dm_watched_queue_attr_t *attr);

/* Creates an unregistered, empty queue into *queue. `name` is kept by reference (it must
 * outlive the queue; NULL is allowed) and `id` is a value of the caller's kept with the queue;
 * neither is interpreted. `attr` NULL means the defaults. Any thread. Returns 0 with *queue set;
 * KRO_DM_EINVAL for a NULL queue address, a max_len of 0 or above KRO_DM_WATCHED_QUEUE_LEN_MAX,
 * or non-zero flags; KRO_DM_ENOMEM. *queue is untouched on failure. */
int kro_dm_watched_queue_create(const char *name, uint32_t id,
                                const kro_dm_watched_queue_attr_t *attr,
                                kro_dm_watched_queue_t **queue);

/* Registers the queue with `dm`: from now on enqueues are accepted, and `handler(queue,
 * cookie)` runs in dm's dispatch step whenever the queue holds messages (messages already
 * queued from an earlier registration are scheduled at once). Any thread. Returns 0;
 * KRO_DM_EINVAL for NULL dm, queue or handler; KRO_DM_EBUSY when the queue is registered
 * already (with any manager; nothing changed). */
int kro_dm_watched_queue_register(kro_dm_t *dm, kro_dm_watched_queue_t *queue,
                                  kro_dm_watched_queue_fn handler, void *cookie);

/* Withdraws the queue from `dm`. Enqueues are refused with KRO_DM_ENOTCONN from the moment the
 * call starts; it waits (spinning, briefly) for enqueues already under way on other threads to
 * finish, so that when it returns no thread touches the manager on behalf of this queue and the
 * handler is never called again, not even later in the current dispatch step. Messages stay in
 * the queue: dequeue them, re-register, or let destroy drain them. Owner of dm only (also from
 * inside the queue's own handler). Returns 0; KRO_DM_EINVAL for NULL; KRO_DM_ENOENT when the
 * queue is not registered with this manager (nothing changed). */
int kro_dm_watched_queue_deregister(kro_dm_t *dm, kro_dm_watched_queue_t *queue);

/* Destroys an unregistered queue and sets *queue to NULL. Messages still queued go, oldest
 * first, to the attributes' drain callback; without one, destroy refuses with
 * KRO_DM_ENOTEMPTY and changes nothing (dequeue them first). KRO_DM_EBUSY while the queue is
 * registered; KRO_DM_EINVAL for NULL or *queue NULL. The caller serialises it with every other
 * use of the queue: no thread may be inside, or later enter, any queue function with this
 * handle (an enqueue refused by deregistration still reads the queue). */
int kro_dm_watched_queue_destroy(kro_dm_watched_queue_t **queue);

/* Appends `msg` (see above for its link word) at the tail and, when the queue was idle, wakes
 * the manager so that the handler runs. Any thread; lock-free; no system call unless the
 * manager is asleep and the queue idle. Returns 0 when queued (the message now belongs to the
 * queue until it is dequeued); KRO_DM_EINVAL for NULL; KRO_DM_EAGAIN when the queue holds
 * max_len messages; KRO_DM_ENOTCONN when the queue is not registered. On failure the message
 * is untouched and still the caller's. */
int kro_dm_watched_queue_enqueue(kro_dm_watched_queue_t *queue, void *msg);

/* Removes the oldest message into *msg (its link word set to NULL). The owner of the manager
 * the queue is registered with, in or outside the handler; for an unregistered queue, one
 * thread at a time. Returns 0; KRO_DM_ENOMSG when no message is queued (*msg untouched);
 * KRO_DM_EINVAL for NULL. A message whose enqueue is completing on another thread at that very
 * moment is waited for, not reported missing. */
int kro_dm_watched_queue_dequeue(kro_dm_watched_queue_t *queue, void **msg);

/* Number of messages queued, counting enqueues under way. Any thread; a momentary value.
 * 0 for NULL. */
uint32_t kro_dm_watched_queue_count(const kro_dm_watched_queue_t *queue);
/* The name and id given at creation (NULL and 0 for a NULL queue). Any thread. */
const char *kro_dm_watched_queue_name(const kro_dm_watched_queue_t *queue);
uint32_t kro_dm_watched_queue_id(const kro_dm_watched_queue_t *queue);

/* ---- Timers -------------------------------------------------------------------------------- *
 *
 * One-shot timers on the manager's clock. The deadline is the arming time plus the value; the
 * handler runs in the first dispatch step at or after the deadline (never before it; sleeping
 * rounds up to whole milliseconds). A timer exists from its creation to its deletion and may be
 * armed any number of times; its handle is invalid after deletion. */

/* Relative time value: seconds and nanoseconds (nsec below 1000000000). */
typedef struct kro_dm_time {
  uint32_t sec;
  uint32_t nsec;
} kro_dm_time_t;

/* Timer handler: the manager, the timer and the cookie of its creation. The result is not
 * looked at. The handler may re-arm or delete its own timer (delete through
 * kro_dm_timer_register(dm, &timer, NULL, NULL) on its `timer` argument). */
typedef int (*kro_dm_timer_fn)(kro_dm_t *dm, kro_dm_timer_t *timer, void *cookie);

/* With a handler: creates a disarmed timer and writes its handle into *timer; returns 0,
 * KRO_DM_ENOMEM (*timer untouched, nothing allocated) or KRO_DM_EINVAL (NULL dm or timer, or a
 * NULL handler with a non-NULL cookie).
 * With a NULL handler and a NULL cookie: deletes the timer whose handle *timer holds and sets
 * *timer to NULL; returns 0, or KRO_DM_EINVAL when *timer is NULL or belongs to another
 * manager. A deleted timer's handler is never started again. Deleting from inside the timer's
 * own handler is safe (the record is freed after the handler returns); deleting from another
 * thread while the handler runs does not wait for it.
 * Any thread. */
int kro_dm_timer_register(kro_dm_t *dm, kro_dm_timer_t **timer, kro_dm_timer_fn handler,
                          void *cookie);

/* Arms the timer one-shot for `value` from now, replacing any earlier arming that has not run
 * yet. {0, 0} runs the handler once, at the manager's next dispatch step. Wakes the manager when
 * the new deadline is its nearest, before the timer can run: from the moment its handler starts,
 * this call no longer touches the manager (see kro_dm_destroy). Any thread. Returns 0;
 * KRO_DM_EINVAL for NULL arguments, nsec of 1000000000 or more, or a timer of another manager
 * (nothing changed). */
int kro_dm_timer_settime(kro_dm_t *dm, kro_dm_timer_t *timer, const kro_dm_time_t *value);

/* Disarms the timer if it is armed and has not started running. Any thread. Returns 0 (also
 * when it was not armed), KRO_DM_EINVAL for NULL or a timer of another manager. */
int kro_dm_timer_cancel(kro_dm_t *dm, kro_dm_timer_t *timer);

/* ---- Descriptors --------------------------------------------------------------------------- */

#define KRO_DM_FD_READABLE 1u
#define KRO_DM_FD_WRITABLE 2u

/* Descriptor handler: the manager, the descriptor, the selector bits that are ready
 * (KRO_DM_FD_READABLE for input, end of file, hang-up or error when readability was asked;
 * KRO_DM_FD_WRITABLE likewise) and the cookie of the registration. */
typedef void (*kro_dm_fd_fn)(kro_dm_t *dm, int fd, uint32_t selector, void *cookie);

/* Arms one callback of `handler(dm, fd, ready, cookie)` for the next readiness of `fd` among
 * `selector` (KRO_DM_FD_READABLE and/or KRO_DM_FD_WRITABLE). One-shot: after the callback the
 * descriptor is disarmed until it is registered again, typically from the handler after it has
 * consumed the input. Registering an armed descriptor again replaces its handler, cookie and
 * selector. The first registration of a descriptor allocates a small record, re-arming does
 * not. Owner only (the handler included). Returns 0; KRO_DM_EINVAL for NULL dm or handler, a
 * negative fd or a selector outside 1..3; KRO_DM_ENOMEM; the errno of epoll_ctl (e.g. EBADF,
 * or EPERM for a regular file). Nothing changed on failure. */
int kro_dm_fd_register(kro_dm_t *dm, int fd, uint32_t selector, kro_dm_fd_fn handler, void *cookie);

/* Drops the registration of `fd`: its handler is not called again, not even for a readiness
 * already collected by kro_dm_wait. Call it before closing the descriptor or destroying what
 * the cookie points to (also from the handler). Owner only. Returns 0; KRO_DM_EINVAL for NULL;
 * KRO_DM_ENOENT when fd is not registered. */
int kro_dm_fd_deregister(kro_dm_t *dm, int fd);

/* Drops every descriptor registration whose cookie is `cookie`, as kro_dm_fd_deregister: the
 * way for an owner that destroys the object its registrations point to to make sure the
 * manager never calls a handler with it again. Owner only. Returns 0 when at least one was
 * dropped; KRO_DM_ENOENT when none matched; KRO_DM_EINVAL for a NULL dm. */
int kro_dm_fd_deregister_cookie(kro_dm_t *dm, void *cookie);

#ifdef __cplusplus
}
#endif

#endif /* KRO_DM_H_ */
