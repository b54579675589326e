/* libkro stand-in: managed timer trees and their leaves.
 *
 * A tree groups timer leaves and, once attached to a dispatch manager, runs one handler for
 * every leaf that expires, from the manager's dispatch step:
 *
 *     handler(tree, leaf, leaf_context)
 *
 * The tree keeps its running leaves ordered by deadline (then by start order) and holds one
 * timer of the manager armed for the nearest, so any number of leaves costs the manager one
 * timer. Timeouts are in milliseconds on the manager's clock (kro_dm_now).
 *
 * Threads: every function here is for the owner of the attached manager (the thread running its
 * loop, handlers included), or for any one thread while the tree is not attached. Nothing here
 * locks.
 *
 * Lifetime: a tree and its leaves are released in any order. Freeing a tree that still has
 * leaves detaches and stops them; the leaves stay valid (starting one then fails with
 * KRO_MGD_TIMER_ENOTCONN) and the tree's memory goes with the last kro_mgd_timer_leaf_free.
 * Leaves and the tree may be stopped, restarted or freed from inside the handler, the expiring
 * leaf included.
 */
#ifndef KRO_MGD_TIMER_H_
#define KRO_MGD_TIMER_H_

#include <stdint.h>

#include <kro/dm.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KRO_MGD_TIMER_OK 0
#define KRO_MGD_TIMER_ENOMEM 12    /* an allocation failed; nothing changed */
#define KRO_MGD_TIMER_EBUSY 16     /* attach: the tree is attached already */
#define KRO_MGD_TIMER_EINVAL 22    /* NULL argument, unknown mode or flags */
#define KRO_MGD_TIMER_ENOTCONN 107 /* the tree is not attached (or was freed) */

typedef struct kro_mgd_timer_tree kro_mgd_timer_tree_t;
typedef struct kro_mgd_timer_leaf kro_mgd_timer_leaf_t;

/* Expiry handler: the tree, the leaf that expired and the leaf's context. The result is not
 * looked at. */
typedef int (*kro_mgd_timer_fn)(kro_mgd_timer_tree_t *tree, kro_mgd_timer_leaf_t *leaf,
                                void *context);

/* Leaf modes (third argument of kro_mgd_timer_leaf_alloc). */
#define KRO_MGD_TIMER_PERIODIC 0u /* after each expiry the leaf runs again for its timeout */
#define KRO_MGD_TIMER_ONESHOT 1u  /* after each expiry the leaf is stopped until started again */

/* A new, detached tree without leaves, or NULL when it cannot be allocated. */
kro_mgd_timer_tree_t *kro_mgd_timer_tree_alloc(void);

/* Releases *tree and sets it to NULL: detaches it first when attached and stops its leaves.
 * With leaves still allocated the memory is kept until the last of them is freed (see above).
 * Safe from inside the tree's handler. Returns 0 (also for *tree NULL), KRO_MGD_TIMER_EINVAL for
 * a NULL address. */
int kro_mgd_timer_tree_free(kro_mgd_timer_tree_t **tree);

/* Attaches the tree to `dm` with `handler`: creates the manager timer that serves the tree
 * (the manager then refuses kro_dm_destroy until detach). Returns 0; KRO_MGD_TIMER_EINVAL for
 * NULL arguments; KRO_MGD_TIMER_EBUSY when attached already; KRO_MGD_TIMER_ENOMEM (nothing
 * changed). */
int kro_mgd_timer_attach_xdm(kro_mgd_timer_tree_t *tree, kro_dm_t *dm, kro_mgd_timer_fn handler);

/* Detaches the tree from its manager: every running leaf is stopped and the manager timer
 * deleted; no handler runs for the tree afterwards (also later in the current dispatch step).
 * Returns 0; KRO_MGD_TIMER_EINVAL for NULL; KRO_MGD_TIMER_ENOTCONN when not attached. */
int kro_mgd_timer_detach_xdm(kro_mgd_timer_tree_t *tree);

/* A new, stopped leaf of `tree`, or NULL (NULL tree, a tree already freed, a mode other than
 * the two above, or no memory). `tag` is the caller's value, kept with the leaf and not
 * interpreted (kro_mgd_timer_leaf_tag); `context` is handed to the handler. */
kro_mgd_timer_leaf_t *kro_mgd_timer_leaf_alloc(kro_mgd_timer_tree_t *tree, uint32_t tag,
                                               uint32_t mode, void *context);

/* Releases *leaf (stopping it) and sets it to NULL. Safe from inside the handler, for the
 * expiring leaf too (its memory is released when the handler returns). Frees the tree's memory
 * when this was the last leaf of a freed tree. Returns 0 (also for *leaf NULL),
 * KRO_MGD_TIMER_EINVAL for a NULL address. */
int kro_mgd_timer_leaf_free(kro_mgd_timer_leaf_t **leaf);

/* (Re)starts the leaf to expire `timeout_ms` milliseconds from now, replacing any earlier
 * start. A timeout of 0 means that no timer is wanted: the leaf is stopped (if it was running)
 * and the call returns 0. `flags` is reserved (0). Returns 0; KRO_MGD_TIMER_EINVAL for a NULL
 * leaf or non-zero flags; KRO_MGD_TIMER_ENOTCONN when the tree is not attached (the leaf stays
 * as it was). */
int kro_mgd_timer_leaf_start(kro_mgd_timer_leaf_t *leaf, uint32_t timeout_ms, uint32_t flags);

/* Stops the leaf: no expiry is reported until it is started again. Returns 0 (also for a leaf
 * that was not running), KRO_MGD_TIMER_EINVAL for NULL. */
int kro_mgd_timer_leaf_stop(kro_mgd_timer_leaf_t *leaf);

/* Non-zero while the leaf is started and has not expired (one-shot) or been stopped. 0 for
 * NULL. */
int kro_mgd_timer_leaf_running(const kro_mgd_timer_leaf_t *leaf);
/* The tag given at allocation; 0 for NULL. */
uint32_t kro_mgd_timer_leaf_tag(const kro_mgd_timer_leaf_t *leaf);

#ifdef __cplusplus
}
#endif

#endif /* KRO_MGD_TIMER_H_ */
