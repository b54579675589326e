/* libkro stand-in: intrusive hash sets, hash maps and the byte hash.
 *
 * A hash set links caller-owned elements through a link field embedded in each element, at a
 * byte offset given at creation. The set never allocates, copies or frees elements; it owns
 * only its slot array. Keys are whatever the hash and match callbacks look at: a lookup
 * passes a key element of the element's shape with only the key fields filled in.
 *
 * None of these functions locks: the owner of a set serialises every call on it.
 */
#ifndef KRO_HASHSET_H_
#define KRO_HASHSET_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The link an element reserves for a set: two pointer-sized words, the set's alone while the
 * element is linked. The set keeps each member's hash beside its pointer in its own slot array,
 * so lookups read only the members whose hash is equal to the key's; the link holds where the
 * element sits (a hint that lets iteration step on without calling back) and, after a growth
 * that could not allocate, chains the element on the set's overflow list with its hash. Its
 * content is undefined outside the set. */
typedef struct kro_hashset_link {
  void *next;
  uintptr_t aux;
} kro_hashset_link_t;

typedef struct kro_hashset kro_hashset_t;

/* Hash of one element (or key element). */
typedef uint32_t (*kro_hashset_hash_fn)(const void *elem);
/* Non-zero when the two elements' keys are equal. Always called as (member, key). */
typedef int (*kro_hashset_match_fn)(const void *member, const void *key);

/* Result codes. */
#define KRO_HASHSET_OK 0
#define KRO_HASHSET_ENOMEM 12 /* the set or its slots could not be allocated */
#define KRO_HASHSET_EINVAL 22 /* NULL set, element or callback */
#define KRO_HASHSET_EEXIST 17 /* insert: this very element is already linked */
#define KRO_HASHSET_ENOENT 2  /* remove: this very element is not linked */

/* Creates an empty set into *set. `size_hint` is the expected number of elements (0: a small
 * default); the set grows (doubling its slots) as it fills, so the hint only saves early
 * growth. `link_offset` is the byte offset of the element's kro_hashset_link_t. `flags` is
 * reserved (pass 0). Returns 0 with *set filled; KRO_HASHSET_EINVAL or KRO_HASHSET_ENOMEM
 * with *set untouched. */
int kro_hashset_create(kro_hashset_t **set, uint32_t size_hint, size_t link_offset,
                       kro_hashset_hash_fn hash, kro_hashset_match_fn match, uint32_t flags);

/* Releases the set (not its elements) and sets *set to NULL. NULL or *set NULL: no-op. */
void kro_hashset_free(kro_hashset_t **set);

/* Links `elem`, calling the hash callback once. Elements with equal keys may coexist: the
 * newest is found first by kro_hashset_get, and removing it uncovers the older one, so no
 * linked element ever becomes unreachable. Linking the same element twice is refused
 * (KRO_HASHSET_EEXIST). A failed growth is not an error: the element is linked all the same
 * (through its link, without allocating) and the set retries the growth at the next insertion;
 * until one succeeds, lookups also walk the elements linked that way. */
int kro_hashset_insert(kro_hashset_t *set, void *elem);

/* Unlinks exactly `elem` (compared by address), calling the hash callback once to find its
 * place. KRO_HASHSET_ENOENT when it is not linked in this set. */
int kro_hashset_remove(kro_hashset_t *set, void *elem);

/* The newest linked element whose key matches `key` (hash callback once on the key, match
 * callback only on elements whose hash is equal to the key's, newest first), or NULL. */
void *kro_hashset_get(kro_hashset_t *set, const void *key);

/* Iteration in the set's own order: first, then next after a given member, then NULL.
 * No element may be inserted or removed between the calls of one walk. Neither calls back for
 * an element this walk returned; next calls the hash callback once on any other member, to find
 * its place. */
void *kro_hashset_first(kro_hashset_t *set);
void *kro_hashset_next(kro_hashset_t *set, const void *elem);

/* Number of linked elements (0 for NULL). */
uint32_t kro_hashset_count(const kro_hashset_t *set);

/* Hash of `len` bytes. Deterministic across processes and word sizes. */
uint32_t kro_hash_calculate(const void *data, size_t len);

/* Hash maps: key/value pairs, keyed through the same callbacks (called with the keys). The
 * map allocates one pair per insertion; keys and values stay the caller's. */
typedef struct kro_hashmap kro_hashmap_t;
typedef struct kro_hashmap_pair kro_hashmap_pair_t;

/* As kro_hashset_create, without a link offset. */
int kro_hashmap_create(kro_hashmap_t **map, uint32_t size_hint, kro_hashset_hash_fn hash,
                       kro_hashset_match_fn match, uint32_t flags);
/* Releases the map and its pairs (not the keys or values); sets *map to NULL. */
void kro_hashmap_free(kro_hashmap_t **map);
/* Adds the pair (key, value), calling the hash callback once. Pairs with equal keys may
 * coexist as in a set, but each key record keys one pair at most: a second insertion with the
 * same key record (compared by address) is refused with KRO_HASHSET_EEXIST and changes
 * nothing. Returns 0, or KRO_HASHSET_ENOMEM when the pair cannot be allocated (nothing
 * added). */
int kro_hashmap_insert(kro_hashmap_t *map, void *key, void *value);
/* Removes one pair whose key matches `key`: the pair whose key is `key` itself when there is
 * one, else the newest matching pair. KRO_HASHSET_ENOENT when none matches. */
int kro_hashmap_remove(kro_hashmap_t *map, const void *key);
/* The newest pair whose key matches, or NULL. */
kro_hashmap_pair_t *kro_hashmap_get(kro_hashmap_t *map, const void *key);
/* The pair's value; NULL for a NULL pair. */
void *kro_hashmap_value(const kro_hashmap_pair_t *pair);
uint32_t kro_hashmap_count(const kro_hashmap_t *map);

#ifdef __cplusplus
}
#endif

#endif /* KRO_HASHSET_H_ */
