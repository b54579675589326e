/* Feature event loop: the glue between a feature process and its platform.
 *
 * A feature process runs one loop on one thread. zel_fu_register_events creates the loop's
 * handle: it arms the process's message descriptor with the dispatch manager (kro/dm.h) and
 * starts a heartbeat timer leaf (kro/mgd_timer.h). zel_fu_dequeue then waits and dispatches
 * until one event is over: a message received into the caller's event record (host/fu.h), a
 * failed receive, or the exit of the process, which the feature utility asks for through its
 * state word (fu_global.state == FU_STATE_EXIT, read at each heartbeat timer expiry). Before
 * every wait the loop reports a heartbeat to the system manager, and the heartbeat timer makes
 * each wait end at least once per heartbeat timeout. The handle also keeps the feature
 * instances the feature manager has enabled, at most ZEL_FU_INSTANCES_MAX of them.
 *
 * Threads: nothing here locks. Every operation on a handle, its creation and destruction
 * included, runs on the thread that runs the dispatch manager's loop (its owner, see kro/dm.h):
 * the process's main thread. The two handlers run inside that manager's dispatch step, called
 * from zel_fu_dequeue. The state word is read with a relaxed atomic load, so the feature
 * utility may set it from any thread.
 *
 * Ownership: the caller owns the handle (allocated by zel_fu_register_events, freed by
 * zel_fu_handle_destroy or by the exit path of zel_fu_dequeue), its dispatch manager, its
 * descriptor and its event records; the handle owns its timer tree and leaf and the instance
 * records in its queue.
 *
 * Descriptor registration and destruction: the descriptor is registered with the handle as the
 * registration's cookie, re-armed after each received message. Destroying the handle, by
 * zel_fu_handle_destroy or by the exit path, withdraws every registration of the manager whose
 * cookie is the handle (kro_dm_fd_deregister_cookie), even a readiness already collected by a
 * wait, so the manager never calls zel_fu_dm_fd_handler with a destroyed handle. The descriptor
 * itself stays open: it is the caller's.
 *
 * Heartbeat timeout 0: supvd_heartbeat_timeout_get answering 0 means no heartbeat timer. Then
 * no leaf is started at registration and the timer handler leaves the leaf stopped. After each
 * event zel_fu_dequeue restarts the leaf with the current timeout without testing it for 0; the
 * timer layer treats a start with 0 as a stop (kro_mgd_timer_leaf_start), so the leaf stays
 * stopped and waits end only on the descriptor (or on other sources of the same manager).
 * With no heartbeat timer the exit path cannot run: the state word is read only at expiries.
 *
 * Platform failures at registration are not detected: zel_fu_register_events returns the handle
 * all the same, and the loop runs without what failed.
 * - The descriptor cannot be registered (no memory for the manager's record, a descriptor
 *   epoll refuses): it is never armed; zel_fu_dequeue wakes only for the heartbeat timer and
 *   other sources of the manager, and ends only on the exit path.
 * - The timer tree cannot be allocated or attached, or the leaf cannot be allocated: there is no
 *   heartbeat timer (hb_leaf or timer_tree NULL, or a detached tree). Leaf operations on it fail
 *   harmlessly; waits end only on the descriptor; the exit path cannot run, and a message still
 *   ends each zel_fu_dequeue as usual.
 * Nothing crashes or leaks in either case; zel_fu_handle_destroy releases what was made.
 *
 * Telling the exit path apart: zel_fu_dequeue returns 0 both for a received message and after
 * the exit path. The exit path runs only when the state word read FU_STATE_EXIT, so a caller
 * whose state word reads FU_STATE_EXIT after a return of 0 treats the handle as destroyed and
 * does not use or destroy it again. (FU_STATE_EXIT is final. If the state changed after the
 * last expiry, that caller leaks the handle at process exit rather than freeing it twice.)
 *
 * Result codes: ZEL_FU_OK, ZEL_FU_EBUSY (the receive failed or there was no event record) and
 * ZEL_FU_EINVAL (no handle, or a dispatch manager that refuses to wait).
 */
