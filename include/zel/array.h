/* Growable arrays of pointers and of strings.
 *
 * Two families share one record, lib_array_t, and behave identically in every operation,
 * result and limit: lib_array_pointers_* store `void *` values, lib_array_string_* store
 * `char *` values. A string array only refers to the caller's strings; it never copies or
 * frees them.
 *
 * An array is a run of slots with a high-water mark (`used`). Appends write slot `used`.
 * When an append finds the array full it grows linearly by `increment` slots (0 makes the
 * array fixed-size); storage never shrinks. An array created with LIB_ARRAY_SPARSE also
 * supports removal, which leaves a hole holding the array's `empty` value, and insertion,
 * which refills the first hole at or after a given index. A stored value never moves: its
 * index stays valid until it is removed.
 *
 * Counting: `count` rises by one with every successful append or insert, whatever value is
 * stored (the `empty` value included), and falls by one only when a remove replaces a value
 * other than `empty`. A slot reserved by storing `empty` therefore stays counted until it is
 * filled and later removed.
 *
 * Limits: `capacity`, `used` and `count` never exceed 65535 (LIB_ARRAY_MAX). An append that
 * would grow the storage past 65535 slots fails with LIB_ARRAY_FAIL; so does an append or insert
 * that would raise `count` past 65535 (possible only when `empty` values are inserted into counted
 * holes). The array keeps its values in both cases.
 *
 * Reading and releasing: the record is public. Readers index `data` directly below `used`
 * (string readers cast the slot to `char *`) and read `count`. There is no destroy operation:
 * the owner frees `data` and then the record with free().
 *
 * Failure: create returns NULL and leaves nothing allocated; append and insert return
 * LIB_ARRAY_FAIL and leave the array exactly as it was (a failed growth keeps the old storage and
 * its values); remove returns the `empty` value and changes nothing. NULL array arguments are
 * refused the same way (remove then returns NULL, there being no array to take `empty` from).
 *
 * Threads: no operation locks. An array may be used from any thread, but by one at a time:
 * its owner serialises every call and every direct read of the record.
 *
 * Memory: only calloc, malloc and realloc.
 */
#ifndef ZEL_ARRAY_H_
#define ZEL_ARRAY_H_

#include <stdint.h>

#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Bit 0 of `flags`: zero-filled storage (also after each growth), insert and remove
 * allowed. Without it slot contents are undefined until written and the array is
 * append-only. Other flag bits are stored and not interpreted. */
#define LIB_ARRAY_SPARSE 1u

/* Largest capacity, high-water mark and count of an array. */
#define LIB_ARRAY_MAX 65535u

/* Result of append and insert when nothing was stored. */
#define LIB_ARRAY_FAIL (-1)

/* The record of both families. */
typedef struct lib_array {
  void **data;        /* `capacity` slots, owned by the record */
  uint16_t capacity;  /* slots allocated */
  uint16_t increment; /* slots added when an append finds the array full; 0: fixed size */
  uint16_t used;      /* high-water mark: slots 0 to used-1 handed out; never decreases */
  uint8_t flags;      /* LIB_ARRAY_SPARSE and uninterpreted bits */
  void *empty;        /* the value that marks a free slot */
  uint16_t count;     /* counted slots (see the counting rules above) */
} lib_array_t;

/* Creates an array of `capacity` slots. Sparse storage is zero-filled (with 0, not with
 * `empty`).
 * Returns the new array, owned by the caller (release: free(data), then free(array)); NULL
 * for a capacity of 0 (nothing allocated) or when memory can't be had (nothing left
 * allocated). Any thread. */
ZEL_API lib_array_t *lib_array_pointers_create(uint16_t capacity, uint16_t increment, uint8_t flags,
                                               void *empty);

/* Stores `value` in slot `used`, first growing a full array by `increment` slots (sparse:
 * the new slots are zero-filled).
 * Returns the slot's index; LIB_ARRAY_FAIL, with the array unchanged, when the array is NULL,
 * full and fixed-size, would grow past LIB_ARRAY_MAX slots or past LIB_ARRAY_MAX counted slots,
 * or its storage can't be grown. The caller serialises. */
ZEL_API int32_t lib_array_pointers_append(lib_array_t *array, void *value);

/* Sparse arrays only. Stores `value` in the first slot at or after `index` (below `used`)
 * that holds `empty`, raising `count`; with no such hole, or with `index` equal to `used`,
 * appends. Holes below `index` are not considered.
 * Returns the slot's index; LIB_ARRAY_FAIL, with the array unchanged, for a NULL or non-sparse
 * array, an index below 0 or above `used`, a count already at LIB_ARRAY_MAX, or a failed
 * append. The caller serialises. */
ZEL_API int32_t lib_array_pointers_insert(lib_array_t *array, void *value, int32_t index);

/* Sparse arrays only. Writes `empty` into slot `index` and lowers `count` when the slot held
 * another value. Never moves values, lowers `used` or releases storage.
 * Returns the value the slot held; the array's `empty` value (nothing changed) for a
 * non-sparse array, an index outside 0 to used-1, or a slot already holding `empty`; NULL for
 * a NULL array. The caller serialises. */
ZEL_API void *lib_array_pointers_remove(lib_array_t *array, int32_t index);

/* The string family: exactly the pointer family's operations, results and limits, with
 * `char *` values. Strings are referred to, never copied or freed. */
ZEL_API lib_array_t *lib_array_string_create(uint16_t capacity, uint16_t increment, uint8_t flags,
                                             char *empty);
ZEL_API int32_t lib_array_string_append(lib_array_t *array, char *value);
ZEL_API int32_t lib_array_string_insert(lib_array_t *array, char *value, int32_t index);
ZEL_API char *lib_array_string_remove(lib_array_t *array, int32_t index);

ZEL_END_DECLS

#endif /* ZEL_ARRAY_H_ */
