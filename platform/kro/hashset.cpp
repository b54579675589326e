// Open-addressed table behind kro_hashset_* and kro_hashmap_*.
//
// The table is an array of slots, each the element's 32-bit hash beside its pointer, probed
// linearly from the first slot of the group of four (one cache line on 64-bit targets) that the
// hash names. A lookup compares the four hashes of a group without branching on each and reads
// an element only when its hash is equal, so its one cache miss on the slots and its one on the
// element are all it waits for, its branches follow the usual outcome (found in the home group)
// and back-to-back lookups overlap their misses. Growth moves slots and reads no element.
//
// Equal hashes (hence equal keys) stay newest-first along the probe sequence: an insertion
// rotates the new element in front of those of its hash, deletion shifts later slots back in
// order, and growth re-adds them in probe order. The table is never more than three quarters
// full, so every probe meets an empty slot.
//
// When growth cannot allocate, the element goes on an overflow list chained through its own link
// (no allocation), newest first; while the list is not empty every insertion goes there and
// retries the growth first, which then moves the whole list into the table. So a failed growth
// is never an insertion failure and the newest equal key is still found first (the list is
// searched before the table).
//
// The link of a table element holds the slot it was last seen in: a hint that lets iteration
// step on without calling back, checked against the slot array before use. Overflow elements
// keep their chain in `next` and their hash in `aux`.
#include <kro/hashset.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr uint32_t kro_table_min_slots = 16;
constexpr uint32_t kro_table_max_slots = 1U << 30;
constexpr uint32_t kro_group = 4;  // slots per group; probes start at a group's first slot

struct kro_slot {
  uint32_t hash;
  void *elem;  // NULL: empty
};

constexpr size_t kro_group_bytes = kro_group * sizeof(kro_slot);

// The first slot of h's probe sequence.
inline uint32_t kro_home(uint32_t h, uint32_t mask) {
  return h & mask & ~(kro_group - 1);
}

// n zeroed slots aligned on a group (one allocation, over-allocated by a group); *block gets
// what to free. NULL when the allocation fails.
kro_slot *kro_slots_alloc(uint32_t n, void **block) {
  void *raw = calloc(static_cast<size_t>(n) + kro_group, sizeof(kro_slot));
  if (raw == nullptr) {
    return nullptr;
  }
  *block = raw;
  const size_t skip =
      (kro_group_bytes - reinterpret_cast<uintptr_t>(raw) % kro_group_bytes) % kro_group_bytes;
  return reinterpret_cast<kro_slot *>(static_cast<char *>(raw) + skip);
}

struct kro_table {
  kro_slot *slots;
  void *block;        // the allocation that holds the slots
  uint32_t mask;      // slot count - 1 (a power of two minus one)
  uint32_t limit;     // elements the slots take before they grow: three quarters
  uint32_t in_slots;  // elements in the slots
  uint32_t count;     // all linked elements, overflow list included
  void *overflow;     // newest first, chained through the links' `next`
  size_t link_offset;
};

inline kro_hashset_link_t *kro_table_link(const kro_table &t, const void *elem) {
  return reinterpret_cast<kro_hashset_link_t *>(static_cast<char *>(const_cast<void *>(elem)) +
                                                t.link_offset);
}

// Slots for n elements: the smallest power of two, at least the minimum, of which n fill no
// more than three quarters.
uint32_t kro_table_slots_for(uint32_t n) {
  uint32_t s = kro_table_min_slots;
  while (s < kro_table_max_slots && n > s / 4 * 3) {
    s <<= 1;
  }
  return s;
}

bool kro_table_init(kro_table &t, uint32_t hint, size_t link_offset) {
  const uint32_t n = kro_table_slots_for(hint);
  t.slots = kro_slots_alloc(n, &t.block);
  if (t.slots == nullptr) {
    return false;
  }
  t.mask = n - 1;
  t.limit = n / 4 * 3;
  t.in_slots = 0;
  t.count = 0;
  t.overflow = nullptr;
  t.link_offset = link_offset;
  return true;
}

// Puts (h, elem) in the first empty slot of h's probe sequence: behind every element already
// there, so callers add equal hashes newest first.
inline uint32_t kro_table_append(kro_slot *slots, uint32_t mask, uint32_t h, void *elem) {
  uint32_t i = kro_home(h, mask);
  while (slots[i].elem != nullptr) {
    i = (i + 1) & mask;
  }
  slots[i].hash = h;
  slots[i].elem = elem;
  return i;
}

