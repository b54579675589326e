// Intrusive chained hash table behind kro_hashset_* and kro_hashmap_*.
//
// Buckets hold element pointers; each element's link carries the next pointer and the
// element's cached hash, so a lookup compares hashes before it calls the match callback and
// growth rehashes without calling back. Chains keep insertion order newest-first, also across
// growth, which is what makes "the newest equal key wins" hold.
#include <kro/hashset.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kro_hashset_min_buckets = 16;

struct kro_table {
  void **buckets;
  uint32_t mask;  // bucket count - 1 (a power of two minus one)
  uint32_t count;
  size_t link_offset;
};

inline kro_hashset_link_t *kro_table_link(const kro_table &t, const void *elem) {
  return reinterpret_cast<kro_hashset_link_t *>(static_cast<char *>(const_cast<void *>(elem)) +
                                                t.link_offset);
}

uint32_t kro_table_buckets_for(uint32_t hint) {
  uint32_t n = kro_hashset_min_buckets;
  while (n < hint && n < (1U << 30)) {
    n <<= 1;
  }
  return n;
}

bool kro_table_init(kro_table &t, uint32_t hint, size_t link_offset) {
  const uint32_t n = kro_table_buckets_for(hint);
  t.buckets = static_cast<void **>(calloc(n, sizeof(void *)));
  if (t.buckets == nullptr) {
    return false;
  }
  t.mask = n - 1;
  t.count = 0;
  t.link_offset = link_offset;
  return true;
}

// Doubles the buckets. Each old chain is reversed and then pushed onto its new chains, so the
// relative order of elements that share a new chain (equal keys among them) is kept.
void kro_table_grow(kro_table &t) {
  const uint32_t old_n = t.mask + 1;
  if (old_n >= (1U << 30)) {
    return;
  }
  const uint32_t new_n = old_n << 1;
  void **nb = static_cast<void **>(calloc(new_n, sizeof(void *)));
  if (nb == nullptr) {
    return;  // keep the old buckets; chains just get longer
  }
  for (uint32_t i = 0; i < old_n; ++i) {
    void *rev = nullptr;
    for (void *e = t.buckets[i]; e != nullptr;) {
      kro_hashset_link_t *l = kro_table_link(t, e);
      void *next = l->next;
      l->next = rev;
      rev = e;
      e = next;
    }
    for (void *e = rev; e != nullptr;) {
      kro_hashset_link_t *l = kro_table_link(t, e);
      void *next = l->next;
      const uint32_t b = static_cast<uint32_t>(l->hash) & (new_n - 1);
      l->next = nb[b];
      nb[b] = e;
      e = next;
    }
  }
  free(t.buckets);
  t.buckets = nb;
  t.mask = new_n - 1;
}

// Links elem with hash h at the head of its chain; refuses an element already linked.
int kro_table_insert(kro_table &t, void *elem, uint32_t h) {
  void **head = &t.buckets[h & t.mask];
  for (void *e = *head; e != nullptr; e = kro_table_link(t, e)->next) {
    if (e == elem) {
      return KRO_HASHSET_EEXIST;
    }
  }
  if (t.count >= t.mask + 1) {
    kro_table_grow(t);
    head = &t.buckets[h & t.mask];
  }
  kro_hashset_link_t *l = kro_table_link(t, elem);
  l->hash = h;
  l->next = *head;
  *head = elem;
  ++t.count;
  return KRO_HASHSET_OK;
}

// Unlinks the first element of h's chain for which pred(elem) holds.
template <typename Pred>
void *kro_table_unlink_if(kro_table &t, uint32_t h, Pred pred) {
  void **pp = &t.buckets[h & t.mask];
  while (*pp != nullptr) {
    void *e = *pp;
    kro_hashset_link_t *l = kro_table_link(t, e);
    if (pred(e, l)) {
      *pp = l->next;
      l->next = nullptr;
      --t.count;
      return e;
    }
    pp = reinterpret_cast<void **>(&l->next);
  }
  return nullptr;
}

template <typename Pred>
void *kro_table_find(const kro_table &t, uint32_t h, Pred pred) {
  for (void *e = t.buckets[h & t.mask]; e != nullptr;) {
    const kro_hashset_link_t *l = kro_table_link(t, e);
    if (l->hash == h && pred(e)) {
      return e;
    }
    e = l->next;
  }
  return nullptr;
}

