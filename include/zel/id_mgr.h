/* ID manager: hands out 32-bit ids and binds each to a caller's context pointer.
 *
 * Ids come from a counter that starts at 1 and runs up through 0xFFFFFFFF; id 0 is never
 * handed out and stands for "no id". When the counter runs past 0xFFFFFFFF it wraps to 1 and
 * the manager sets ZEL_ID_MGR_F_WRAPPED. With ZEL_ID_MGR_F_CHECK_IN_USE also set, ids that are
 * still bound are skipped from then on; without it, ids after a wrap are handed out unchecked.
 *
 * The bindings live in a platform hash set (kro/hashset.h) keyed by id; each binding is a
 * zel_id_mgr_entry_t that the manager allocates with calloc and frees with free.
 *
 * Threads: every function may be called from any thread, but no operation locks. A manager
 * is used by one thread at a time; callers that share one serialise around every call, iterate
 * included. Different managers are independent.
 *
 * Ownership: the caller owns the manager record and the contexts; the manager owns its set and
 * its bindings, and never dereferences, copies or frees a context.
 *
 * Lifecycle: zel_id_mgr_init (or zel_id_mgr_xinit) once, then any number of get, lookup,
 * delete and iterate calls, then zel_id_mgr_cleanup once. A manager whose `set` is NULL (a
 * zero-filled record, also after a failed init, or a manager after cleanup) counts as not
 * initialised: every operation refuses it (ZEL_ID_MGR_ERROR, NULL or nothing) and changes nothing.
 * Calling init again on a live manager without cleanup loses its set; don't.
 *
 * Equal ids: without ZEL_ID_MGR_F_CHECK_IN_USE, a get after a wrap can hand out an id that is
 * still bound. The manager then holds two bindings for that id. The newest shadows the older
 * one: zel_id_mgr_id_to_ctx returns the newest context, zel_id_mgr_delete_id removes the newest
 * binding, after which the older one is found again; zel_id_mgr_iterate visits both, and
 * zel_id_mgr_cleanup frees both. No binding is ever lost or leaked.
 */
#ifndef ZEL_ID_MGR_H_
#define ZEL_ID_MGR_H_

#include <stdint.h>

#include <kro/hashset.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Result codes of the operations that return int32_t. */
#define ZEL_ID_MGR_OK 0
#define ZEL_ID_MGR_ERROR (-1)

/* The id that is never handed out and stands for "no id". */
#define ZEL_ID_MGR_NO_ID 0u

/* Flag bits of zel_id_mgr_t.flags. Skipping happens only while both bits are set; other bits
 * are stored and have no effect. */
#define ZEL_ID_MGR_F_CHECK_IN_USE 0x0001u /* after a wrap, skip ids that are still bound */
#define ZEL_ID_MGR_F_WRAPPED 0x0100u      /* the counter has wrapped; never cleared */

/* The manager. Lives in the caller's memory; the library never allocates it. */
typedef struct zel_id_mgr {
  kro_hashset_t *set; /* the bindings; created by init, released by cleanup */
  uint32_t next_id;   /* next candidate id: 1 after init; 0 once the counter ran past 0xFFFFFFFF */
  uint16_t flags;     /* ZEL_ID_MGR_F_* bits: 0 after init, xinit ORs the caller's flags in */
} zel_id_mgr_t;

/* One binding, allocated zero-filled by the manager. */
typedef struct zel_id_mgr_entry {
  kro_hashset_link_t link; /* reserved for the hash set's chaining */
  uint32_t id;             /* the bound id, never 0 */
  void *ctx;               /* the caller's context, never NULL; never dereferenced */
} zel_id_mgr_entry_t;

/* Iterate callback: the manager, one bound id, its context and the caller's `arg`, in that
 * order. Its result is ignored. It may look ids up with zel_id_mgr_id_to_ctx but must not add
 * or delete any binding of the manager being walked (no zel_id_mgr_get_id, zel_id_mgr_delete_id,
 * init or cleanup on it): the hash set forbids changes during a walk, and the walk steps on
 * from the entry just handed out. Collect the ids and delete them after the walk instead. */
typedef int (*zel_id_mgr_iterate_cb)(zel_id_mgr_t *mgr, uint32_t id, void *ctx, void *arg);

/* Creates the binding set and sets next_id to 1 and flags to 0.
 * Returns ZEL_ID_MGR_OK; ZEL_ID_MGR_ERROR for a NULL mgr or when the set cannot be allocated,
 * and then leaves next_id, flags and set as they were. */
ZEL_API int32_t zel_id_mgr_init(zel_id_mgr_t *mgr);

/* zel_id_mgr_init, then, when it succeeded, ORs `flags` into mgr->flags (ZEL_ID_MGR_F_WRAPPED
 * may be passed to probe from the first get on). Returns the init's result; on failure the
 * manager is left as zel_id_mgr_init leaves it. */
ZEL_API int32_t zel_id_mgr_xinit(zel_id_mgr_t *mgr, uint16_t flags);

/* Releases every binding still present and then the set, leaving mgr->set NULL. The platform
 * set never frees its elements and the manager allocated the bindings, so the manager frees
 * them here rather than lose them; the contexts are not touched. next_id and flags are left as they
 * are. NULL mgr, or a manager not initialised or already cleaned up: does nothing. */
ZEL_API void zel_id_mgr_cleanup(zel_id_mgr_t *mgr);

/* Hands out the next id and binds it to `ctx`.
 * Returns ZEL_ID_MGR_OK with *id set. ZEL_ID_MGR_ERROR without touching the manager or *id for
 * a NULL mgr, ctx or id, or a manager that is not initialised; ZEL_ID_MGR_ERROR with *id set to
 * 0 when the in-use probe runs the counter past 0xFFFFFFFF (next_id is then 1, so the next call
 * probes again from 1), or when the binding cannot be allocated or linked (the candidate id is
 * used up all the same). Every call past the argument checks consumes at least one candidate. */
ZEL_API int32_t zel_id_mgr_get_id(zel_id_mgr_t *mgr, void *ctx, uint32_t *id);

/* The context bound to `id` (the newest binding when there are two), or NULL when nothing is
 * bound, for id 0, a NULL mgr or a manager not initialised. Changes nothing. */
ZEL_API void *zel_id_mgr_id_to_ctx(zel_id_mgr_t *mgr, uint32_t id);

/* Unbinds `id` (its newest binding) and frees the binding; the context is not touched.
 * Returns ZEL_ID_MGR_OK; ZEL_ID_MGR_ERROR with nothing changed when `id` is not bound, for id
 * 0, a NULL mgr or a manager not initialised. */
ZEL_API int32_t zel_id_mgr_delete_id(zel_id_mgr_t *mgr, uint32_t id);

/* Calls `cb(mgr, id, ctx, arg)` once for each binding, in the hash set's own order, on the
 * calling thread. See zel_id_mgr_iterate_cb for what the callback must not do. NULL mgr, NULL
 * cb or a manager not initialised: does nothing. */
ZEL_API void zel_id_mgr_iterate(zel_id_mgr_t *mgr, zel_id_mgr_iterate_cb cb, void *arg);

ZEL_END_DECLS

#endif /* ZEL_ID_MGR_H_ */
