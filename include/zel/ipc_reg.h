/* IPC client registry of libzel_utils.
 *
 * A registry finds the registrations of a process's IPC clients by client id and by client
 * name. Each registration is one heap record carrying both keys; the registry links the same
 * record into two platform tables: an id-keyed hash set (through the record's leading `link`)
 * and a name-keyed hash map (one pair per registration, the record as both key and value).
 *
 * Ownership: the caller owns the top record and every registration. zel_ipc_reg_new allocates
 * a registration and zel_ipc_reg_cleanup frees it; add and delete only link and unlink it. The
 * pointers the lookups return are the caller's own registrations.
 *
 * Threads: no operation takes a lock. The caller serialises every operation on one registry,
 * including the release of a registration against any lookup that could return it. Separate
 * registries share nothing but the trace module, whose once-only registration (the first
 * zel_ipc_reg_mgr_init of the process) is safe to race. zel_ipc_reg_new and
 * zel_ipc_reg_cleanup touch no registry.
 *
 * Tracing: every operation reports through the module "ZEL-IPC-REG-MGR" (zel_ipc_reg_mgr_amdt,
 * see zel/trace.h): each message is echoed on standard output followed by an empty line, and
 * every failure is also an error-level trace point carrying the failure's code. The four hash
 * callbacks trace too, from inside the platform tables, under their own function names: one
 * "ipc reg id is :<id>" or "ipc reg name is :<name>" line per hash computation and one "The
 * value 1:..." line per key comparison. Ids are printed with "%d", so an id above 2^31 - 1
 * shows as a negative number.
 *
 * Equal keys. The registry keeps neither ids nor names unique: zel_ipc_reg_new does not look
 * at any registry and zel_ipc_reg_add inserts without a lookup. With the platform tables of
 * this library, registrations that share an id or a name coexist and stay well defined:
 *   - a lookup returns the most recently added of the linked registrations with that key;
 *   - deleting it uncovers the next most recent one, and deleting an older one leaves the
 *     newer one found, because the set unlinks the very record given and the map removes the
 *     pair keyed by that very record; so no linked registration ever becomes unreachable;
 *   - adding a registration that is already linked changes nothing (both tables refuse the
 *     same record twice), and one delete then unlinks it from both.
 * Deleting a registration that is not linked is a caller error: the set ignores it, but the
 * map, finding no pair keyed by that record, removes the newest pair with an equal name, which
 * then makes that other registration unreachable by name. The same holds for the delete of a
 * registration whose name-map insertion failed for lack of memory (an add reports nothing,
 * such a registration is found by id only).
 */
#ifndef ZEL_IPC_REG_H_
#define ZEL_IPC_REG_H_

#include <stdint.h>

#include <kro/hashset.h>
#include <zel/export.h>
#include <zel/trace.h>

ZEL_BEGIN_DECLS

/* Result codes of zel_ipc_reg_mgr_init; the same numbers are the codes of the error-level
 * trace points. */
#define ZEL_IPC_REG_OK 0u
#define ZEL_IPC_REG_ENOMEM 5u  /* a table could not be created */
#define ZEL_IPC_REG_EINVAL 26u /* NULL top record, or invalid arguments (trace code only) */

/* Longest client name, in characters; the name field holds it and its terminator. */
#define ZEL_IPC_REG_NAME_MAX 100

/* The registry's top record, in the caller's memory. `set` and `map` are filled by
 * zel_ipc_reg_mgr_init; `inited` is set to 1 by it as soon as `top` is accepted and is never
 * read or cleared by the library. */
typedef struct zel_ipc_reg_top {
  kro_hashset_t *set; /* registrations keyed by id */
  kro_hashmap_t *map; /* registrations keyed by name (key and value: the same record) */
  uint32_t inited;
} zel_ipc_reg_top_t;

/* One registration, allocated zero-filled by zel_ipc_reg_new. While it is linked, `id` and
 * `name` must not change, and it may be linked into one registry only. */