// Moves every element into `n` fresh slots: the overflow list first (it holds the newest), then
// the old slots along their probe sequences, starting just after an empty slot so that no run of
// equal hashes is cut where the array wraps around. False, with nothing changed, when the slots
// cannot be allocated.
bool kro_table_rebuild(kro_table &t, uint32_t n) {
  void *block = nullptr;
  kro_slot *slots = kro_slots_alloc(n, &block);
  if (slots == nullptr) {
    return false;
  }
  const uint32_t mask = n - 1;
  for (void *e = t.overflow; e != nullptr;) {
    kro_hashset_link_t *l = kro_table_link(t, e);
    void *next = l->next;
    kro_table_append(slots, mask, static_cast<uint32_t>(l->aux), e);
    l->next = nullptr;
    e = next;
  }
  uint32_t start = 0;
  while (t.slots[start].elem != nullptr) {  // the slots are never all taken
    ++start;
  }
  for (uint32_t k = 1; k <= t.mask; ++k) {
    const kro_slot &s = t.slots[(start + k) & t.mask];
    if (s.elem != nullptr) {
      kro_table_append(slots, mask, s.hash, s.elem);
    }
  }
  free(t.block);
  t.slots = slots;
  t.block = block;
  t.mask = mask;
  t.limit = n / 4 * 3;
  t.in_slots = t.count;
  t.overflow = nullptr;
  return true;
}

// Where a linked element is: a slot, or the overflow link that points at it.
struct kro_place {
  uint32_t slot;
  void **prev;  // non-NULL: on the overflow list, *prev is the element
};

// The first element with hash h, newest first, for which pred(elem) holds.
template <typename Pred>
bool kro_table_find(const kro_table &t, uint32_t h, Pred pred, kro_place &at) {
  for (void **pp = const_cast<void **>(&t.overflow); *pp != nullptr;) {
    kro_hashset_link_t *l = kro_table_link(t, *pp);
    if (static_cast<uint32_t>(l->aux) == h && pred(*pp)) {
      at = kro_place{0, pp};
      return true;
    }
    pp = &l->next;
  }
  for (uint32_t i = kro_home(h, t.mask); t.slots[i].elem != nullptr; i = (i + 1) & t.mask) {
    if (t.slots[i].hash == h && pred(t.slots[i].elem)) {
      at = kro_place{i, nullptr};
      return true;
    }
  }
  return false;
}

// Links elem, known not to be linked, with hash h.
void kro_table_add(kro_table &t, void *elem, uint32_t h) {
  kro_hashset_link_t *l = kro_table_link(t, elem);
  if ((t.overflow != nullptr || t.in_slots >= t.limit) &&
      (t.mask + 1 >= kro_table_max_slots ||
       !kro_table_rebuild(t, kro_table_slots_for(t.count + 1)))) {
    l->next = t.overflow;
    l->aux = h;
    t.overflow = elem;
    ++t.count;
    return;
  }
  // Into the first empty slot, then rotated in front of the elements of the same hash on the
  // way there: each moves on to the next such slot, the last to the empty one.
  uint32_t i = kro_home(h, t.mask);
  kro_slot carry{h, elem};
  uint32_t at = t.mask + 1;
  for (; t.slots[i].elem != nullptr; i = (i + 1) & t.mask) {
    if (t.slots[i].hash == h) {
      const kro_slot moved = t.slots[i];
      t.slots[i] = carry;
      carry = moved;
      if (at > t.mask) {
        at = i;
      }
    }
  }
  t.slots[i] = carry;
  l->next = nullptr;
  l->aux = at > t.mask ? i : at;
  ++t.in_slots;
  ++t.count;
}

// Unlinks the element at `at`. A slot is refilled by shifting back the elements after it whose
// probe sequences pass over it, in order, so no probe meets an early empty slot.
void *kro_table_unlink(kro_table &t, const kro_place &at) {
  void *elem = nullptr;
  if (at.prev != nullptr) {
    elem = *at.prev;
    kro_hashset_link_t *l = kro_table_link(t, elem);
    *at.prev = l->next;
    l->next = nullptr;
  } else {
    uint32_t hole = at.slot;
    elem = t.slots[hole].elem;
    for (uint32_t j = (hole + 1) & t.mask; t.slots[j].elem != nullptr; j = (j + 1) & t.mask) {
      // The element at j may fill the hole when its home is not in (hole, j], cyclically.
      const uint32_t home = kro_home(t.slots[j].hash, t.mask);
      const bool home_after_hole =
          hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
      if (!home_after_hole) {
        t.slots[hole] = t.slots[j];
        hole = j;
      }
    }
    t.slots[hole].elem = nullptr;
    --t.in_slots;
  }
  --t.count;
  return elem;
}

