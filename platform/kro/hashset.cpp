// Open-addressed table behind kro_hashset_* and kro_hashmap_*.
//
// The slots come in groups of four, one cache line each on 64-bit targets (half a line on 32-bit
// ones): the four members' 32-bit hashes side by side, then their four pointers. A hash names its
// home group, and probes go on linearly, slot by slot, from that group's first slot. A lookup
// compares the home group's four hashes in one vector compare and reads an element only when its
// hash is equal, so it waits for one cache miss on the slots and one on the element. Its hot path
// is kept to a few dozen instructions with the usual outcome (found in the home group) falling
// through: back-to-back lookups then fit more of themselves in the processor's window and overlap
// their misses. Growth moves slots and reads no element.
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
// searched before the table). While the list holds elements, the hot path probes a constant
// detour group instead of the slots, which always sends it on to the full search: so the hot path
// does not test for the list.
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

constexpr uint32_t kro_group = 4;  // slots per group; probes start at a group's first slot
constexpr uint32_t kro_table_min_slots = 16;
constexpr uint32_t kro_table_max_slots = 1U << 30;

// A power of two: the group's size rounded up, so that no group straddles a cache line.
constexpr size_t kro_group_align = sizeof(void *) == 8 ? 64 : 32;

struct alignas(kro_group_align) kro_slot_group {
  uint32_t hash[kro_group];
  void *elem[kro_group];  // NULL: empty (its hash is then stale)
};

static_assert(sizeof(kro_slot_group) == kro_group_align, "one group per line (or half line)");

// The group the hot path probes while the overflow list holds elements: hash 0 meets a lane
// without an element first, any other hash meets no lane beside a full last lane, and the hot
// path sends both on to the full search. Its last element is never read.
const kro_slot_group kro_detour = {
    {0, 0, 0, 0}, {nullptr, nullptr, nullptr, const_cast<kro_slot_group *>(&kro_detour)}};

// n zeroed slots (a whole number of groups) aligned on a group; *block gets what to free. NULL
// when the allocation fails.
kro_slot_group *kro_groups_alloc(uint32_t n, void **block) {
  void *raw = calloc(n / kro_group + 1, sizeof(kro_slot_group));
  if (raw == nullptr) {
    return nullptr;
  }
  *block = raw;
  const size_t skip =
      (kro_group_align - reinterpret_cast<uintptr_t>(raw) % kro_group_align) % kro_group_align;
  return reinterpret_cast<kro_slot_group *>(static_cast<char *>(raw) + skip);
}

struct kro_table {
  // What the hot path reads: the groups and the group mask, or the detour and 0.
  const kro_slot_group *probe;
  uint32_t probe_mask;
  uint32_t mask;  // slot count - 1 (a power of two minus one)
  kro_slot_group *groups;
  void *block;        // the allocation that holds the groups
  uint32_t limit;     // elements the slots take before they grow: three quarters
  uint32_t in_slots;  // elements in the slots
  uint32_t count;     // all linked elements, overflow list included
  void *overflow;     // newest first, chained through the links' `next`
  size_t link_offset;

  uint32_t &hash_at(uint32_t i) const { return groups[i / kro_group].hash[i % kro_group]; }
  void *&elem_at(uint32_t i) const { return groups[i / kro_group].elem[i % kro_group]; }
  // The hot path's view, after the overflow list changed or the groups moved.
  void reprobe() {
    probe = overflow != nullptr ? &kro_detour : groups;
    probe_mask = overflow != nullptr ? 0 : mask / kro_group;
  }
};

// The first slot of h's probe sequence: the first slot of the group that h's low bits name.
inline uint32_t kro_home(uint32_t h, uint32_t mask) {
  return (h * kro_group) & mask;
}

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
  t.groups = kro_groups_alloc(n, &t.block);
  if (t.groups == nullptr) {
    return false;
  }
  t.mask = n - 1;
  t.limit = n / 4 * 3;
  t.in_slots = 0;
  t.count = 0;
  t.overflow = nullptr;
  t.link_offset = link_offset;
  t.reprobe();
  return true;
}