typedef struct zel_ipc_reg {
  kro_hashset_link_t link;             /* the id set's chaining; the library's own */
  uint32_t id;                         /* client id, never 0 */
  char name[ZEL_IPC_REG_NAME_MAX + 1]; /* client name, 1 to 100 characters, terminated */
  uint32_t data;                       /* the caller's value, stored and never read */
  uint32_t reserved;                   /* zero; never read or written by the library */
} zel_ipc_reg_t;

/* Sets up a registry in `*top`: registers the trace module once per process (pthread_once,
 * before the first trace), sets `inited` to 1, creates the id set, then the name map.
 * Returns ZEL_IPC_REG_OK; ZEL_IPC_REG_EINVAL for a NULL `top` (nothing changed);
 * ZEL_IPC_REG_ENOMEM when a table cannot be created: `inited` is 1 all the same, and when the
 * map failed the set has been freed again, so nothing stays allocated. After ENOMEM the record
 * holds no usable table (`map` is left as it was when the set failed): do not use it nor pass
 * it to zel_ipc_reg_mgr_cleanup. A later init on the same record starts a new, empty registry.
 * Any thread; calls on one record are serialised by the caller. */
ZEL_API uint32_t zel_ipc_reg_mgr_init(zel_ipc_reg_top_t *top);

/* Releases the two tables of `*top` (the set, then the map) and sets both handles to NULL.
 * Registrations still linked are neither freed nor visited: delete and release them first.
 * `inited` is left as it is. A NULL `top` is traced (at trace level) and ignored. */
ZEL_API void zel_ipc_reg_mgr_cleanup(zel_ipc_reg_top_t *top);

/* Allocates a registration with `id`, `data` and a copy of `name`. Returns it (owned by the
 * caller, released by zel_ipc_reg_cleanup), or NULL when `name` is NULL, empty or longer than
 * ZEL_IPC_REG_NAME_MAX characters or `id` is 0 (error trace, code ZEL_IPC_REG_EINVAL), or when the
 * allocation fails (error trace, code ZEL_IPC_REG_ENOMEM). Looks at no registry: ids and names need
 * not be free. Any thread. */
ZEL_API zel_ipc_reg_t *zel_ipc_reg_new(const char *name, uint32_t id, uint32_t data);

/* Links `entry` into the id set and the name map of `*top` (the map allocates one pair for it,
 * which delete frees; the set allocates nothing but its buckets as it grows). NULL `top` or
 * `entry`: error trace (code ZEL_IPC_REG_EINVAL), nothing changed. The tables' results are not
 * reported (see "Equal keys" above for what a repeated add does). `entry` stays the caller's. */
ZEL_API void zel_ipc_reg_add(zel_ipc_reg_top_t *top, zel_ipc_reg_t *entry);

/* Unlinks `entry` from the id set and removes the name pair keyed by it. NULL `top` or
 * `entry`: error trace (code ZEL_IPC_REG_EINVAL), nothing changed. `entry` is left untouched and
 * stays the caller's; it must be linked (see "Equal keys" above). */
ZEL_API void zel_ipc_reg_delete(zel_ipc_reg_top_t *top, zel_ipc_reg_t *entry);

/* The linked registration whose name equals the first ZEL_IPC_REG_NAME_MAX characters of
 * `name`, or NULL (also for an empty name). A NULL `name` is an error trace (code
 * ZEL_IPC_REG_EINVAL) and NULL. Allocates nothing; the key lives on the stack. Takes a copy of the
 * top record. */
ZEL_API zel_ipc_reg_t *zel_ipc_reg_get_by_name(zel_ipc_reg_top_t top, const char *name);

/* The linked registration with `id`, or NULL (always for id 0). Checks nothing and traces
 * only the search. Allocates nothing. Takes a copy of the top record. */
ZEL_API zel_ipc_reg_t *zel_ipc_reg_get_by_id(zel_ipc_reg_top_t top, uint32_t id);

/* Frees `entry` (NULL: only the trace). It must not be linked: delete it first. Any thread,
 * as long as nothing else uses the same registration. */
ZEL_API void zel_ipc_reg_cleanup(zel_ipc_reg_t *entry);

ZEL_END_DECLS

#endif /* ZEL_IPC_REG_H_ */