#ifndef ZEL_FU_H_
#define ZEL_FU_H_

#include <stdint.h>

#include <host/fu.h>
#include <kro/dm.h>
#include <kro/mgd_timer.h>
#include <kro/queue.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

#define ZEL_FU_OK 0
#define ZEL_FU_EBUSY 16  /* the receive failed, or zel_fu_dequeue was given no event record */
#define ZEL_FU_EINVAL 22 /* zel_fu_dequeue: NULL handle, or the manager refused to wait */

/* Bound of the queue of enabled feature instances. */
#define ZEL_FU_INSTANCES_MAX 20u

/* The loop's handle. Allocated zero-filled by zel_fu_register_events. */
typedef struct zel_fu_handle {
  kro_dm_t *const *dm_ref;          /* the caller's reference to its manager; kept, must outlive the
                                       handle */
  uint32_t done;                    /* 1 once a callback has ended the current wait */
  uint32_t exit_req;                /* 1 once the timer handler saw FU_STATE_EXIT */
  fu_fsm_event_t *event;            /* the event record of the current zel_fu_dequeue; not owned */
  int32_t result;                   /* outcome of the last receive: ZEL_FU_OK or ZEL_FU_EBUSY */
  kro_mgd_timer_tree_t *timer_tree; /* owned; attached to the manager (NULL if not allocated) */
  kro_mgd_timer_leaf_t *hb_leaf;    /* owned; the one-shot heartbeat leaf, context the handle */
  kro_queue_t instances;            /* the enabled instances (zel_fu_instance_t), bound
                                       ZEL_FU_INSTANCES_MAX */
} zel_fu_handle_t;

/* One enabled feature instance, allocated zero-filled with calloc and freed with free. */
typedef struct zel_fu_instance {
  kro_queue_link_t link; /* reserved for the queue */
  uint32_t instance;     /* as fm_get_feature_instance_req gives it for the enabling request */
} zel_fu_instance_t;

/* Creates the loop's handle for the manager *dm_ref and the message descriptor *fd_ref:
 * registers the descriptor (readable, zel_fu_dm_fd_handler, the handle as cookie), allocates a
 * timer tree attached to the manager with zel_fu_timer_event_handler and a one-shot heartbeat
 * leaf in it (tag 0, the handle as context), starts the leaf when supvd_heartbeat_timeout_get
 * is non-zero, and initialises the instance queue with the bound ZEL_FU_INSTANCES_MAX.
 * Returns the handle, or NULL with nothing allocated or registered for a NULL dm_ref or fd_ref,
 * a NULL manager, a descriptor 0 or negative, or when the handle cannot be allocated. The
 * platform calls' results are not checked (see the head of this header). dm_ref is kept and
 * must stay valid, pointing at the same manager, until the handle is destroyed; the descriptor
 * is read once. The manager's owner thread only. */
ZEL_API zel_fu_handle_t *zel_fu_register_events(kro_dm_t *const *dm_ref, const int32_t *fd_ref);

/* Waits for one event: stores `event` in the handle, then, until a callback ends the wait,
 * reports a heartbeat (supvd_heartbeat(0)), waits on the manager and dispatches. Afterwards it
 * restarts the heartbeat leaf with the current timeout and clears `done`.
 * - A message: the descriptor handler filled *event (word at byte 4 set to 1, at byte 8 the
 *   descriptor, the message from byte 12) and re-armed the descriptor; returns ZEL_FU_OK.
 * - A failed receive, or a NULL event (as soon as the descriptor is readable; the message is
 *   left unread): returns ZEL_FU_EBUSY, and the descriptor stays unarmed for the rest of the
 *   handle's life.
 * - The exit path (the timer handler saw FU_STATE_EXIT, possibly in the same dispatch step as
 *   a message): destroys the handle as zel_fu_handle_destroy does, calls
 *   fu_condnal_postcleanup_done(0) and returns ZEL_FU_OK. The handle no longer exists.
 * - ZEL_FU_EINVAL for a NULL handle, and when the manager refuses to wait (a NULL manager, a
 *   call from inside one of the manager's own handlers, a failing epoll_wait): then the wait is
 *   abandoned at once rather than retried, `done` and `result` are left as they were.
 * The manager's owner thread only, not from inside any handler of the manager. The handle must
 * not be destroyed by another callback of the same manager while this call runs. */