// Puts (h, elem) in the first empty slot of h's probe sequence: behind every element already
// there, so callers add equal hashes newest first.
inline uint32_t kro_table_append(kro_table &t, uint32_t h, void *elem) {
  uint32_t i = kro_home(h, t.mask);
  while (t.elem_at(i) != nullptr) {
    i = (i + 1) & t.mask;
  }
  t.hash_at(i) = h;
  t.elem_at(i) = elem;
  return i;
}

// Moves every element into `n` fresh slots: the overflow list first (it holds the newest), then
// the old slots along their probe sequences, starting just after an empty slot so that no run of
// equal hashes is cut where the array wraps around. False, with nothing changed, when the slots
// cannot be allocated.
bool kro_table_rebuild(kro_table &t, uint32_t n) {
  kro_table to = t;
  to.groups = kro_groups_alloc(n, &to.block);
  if (to.groups == nullptr) {
    return false;
  }
  to.mask = n - 1;
  for (void *e = t.overflow; e != nullptr;) {
    kro_hashset_link_t *l = kro_table_link(t, e);
    void *next = l->next;
    kro_table_append(to, static_cast<uint32_t>(l->aux), e);
    l->next = nullptr;
    e = next;
  }
  uint32_t start = 0;
  while (t.elem_at(start) != nullptr) {  // the slots are never all taken
    ++start;
  }
  for (uint32_t k = 1; k <= t.mask; ++k) {
    const uint32_t i = (start + k) & t.mask;
    if (t.elem_at(i) != nullptr) {
      kro_table_append(to, t.hash_at(i), t.elem_at(i));
    }
  }
  free(t.block);
  to.limit = n / 4 * 3;
  to.in_slots = t.count;
  to.overflow = nullptr;
  to.reprobe();
  t = to;
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
  for (uint32_t i = kro_home(h, t.mask); t.elem_at(i) != nullptr; i = (i + 1) & t.mask) {
    if (t.hash_at(i) == h && pred(t.elem_at(i))) {
      at = kro_place{i, nullptr};
      return true;
    }
  }
  return false;
}

// The element at a place found by kro_table_find.
inline void *kro_table_at(const kro_table &t, const kro_place &at) {
  return at.prev != nullptr ? *at.prev : t.elem_at(at.slot);
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
    t.reprobe();
    ++t.count;
    return;
  }
  // Into the first empty slot, then rotated in front of the elements of the same hash on the
  // way there: each moves on to the next such slot, the last to the empty one.
  uint32_t i = kro_home(h, t.mask);
  void *carry = elem;
  uint32_t at = t.mask + 1;
  for (; t.elem_at(i) != nullptr; i = (i + 1) & t.mask) {
    if (t.hash_at(i) == h) {
      void *const moved = t.elem_at(i);
      t.elem_at(i) = carry;
      carry = moved;
      if (at > t.mask) {
        at = i;
      }
    }
  }
  t.hash_at(i) = h;
  t.elem_at(i) = carry;
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
    t.reprobe();
  } else {
    uint32_t hole = at.slot;
    elem = t.elem_at(hole);
    for (uint32_t j = (hole + 1) & t.mask; t.elem_at(j) != nullptr; j = (j + 1) & t.mask) {
      // The element at j may fill the hole when its home is not in (hole, j], cyclically.
      const uint32_t home = kro_home(t.hash_at(j), t.mask);
      const bool home_after_hole =
          hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
      if (!home_after_hole) {
        t.hash_at(hole) = t.hash_at(j);
        t.elem_at(hole) = t.elem_at(j);
        hole = j;
      }
    }
    t.elem_at(hole) = nullptr;
    --t.in_slots;
  }
  --t.count;
  return elem;
}