// The first element in iteration order from slot i on (the overflow list comes before the
// slots); its link's slot hint is refreshed so that kro_hashset_next needs no call back.
void *kro_table_first_from(const kro_table &t, uint32_t i) {
  for (; i <= t.mask; ++i) {
    if (t.slots[i].elem != nullptr) {
      kro_table_link(t, t.slots[i].elem)->aux = i;
      return t.slots[i].elem;
    }
  }
  return nullptr;
}

// The element after elem in iteration order, elem being linked; hash() finds elem's slot when
// its hint is stale.
template <typename Hash>
void *kro_table_next(const kro_table &t, const void *elem, Hash hash) {
  const kro_hashset_link_t *l = kro_table_link(t, elem);
  if (l->aux <= t.mask && t.slots[l->aux].elem == elem) {
    return kro_table_first_from(t, static_cast<uint32_t>(l->aux) + 1);
  }
  for (void *e = t.overflow; e != nullptr; e = kro_table_link(t, e)->next) {
    if (e == elem) {
      return l->next != nullptr ? l->next : kro_table_first_from(t, 0);
    }
  }
  kro_place at{};
  if (!kro_table_find(
          t, hash(elem), [elem](const void *e) { return e == elem; }, at)) {
    return nullptr;
  }
  return kro_table_first_from(t, at.slot + 1);
}

// A lookup past what kro_hashset_get tried: on the overflow list and then the slots when the
// list holds elements, else the slots past the home group's first candidate.
__attribute__((noinline)) void *kro_table_get_rest(const kro_table &t, kro_hashset_match_fn match,
                                                   const void *key, uint32_t h);

// Bit k set when slot k of the group at s holds hash h.
inline unsigned kro_group_candidates(const kro_slot *s, uint32_t h) {
#if defined(__SSE2__)
  static_assert(sizeof(kro_slot) == 16 && offsetof(kro_slot, hash) == 0, "slot layout");
  const __m128i a = _mm_load_si128(reinterpret_cast<const __m128i *>(s));
  const __m128i b = _mm_load_si128(reinterpret_cast<const __m128i *>(s + 1));
  const __m128i c = _mm_load_si128(reinterpret_cast<const __m128i *>(s + 2));
  const __m128i d = _mm_load_si128(reinterpret_cast<const __m128i *>(s + 3));
  const __m128i hashes = _mm_unpacklo_epi64(_mm_unpacklo_epi32(a, b), _mm_unpacklo_epi32(c, d));
  const __m128i eq = _mm_cmpeq_epi32(hashes, _mm_set1_epi32(static_cast<int>(h)));
  return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(eq)));
#else
  return static_cast<unsigned>(s[0].hash == h) | static_cast<unsigned>(s[1].hash == h) << 1 |
         static_cast<unsigned>(s[2].hash == h) << 2 | static_cast<unsigned>(s[3].hash == h) << 3;
#endif
}

void *kro_table_get_rest(const kro_table &t, kro_hashset_match_fn match, const void *key,
                         uint32_t h) {
  if (t.overflow != nullptr) {
    kro_place at{};
    if (!kro_table_find(
            t, h, [match, key](const void *e) { return match(e, key) != 0; }, at)) {
      return nullptr;
    }
    return at.prev != nullptr ? *at.prev : t.slots[at.slot].elem;
  }
  bool home = true;
  for (uint32_t g = kro_home(h, t.mask);; g = (g + kro_group) & t.mask) {
    const kro_slot *s = t.slots + g;
    unsigned cand = kro_group_candidates(s, h);
    if (home && cand != 0) {
      cand &= cand - 1;  // the candidate kro_hashset_get matched already
    }
    home = false;
    for (; cand != 0; cand &= cand - 1) {
      void *e = s[__builtin_ctz(cand)].elem;
      if (e != nullptr && match(e, key) != 0) {
        return e;
      }
    }
    if (s[kro_group - 1].elem == nullptr) {
      return nullptr;
    }
  }
}

}  // namespace

