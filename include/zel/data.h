/* Row data records of libzel_utils: a row of collected data and its four item kinds, with
 * their release (_cleanup) and deep-copy (_dup) operations.
 *
 * Producers outside the library build the records; the library copies and releases them.
 * Every record is one block from the C allocator (malloc, calloc, realloc or strdup), and so is
 * every block a record owns: the release operations hand them back with free.
 *
 * Ownership: a row owns its item array and every item in it; a value owns its data; a template
 * owns its name; an error record owns its detail. Two rows never share an item, and a copy made
 * by a _dup operation shares no memory with its source.
 *
 * Threads: the operations keep no state and take no lock. Any thread may call them; a record
 * that is shared between threads is the caller's to serialise (a _dup only reads its source, so
 * concurrent copies of one unchanging record are fine).
 *
 * Failures: a _dup returns a complete copy or NULL, never a partial copy; when it fails (NULL
 * source, exhausted memory, an item that cannot be copied) it has released whatever it had
 * allocated. The _cleanup operations cannot fail and accept NULL.
 */
#ifndef ZEL_DATA_H_
#define ZEL_DATA_H_

#include <stdint.h>

#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Kinds of the items of a row (zel_row_data_t.kind). Other values may be stored; their items
 * have no type known to the library. */
#define ZEL_ROW_DATA_TEMPLATE 0u /* items are zel_data_template_t */
#define ZEL_ROW_DATA_VALUE 1u    /* items are zel_data_value_t */
#define ZEL_ROW_DATA_COMPLETE 2u /* items are zel_data_complete_t */
#define ZEL_ROW_DATA_ERROR 3u    /* items are zel_data_error_t */

/* One row of collected data: a header and an array of `count` item pointers of one kind.
 * `items` may be NULL: the row then has no item array whatever `count` says. Each slot is NULL
 * or points to an owned record of the type `kind` names. */
typedef struct zel_row_data {
  uint32_t word0; /* carried verbatim by the copy, not interpreted */
  uint32_t word1; /* carried verbatim by the copy, not interpreted */
  uint32_t kind;  /* ZEL_ROW_DATA_* */
  uint32_t count; /* number of slots in items */
  void **items;   /* owned array of owned item records, or NULL */
} zel_row_data_t;

/* One collected value: `len` bytes as received (an address, an object identifier as 32-bit
 * arcs in host byte order, a string, raw octets). `data` is owned and may be NULL. */
typedef struct zel_data_value {
  uint32_t tag;  /* carried verbatim by the copy; no operation of the library reads it */
  uint32_t len;  /* number of bytes in data */
  uint8_t *data; /* owned, or NULL */
} zel_data_value_t;

/* A column template: an owned NUL-terminated name (may be NULL) and four attributes carried
 * verbatim. */
typedef struct zel_data_template {
  char *name;
  uint32_t attr1;
  uint16_t attr2;
  uint32_t attr3;
  uint16_t attr4;
} zel_data_template_t;

/* An error record. `detail` is an owned heap block (or NULL) released with the record.
 * A producer may allocate a larger block that begins with this record and carries fields of its
 * own after it; such fields must own no memory (the release frees only detail and the block),
 * and the library never reads them. There is no copy operation for error records. */
typedef struct zel_data_error {
  uint32_t word0; /* not touched by the library */
  void *detail;
} zel_data_error_t;

/* A completion record. It owns no memory and is released as one block; its fields are the
 * producers' business (a producer may allocate a larger block that begins with this record, as
 * for error records). The library never reads them. There is no copy operation. */
typedef struct zel_data_complete {
  uint32_t word0;
  uint32_t word1;
} zel_data_complete_t;

/* Frees `detail` (if not NULL), then the record. NULL does nothing. */
ZEL_API void zel_data_error_t_cleanup(zel_data_error_t *err);

/* Frees the record. NULL does nothing. */
ZEL_API void zel_data_complete_t_cleanup(zel_data_complete_t *complete);

/* Frees `data` (if not NULL), then the record. NULL does nothing. */
ZEL_API void zel_data_value_t_cleanup(zel_data_value_t *value);

/* Deep copy of a value: a new zeroed record with the source's tag and len, and a new copy of
 * the len bytes of data when the source's data is not NULL (data stays NULL, with the source's
 * len, when the source's data is NULL). A value whose data is not NULL but whose len is 0
 * copies to a value with a distinct non-NULL data block (one byte is allocated), so the copy's
 * data is non-NULL exactly when the source's is.
 * Returns the copy, owned by the caller (release it with zel_data_value_t_cleanup), or NULL for
 * a NULL source or when memory runs out; nothing stays allocated on failure. The source is not
 * changed. */
ZEL_API zel_data_value_t *zel_data_value_t_dup(const zel_data_value_t *value);

/* Frees `name` (if not NULL), then the record. NULL does nothing. */
ZEL_API void zel_data_template_t_cleanup(zel_data_template_t *tmpl);

/* Deep copy of a template: a new zeroed record with a copy of the name (NULL stays NULL) and
 * the four attributes with their widths. Returns the copy, owned by the caller (release it with
 * zel_data_template_t_cleanup), or NULL for a NULL source or when memory runs out; nothing
 * stays allocated on failure. The source is not changed. */
ZEL_API zel_data_template_t *zel_data_template_t_dup(const zel_data_template_t *tmpl);

/* Releases a row: when `items` is not NULL, each non-NULL slot from 0 to count - 1 is released
 * with the cleanup of the row's kind (template, value, completion, error); the items of any
 * other kind are left alone (neither read nor freed). Then the item array and the row are
 * freed. NULL does nothing. */
ZEL_API void zel_row_data_t_cleanup(zel_row_data_t *row);

/* Deep copy of a row: a new zeroed row with word0, word1, kind and count. When the source's
 * items is NULL the copy has items NULL (and the source's count). Otherwise a new array of
 * count slots is made (count 0 gives an array of no slots, which is still a distinct block);
 * a NULL slot stays NULL, a template or value item is copied with its _dup, and an item of any
 * other kind cannot be copied: a row of completions, errors or an unknown kind copies only when
 * all its slots are NULL.
 * Returns the copy, owned by the caller (release it with zel_row_data_t_cleanup), or NULL for a
 * NULL source, when memory runs out, or when an item cannot be copied; a failed copy releases
 * everything it had made, items copied so far included. The source is not changed. */
ZEL_API zel_row_data_t *zel_row_data_t_dup(const zel_row_data_t *row);

ZEL_END_DECLS

#endif /* ZEL_DATA_H_ */