ZEL_API int32_t zel_fu_dequeue(zel_fu_handle_t *handle, fu_fsm_event_t *event);

/* Destroys the handle: withdraws the manager's descriptor registrations whose cookie is the
 * handle, detaches and frees the timer tree, frees the heartbeat leaf, frees every instance
 * record left in the queue and the handle. NULL does nothing. The manager's owner thread only,
 * never while zel_fu_dequeue runs on the handle. The manager (*dm_ref) must still exist. */
ZEL_API void zel_fu_handle_destroy(zel_fu_handle_t *handle);

/* Records the feature instance of `req` (fm_get_feature_instance_req) at the tail of the
 * handle's queue. Returns 1 when recorded; 0 with nothing changed or allocated for a NULL
 * handle or request, when the record cannot be allocated, or when the queue already holds
 * ZEL_FU_INSTANCES_MAX records. The same instance enabled twice is recorded twice. */
ZEL_API int32_t zel_fu_feature_enable(zel_fu_handle_t *handle,
                                      const fm_feature_instance_req_t *req);

/* Removes and frees the first record, from the head, whose instance equals what
 * fm_get_feature_instance_req gives for `req` (asked anew for each record compared). Only one
 * record goes, also when the instance was enabled twice. No match, a NULL handle or a NULL
 * request: nothing happens. */
ZEL_API void zel_fu_feature_disable(zel_fu_handle_t *handle, const fm_feature_instance_req_t *req);

/* Non-zero when the handle records no feature instance (also for a NULL handle), else 0. */
ZEL_API int32_t zel_fu_can_exit(const zel_fu_handle_t *handle);

/* Descriptor handler, called by the manager through the registrations this family makes (the
 * signature of kro_dm_fd_fn; `selector` is not used, `handle` is the zel_fu_handle_t). With no
 * event record it ends the wait with ZEL_FU_EBUSY. Otherwise it initialises the record
 * (fu_fsm_event_init), writes 1 and `fd` into its words at bytes 4 and 8 and receives one
 * message with fu_pmx_recv into the record's bytes from 12 on, with a 40-byte options record
 * that is zero but for the word at byte 4, which is 1 (do not wait when nothing has arrived).
 * A failed receive ends the wait with ZEL_FU_EBUSY and leaves the descriptor unarmed; a
 * received message re-arms it (readable, this handler, same manager and handle) and ends the
 * wait with ZEL_FU_OK. NULL handle: does nothing. */
ZEL_API void zel_fu_dm_fd_handler(kro_dm_t *dm, int fd, uint32_t selector, void *handle);

/* Heartbeat timer handler, called by the manager through the timer tree (the signature of
 * kro_mgd_timer_fn; `tree` is not used, `handle` is the leaf's context). When the state word is
 * FU_STATE_EXIT: ends the wait with an exit request, stops the leaf and returns the stop's
 * result. Otherwise restarts the leaf with supvd_heartbeat_timeout_get and returns the start's
 * result, or returns 0 leaving the leaf stopped when the timeout is 0. NULL handle: returns 0
 * and does nothing. */
ZEL_API int zel_fu_timer_event_handler(kro_mgd_timer_tree_t *tree, kro_mgd_timer_leaf_t *leaf,
                                       void *handle);

ZEL_END_DECLS

#endif /* ZEL_FU_H_ */