// The first element in iteration order from slot i on (the overflow list comes before the
// slots); its link's slot hint is refreshed so that kro_hashset_next needs no call back.
void *kro_table_first_from(const kro_table &t, uint32_t i) {
  for (; i <= t.mask; ++i) {
    if (t.elem_at(i) != nullptr) {
      kro_table_link(t, t.elem_at(i))->aux = i;
      return t.elem_at(i);
    }
  }
  return nullptr;
}

// The element after elem in iteration order, elem being linked; hash() finds elem's slot when
// its hint is stale.
template <typename Hash>
void *kro_table_next(const kro_table &t, const void *elem, Hash hash) {
  const kro_hashset_link_t *l = kro_table_link(t, elem);
  if (l->aux <= t.mask && t.elem_at(static_cast<uint32_t>(l->aux)) == elem) {
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

// Bit k set when lane k of group g holds hash h (its element may be gone).
inline unsigned kro_group_candidates(const kro_slot_group *g, uint32_t h) {
#if defined(__SSE2__)
  const __m128i hashes = _mm_load_si128(reinterpret_cast<const __m128i *>(g->hash));
  const __m128i eq = _mm_cmpeq_epi32(hashes, _mm_set1_epi32(static_cast<int>(h)));
  return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(eq)));
#else
  return static_cast<unsigned>(g->hash[0] == h) | static_cast<unsigned>(g->hash[1] == h) << 1 |
         static_cast<unsigned>(g->hash[2] == h) << 2 | static_cast<unsigned>(g->hash[3] == h) << 3;
#endif
}

// A lookup past what kro_hashset_get tried: on the overflow list and then the slots when the
// list holds elements, else the slots past the home group's first candidate. `h` is the key's
// hash.
__attribute__((noinline)) void *kro_table_get_rest(const kro_table &t, kro_hashset_match_fn match,
                                                   const void *key, uint32_t h) {
  if (t.overflow != nullptr) {
    kro_place at{};
    return kro_table_find(
               t, h, [match, key](const void *e) { return match(e, key) != 0; }, at)
               ? kro_table_at(t, at)
               : nullptr;
  }
  bool home = true;
  for (uint32_t g = kro_home(h, t.mask) / kro_group;; g = (g + 1) & (t.mask / kro_group)) {
    const kro_slot_group *s = t.groups + g;
    unsigned cand = kro_group_candidates(s, h);
    if (home && cand != 0) {
      cand &= cand - 1;  // the candidate kro_hashset_get tried already
    }
    home = false;
    for (; cand != 0; cand &= cand - 1) {
      void *e = s->elem[__builtin_ctz(cand)];
      if (e != nullptr && match(e, key) != 0) {
        return e;
      }
    }
    if (s->elem[kro_group - 1] == nullptr) {
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
    for (; t.elem_at(i) != nullptr; i = (i + 1) & t.mask) {
      if (t.hash_at(i) == h) {
        if (t.elem_at(i) == elem) {
          return KRO_HASHSET_EEXIST;
        }
        same_hash = true;
      }
    }
    if (!same_hash) {
      t.hash_at(i) = h;
      t.elem_at(i) = elem;
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
  const kro_slot_group *g = t.probe + (h & t.probe_mask);
  const unsigned cand = kro_group_candidates(g, h);
  if (__builtin_expect(cand != 0, 1)) {
    void *const *at = &g->elem[__builtin_ctz(cand)];
    if (__builtin_expect(*at != nullptr, 1) &&  // NULL: a stale hash in an emptied slot
        __builtin_expect(set->match(*at, key) != 0, 1)) {
      return *at;
    }
  } else if (g->elem[kro_group - 1] == nullptr) {
    return nullptr;
  }
  return kro_table_get_rest(t, set->match, key, h);
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
    free(t.elem_at(i));
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
  return static_cast<kro_hashmap_pair_t *>(kro_table_at(map->table, at));
}

void *kro_hashmap_value(const kro_hashmap_pair_t *pair) {
  return pair == nullptr ? nullptr : pair->value;
}

uint32_t kro_hashmap_count(const kro_hashmap_t *map) {
  return map == nullptr ? 0 : map->table.count;
}

}  // extern "C"