void *kro_table_first_from(const kro_table &t, uint32_t bucket) {
  for (uint32_t i = bucket; i <= t.mask; ++i) {
    if (t.buckets[i] != nullptr) {
      return t.buckets[i];
    }
  }
  return nullptr;
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
  free((*set)->table.buckets);
  free(*set);
  *set = nullptr;
}

int kro_hashset_insert(kro_hashset_t *set, void *elem) {
  if (set == nullptr || elem == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  return kro_table_insert(set->table, elem, set->hash(elem));
}

int kro_hashset_remove(kro_hashset_t *set, void *elem) {
  if (set == nullptr || elem == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  const uint32_t h = set->hash(elem);
  void *gone = kro_table_unlink_if(set->table, h,
                                   [elem](void *e, kro_hashset_link_t *) { return e == elem; });
  return gone != nullptr ? KRO_HASHSET_OK : KRO_HASHSET_ENOENT;
}

void *kro_hashset_get(kro_hashset_t *set, const void *key) {
  if (set == nullptr || key == nullptr) {
    return nullptr;
  }
  const uint32_t h = set->hash(key);
  const kro_hashset_match_fn match = set->match;
  return kro_table_find(set->table, h, [match, key](void *e) { return match(e, key) != 0; });
}

void *kro_hashset_first(kro_hashset_t *set) {
  return set == nullptr ? nullptr : kro_table_first_from(set->table, 0);
}

void *kro_hashset_next(kro_hashset_t *set, const void *elem) {
  if (set == nullptr || elem == nullptr) {
    return nullptr;
  }
  const kro_hashset_link_t *l = kro_table_link(set->table, elem);
  if (l->next != nullptr) {
    return l->next;
  }
  const uint32_t b = static_cast<uint32_t>(l->hash) & set->table.mask;
  return b == set->table.mask ? nullptr : kro_table_first_from(set->table, b + 1);
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
  for (uint32_t i = 0; i <= t.mask; ++i) {
    for (void *e = t.buckets[i]; e != nullptr;) {
      void *next = kro_table_link(t, e)->next;
      free(e);
      e = next;
    }
  }
  free(t.buckets);
  free(*map);
  *map = nullptr;
}

int kro_hashmap_insert(kro_hashmap_t *map, void *key, void *value) {
  if (map == nullptr || key == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  auto *pair = static_cast<kro_hashmap_pair_t *>(calloc(1, sizeof(kro_hashmap_pair_t)));
  if (pair == nullptr) {
    return KRO_HASHSET_ENOMEM;
  }
  pair->key = key;
  pair->value = value;
  return kro_table_insert(map->table, pair, map->hash(key));
}

int kro_hashmap_remove(kro_hashmap_t *map, const void *key) {
  if (map == nullptr || key == nullptr) {
    return KRO_HASHSET_EINVAL;
  }
  const uint32_t h = map->hash(key);
  // The pair keyed by this very record first, so that removing one of several equal keys
  // removes the caller's own pair; else the newest equal key.
  void *gone = kro_table_unlink_if(map->table, h, [key](void *e, kro_hashset_link_t *) {
    return static_cast<kro_hashmap_pair_t *>(e)->key == key;
  });
  if (gone == nullptr) {
    const kro_hashset_match_fn match = map->match;
    gone = kro_table_unlink_if(map->table, h, [match, key, h](void *e, kro_hashset_link_t *l) {
      return l->hash == h && match(static_cast<kro_hashmap_pair_t *>(e)->key, key) != 0;
    });
  }
  if (gone == nullptr) {
    return KRO_HASHSET_ENOENT;
  }
  free(gone);
  return KRO_HASHSET_OK;
}

kro_hashmap_pair_t *kro_hashmap_get(kro_hashmap_t *map, const void *key) {
  if (map == nullptr || key == nullptr) {
    return nullptr;
  }
  const uint32_t h = map->hash(key);
  const kro_hashset_match_fn match = map->match;
  return static_cast<kro_hashmap_pair_t *>(kro_table_find(map->table, h, [match, key](void *e) {
    return match(static_cast<kro_hashmap_pair_t *>(e)->key, key) != 0;
  }));
}

void *kro_hashmap_value(const kro_hashmap_pair_t *pair) {
  return pair == nullptr ? nullptr : pair->value;
}

uint32_t kro_hashmap_count(const kro_hashmap_t *map) {
  return map == nullptr ? 0 : map->table.count;
}

}  // extern "C"