struct kro_hashset {
  kro_table table;
  kro_hashset_hash_fn hash;
  kro_hashset_match_fn match;
};

struct kro_hashmap_pair {
  kro_hashset_link_t link;
  void *key;
  void *value;
};

struct kro_hashmap {
  kro_table table;
  kro_hashset_hash_fn hash;
  kro_hashset_match_fn match;
};

extern "C" {

int kro_hashset_create(kro_hashset_t **set, uint32_t size_hint, size_t link_offset,
                       kro_hashset_hash_fn hash, kro_hashset_match_fn match, uint32_t flags) {
  (void)flags;
  if (set == nullptr || hash == nullptr || match == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  auto *s = static_cast<kro_hashset_t *>(calloc(1, sizeof(kro_hashset_t)));
  if (s == nullptr) {
    return KRO_HASHSET_ENOMEM;
  }
  if (!kro_table_init(s->table, size_hint, link_offset)) {
    free(s);
    return KRO_HASHSET_ENOMEM;
  }
  s->hash = hash;
  s->match = match;
  *set = s;
  return KRO_HASHSET_OK;
}

void kro_hashset_free(kro_hashset_t **set) {
  if (set == nullptr || *set == nullptr) {
    return;
  }
  free((*set)->table.block);
  free(*set);
  *set = nullptr;
}

int kro_hashset_insert(kro_hashset_t *set, void *elem) {
  if (set == nullptr || elem == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  const uint32_t h = set->hash(elem);
  kro_table &t = set->table;
  if (t.overflow == nullptr && t.in_slots < t.limit) {
    // The common case in one pass: the element is not linked yet (no slot of its hash holds
    // it) and no other element has its hash, so it goes into the first empty slot as it is.
    bool same_hash = false;
    uint32_t i = kro_home(h, t.mask);
    for (; t.slots[i].elem != nullptr; i = (i + 1) & t.mask) {
      if (t.slots[i].hash == h) {
        if (t.slots[i].elem == elem) {
          return KRO_HASHSET_EEXIST;
        }
        same_hash = true;
      }
    }
    if (!same_hash) {
      t.slots[i] = kro_slot{h, elem};
      kro_hashset_link_t *l = kro_table_link(t, elem);
      l->next = nullptr;
      l->aux = i;
      ++t.in_slots;
      ++t.count;
      return KRO_HASHSET_OK;
    }
  }
  kro_place at{};
  if (kro_table_find(
          t, h, [elem](const void *e) { return e == elem; }, at)) {
    return KRO_HASHSET_EEXIST;
  }
  kro_table_add(t, elem, h);
  return KRO_HASHSET_OK;
}

int kro_hashset_remove(kro_hashset_t *set, void *elem) {
  if (set == nullptr || elem == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  kro_place at{};
  if (!kro_table_find(
          set->table, set->hash(elem), [elem](const void *e) { return e == elem; }, at)) {
    return KRO_HASHSET_ENOENT;
  }
  kro_table_unlink(set->table, at);
  return KRO_HASHSET_OK;
}

// The hot path, written out: the key's home group's hashes compared at once into a mask of
// candidates, and the first candidate matched (a member is nearly always in its home group and
// alone there with its hash). Short, so that several lookups in a row overlap their misses; the
// rest of the probe is kro_table_get_rest.
void *kro_hashset_get(kro_hashset_t *set, const void *key) {
  if (set == nullptr || key == nullptr) {
    return nullptr;
  }
  const uint32_t h = set->hash(key);
  const kro_table &t = set->table;
  if (t.overflow == nullptr) {
    const kro_slot *s = t.slots + kro_home(h, t.mask);
    const unsigned cand = kro_group_candidates(s, h);
    if (cand != 0) {
      void *e = s[__builtin_ctz(cand)].elem;  // NULL: a stale hash in an emptied slot
      if (e != nullptr && set->match(e, key) != 0) {
        return e;
      }
    } else if (s[kro_group - 1].elem == nullptr) {
      return nullptr;
    }
  }
  return kro_table_get_rest(set->table, set->match, key, h);
}

void *kro_hashset_first(kro_hashset_t *set) {
  if (set == nullptr) {
    return nullptr;
  }
  return set->table.overflow != nullptr ? set->table.overflow : kro_table_first_from(set->table, 0);
}

void *kro_hashset_next(kro_hashset_t *set, const void *elem) {
  if (set == nullptr || elem == nullptr) {
    return nullptr;
  }
  const kro_hashset_hash_fn hash = set->hash;
  return kro_table_next(set->table, elem, [hash](const void *e) { return hash(e); });
}

uint32_t kro_hashset_count(const kro_hashset_t *set) {
  return set == nullptr ? 0 : set->table.count;
}

int kro_hashmap_create(kro_hashmap_t **map, uint32_t size_hint, kro_hashset_hash_fn hash,
                       kro_hashset_match_fn match, uint32_t flags) {
  (void)flags;
  if (map == nullptr || hash == nullptr || match == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  auto *m = static_cast<kro_hashmap_t *>(calloc(1, sizeof(kro_hashmap_t)));
  if (m == nullptr) {
    return KRO_HASHSET_ENOMEM;
  }
  if (!kro_table_init(m->table, size_hint, offsetof(kro_hashmap_pair_t, link))) {
    free(m);
    return KRO_HASHSET_ENOMEM;
  }
  m->hash = hash;
  m->match = match;
  *map = m;
  return KRO_HASHSET_OK;
}

void kro_hashmap_free(kro_hashmap_t **map) {
  if (map == nullptr || *map == nullptr) {
    return;
  }
  kro_table &t = (*map)->table;
  for (void *e = t.overflow; e != nullptr;) {
    void *next = kro_table_link(t, e)->next;
    free(e);
    e = next;
  }
  for (uint32_t i = 0; i <= t.mask; ++i) {
    free(t.slots[i].elem);
  }
  free(t.block);
  free(*map);
  *map = nullptr;
}

int kro_hashmap_insert(kro_hashmap_t *map, void *key, void *value) {
  if (map == nullptr || key == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  // One pair per key record, as a set holds each element once: a pair keyed by this very
  // record is left as it is, so one remove always takes the record's pair out.
  const uint32_t h = map->hash(key);
  kro_place at{};
  if (kro_table_find(
          map->table, h,
          [key](const void *e) { return static_cast<const kro_hashmap_pair_t *>(e)->key == key; },
          at)) {
    return KRO_HASHSET_EEXIST;
  }
  auto *pair = static_cast<kro_hashmap_pair_t *>(calloc(1, sizeof(kro_hashmap_pair_t)));
  if (pair == nullptr) {
    return KRO_HASHSET_ENOMEM;
  }
  pair->key = key;
  pair->value = value;
  kro_table_add(map->table, pair, h);
  return KRO_HASHSET_OK;
}

int kro_hashmap_remove(kro_hashmap_t *map, const void *key) {
  if (map == nullptr || key == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  const uint32_t h = map->hash(key);
  // The pair keyed by this very record first, so that removing one of several equal keys
  // removes the caller's own pair; else the newest equal key.
  kro_place at{};
  const kro_hashset_match_fn match = map->match;
  if (!kro_table_find(
          map->table, h,
          [key](const void *e) { return static_cast<const kro_hashmap_pair_t *>(e)->key == key; },
          at) &&
      !kro_table_find(
          map->table, h,
          [match, key](const void *e) {
            return match(static_cast<const kro_hashmap_pair_t *>(e)->key, key) != 0;
          },
          at)) {
    return KRO_HASHSET_ENOENT;
  }
  free(kro_table_unlink(map->table, at));
  return KRO_HASHSET_OK;
}

kro_hashmap_pair_t *kro_hashmap_get(kro_hashmap_t *map, const void *key) {
  if (map == nullptr || key == nullptr) {
    return nullptr;
  }
  kro_place at{};
  const kro_hashset_match_fn match = map->match;
  if (!kro_table_find(
          map->table, map->hash(key),
          [match, key](const void *e) {
            return match(static_cast<const kro_hashmap_pair_t *>(e)->key, key) != 0;
          },
          at)) {
    return nullptr;
  }
  return static_cast<kro_hashmap_pair_t *>(at.prev != nullptr ? *at.prev
                                                              : map->table.slots[at.slot].elem);
}

void *kro_hashmap_value(const kro_hashmap_pair_t *pair) {
  return pair == nullptr ? nullptr : pair->value;
}

uint32_t kro_hashmap_count(const kro_hashmap_t *map) {
  return map == nullptr ? 0 : map->table.count;
}

}  // extern "C"
