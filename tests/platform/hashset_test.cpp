// The stand-in's intrusive hash sets and hash maps: equal keys across growth, iteration, the
// map's removal preference, allocation failures.
#include <gtest/gtest.h>
#include <kro/hashset.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <random>
#include <set>
#include <vector>

#include "support/fault.h"

namespace {

// The link deliberately not first, so that the link offset is exercised.
struct Item {
  uint64_t pad;
  kro_hashset_link_t link;
  uint32_t key;
};

uint32_t item_hash(const void *e) {
  return kro_hash_calculate(&static_cast<const Item *>(e)->key, sizeof(uint32_t));
}

int item_match(const void *member, const void *key) {
  return static_cast<const Item *>(member)->key == static_cast<const Item *>(key)->key ? 1 : 0;
}

// A set and a map, both freed at the end with nothing left allocated.
struct HashSet : ::testing::Test {
  long live_before = zel_test::fault_live_blocks();
  kro_hashset_t *set = nullptr;
  kro_hashmap_t *map = nullptr;
  std::deque<Item> items;
  void SetUp() override {
    // Each allocation of a creation (the table record, its buckets) failed in turn: ENOMEM, the
    // handle left alone, nothing left allocated.
    for (bool is_map : {false, true}) {
      EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
                  kro_hashset_t *s = nullptr;
                  kro_hashmap_t *m = nullptr;
                  zel_test::FaultScope fault(n);
                  const int rc = is_map ? kro_hashmap_create(&m, 99, item_hash, item_match, 0)
                                        : kro_hashset_create(&s, 99, 8, item_hash, item_match, 0);
                  EXPECT_EQ(rc == KRO_HASHSET_ENOMEM && !s && !m, zel_test::fault_fired());
                  kro_hashset_free(&s);
                  kro_hashmap_free(&m);
                  return zel_test::fault_fired();
                }),
                2u)
          << is_map;
    }
    ASSERT_EQ(kro_hashset_create(&set, 0, offsetof(Item, link), item_hash, item_match, 0), 0);
    ASSERT_EQ(kro_hashmap_create(&map, 0, item_hash, item_match, 0), 0);
  }
  void TearDown() override {
    kro_hashset_free(&set);
    kro_hashmap_free(&map);  // frees the pairs left
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
  }
  Item *item(uint32_t key) { return &items.emplace_back(Item{0, {}, key}); }
  void fill(uint32_t n) {  // n elements with keys 1000 and up
    for (uint32_t end = static_cast<uint32_t>(items.size()) + n; items.size() < end;) {
      ASSERT_EQ(kro_hashset_insert(set, item(1000 + static_cast<uint32_t>(items.size()))), 0);
    }
  }
};

// Equal keys interleaved with others through several doublings (the first of which cannot
// allocate, which is no error): the newest is found first, removing it uncovers the next
// newest, removing an older one changes nothing visible, and a walk visits each element once.
TEST_F(HashSet, EqualKeysNewestFirstAcrossGrowthAndWalk) {
  fill(12);  // three quarters of the default 16 slots
  {
    zel_test::FaultScope fault(1);
    fill(1);
    EXPECT_TRUE(zel_test::fault_fired());
  }
  std::vector<Item *> dups;
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(kro_hashset_insert(set, dups.emplace_back(item(5))), KRO_HASHSET_OK);
    fill(10);
    ASSERT_EQ(kro_hashset_get(set, item(5)), dups.back());
  }
  EXPECT_EQ(kro_hashset_insert(set, dups[0]), KRO_HASHSET_EEXIST);
  EXPECT_EQ(kro_hashset_remove(set, item(5)), KRO_HASHSET_ENOENT);  // equal key, not linked
  std::set<void *> seen;
  for (void *e = kro_hashset_first(set); e != nullptr && seen.insert(e).second;) {
    e = kro_hashset_next(set, e);
  }
  EXPECT_EQ(seen.size(), 453u);                                  // each element once
  EXPECT_EQ(kro_hashset_remove(set, dups[10]), KRO_HASHSET_OK);  // an older one
  for (size_t i = 40; i-- > 0;) {
    ASSERT_EQ(kro_hashset_get(set, item(5)), dups[i == 10 ? 9 : i]) << i;
    EXPECT_EQ(kro_hashset_remove(set, dups[i]), i == 10 ? KRO_HASHSET_ENOENT : KRO_HASHSET_OK);
  }
  EXPECT_EQ(kro_hashset_count(set), 413u);
}

// A map removes the pair keyed by the very key record when there is one, else the newest
// matching pair; a pair that cannot be allocated is not added.
TEST_F(HashSet, MapRemovalPreferenceAndAllocationFailure) {
  Item *a = item(1), *b = item(1), *c = item(1);
  for (Item *e : {a, b, c}) {
    ASSERT_EQ(kro_hashmap_insert(map, e, e), KRO_HASHSET_OK);
  }
  EXPECT_EQ(kro_hashmap_remove(map, a), KRO_HASHSET_OK);  // a's own pair, not c's
  EXPECT_EQ(kro_hashmap_value(kro_hashmap_get(map, a)), c);
  EXPECT_EQ(kro_hashmap_remove(map, item(1)), KRO_HASHSET_OK);  // keys no pair: the newest
  EXPECT_EQ(kro_hashmap_value(kro_hashmap_get(map, a)), b);
  {
    zel_test::FaultScope fault(1);  // the pair
    EXPECT_EQ(kro_hashmap_insert(map, item(2), a), KRO_HASHSET_ENOMEM);
  }
  EXPECT_EQ(kro_hashmap_get(map, item(2)), nullptr);
  EXPECT_EQ(kro_hashmap_count(map), 1u);
}

// Hashes that crowd the slots: few distinct values, and values whose home slots are the last
// ones, so that runs of equal and unequal hashes wrap around the end of the slot array.
enum class Spread { kFull, kFew, kWrapping };
Spread g_spread = Spread::kFull;

uint32_t model_hash(const void *e) {
  const uint32_t key = static_cast<const Item *>(e)->key;
  switch (g_spread) {
    case Spread::kFew:
      return key % 5;
    case Spread::kWrapping:
      return 0xFFFFFFFFu - key % 7;
    case Spread::kFull:
      break;
  }
  return kro_hash_calculate(&key, sizeof key);
}

// Random insertions (new elements and linked ones), removals (linked and unlinked) and lookups
// over a small key range, with allocation failures now and then (growths that cannot allocate,
// and map pairs), checked after every step against an oracle: the linked elements in insertion
// order, where a lookup finds the newest of a key. Every few steps a full walk must visit the
// oracle's elements once each, and `next` on a random member (whose place the set may have moved
// since it last handed it out) must give the element the walk put after it.
class HashSetModel : public ::testing::TestWithParam<Spread> {};

TEST_P(HashSetModel, AgreesWithOracle) {
  g_spread = GetParam();
  const long live_before = zel_test::fault_live_blocks();
  kro_hashset_t *set = nullptr;
  kro_hashmap_t *map = nullptr;
  ASSERT_EQ(kro_hashset_create(&set, 0, offsetof(Item, link), model_hash, item_match, 0), 0);
  ASSERT_EQ(kro_hashmap_create(&map, 0, model_hash, item_match, 0), 0);
  std::deque<Item> pool;
  std::vector<Item *> linked;      // the set's members, oldest first
  std::vector<Item *> map_linked;  // the map's keys (each its own value), oldest first
  std::mt19937 rng(GetParam() == Spread::kFull ? 1 : GetParam() == Spread::kFew ? 2 : 3);
  auto newest = [](const std::vector<Item *> &v, uint32_t key) -> Item * {
    for (size_t i = v.size(); i-- > 0;) {
      if (v[i]->key == key) {
        return v[i];
      }
    }
    return nullptr;
  };
  for (int step = 0; step < 6000; ++step) {
    // Grows towards a few hundred elements, then shrinks, then grows again.
    const bool growing = (step / 2000) % 2 == 0;
    const uint32_t key = static_cast<uint32_t>(rng() % 97);
    Item probe{0, {}, key};
    const unsigned op = rng() % 10;
    if (rng() % 2 == 0) {
      zel_test::fault_arm(1);  // the next allocation, if any, fails
    }
    if (op < (growing ? 5u : 2u)) {
      Item *e = &pool.emplace_back(Item{0, {}, key});
      ASSERT_EQ(kro_hashset_insert(set, e), KRO_HASHSET_OK);
      linked.push_back(e);
      const int rc = kro_hashmap_insert(map, e, e);
      ASSERT_TRUE(rc == KRO_HASHSET_OK || (rc == KRO_HASHSET_ENOMEM && zel_test::fault_fired()));
      if (rc == KRO_HASHSET_OK) {
        map_linked.push_back(e);
      }
    } else if (op < 6 && !linked.empty()) {
      Item *e = linked[rng() % linked.size()];
      EXPECT_EQ(kro_hashset_insert(set, e), KRO_HASHSET_EEXIST);
    } else if (op < 8 && !linked.empty()) {
      const size_t at = rng() % linked.size();
      Item *k = rng() % 2 == 0 ? linked[at] : &probe;
      EXPECT_EQ(kro_hashset_remove(set, linked[at]), KRO_HASHSET_OK);
      linked.erase(linked.begin() + static_cast<std::ptrdiff_t>(at));
      // The map removes the key record's own pair when it has one, else the newest of the key.
      Item *gone = std::find(map_linked.begin(), map_linked.end(), k) != map_linked.end()
                       ? k
                       : newest(map_linked, k->key);
      EXPECT_EQ(kro_hashmap_remove(map, k), gone ? KRO_HASHSET_OK : KRO_HASHSET_ENOENT);
      if (gone != nullptr) {
        map_linked.erase(std::find(map_linked.begin(), map_linked.end(), gone));
      }
    } else if (op < 9) {
      EXPECT_EQ(kro_hashset_remove(set, &probe), KRO_HASHSET_ENOENT);
    }
    zel_test::fault_disarm();
    ASSERT_EQ(kro_hashset_get(set, &probe), newest(linked, key)) << step;
    ASSERT_EQ(kro_hashmap_value(kro_hashmap_get(map, &probe)), newest(map_linked, key)) << step;
    ASSERT_EQ(kro_hashset_count(set), linked.size());
    ASSERT_EQ(kro_hashmap_count(map), map_linked.size());
    if (step % 50 == 0) {
      std::vector<void *> walk;
      for (void *e = kro_hashset_first(set); e != nullptr && walk.size() <= linked.size();
           e = kro_hashset_next(set, e)) {
        walk.push_back(e);
      }
      ASSERT_EQ(std::multiset<void *>(walk.begin(), walk.end()),
                std::multiset<void *>(linked.begin(), linked.end()));
      if (!walk.empty()) {
        const size_t at = rng() % walk.size();
        EXPECT_EQ(kro_hashset_next(set, walk[at]), at + 1 < walk.size() ? walk[at + 1] : nullptr);
      }
    }
  }
  kro_hashset_free(&set);
  kro_hashmap_free(&map);  // frees its pairs, those linked after a failed growth included
  EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
  g_spread = Spread::kFull;
}

INSTANTIATE_TEST_SUITE_P(Spreads, HashSetModel,
                         ::testing::Values(Spread::kFull, Spread::kFew, Spread::kWrapping));

// Growth that cannot allocate links the element all the same, without allocating; the newest of
// equal keys is still found first, a removal finds what was linked then, and the next insertion
// that can allocate takes every element into the grown slots. Nothing is left allocated.
TEST_F(HashSet, FailedGrowthLinksWithoutAllocating) {
  fill(12);  // three quarters of the default 16 slots
  Item *old5 = item(5);
  Item *newer5 = item(5);
  Item *six = item(6);
  Item *seven = item(7);
  ASSERT_EQ(kro_hashset_insert(set, old5), KRO_HASHSET_OK);  // grows
  fill(11);                                                  // 24 of 32: full again
  for (Item *e : {newer5, six, seven}) {
    zel_test::FaultScope fault(1);
    const long blocks = zel_test::fault_live_blocks();
    ASSERT_EQ(kro_hashset_insert(set, e), KRO_HASHSET_OK);
    EXPECT_TRUE(zel_test::fault_fired());
    EXPECT_EQ(zel_test::fault_live_blocks(), blocks);
  }
  EXPECT_EQ(kro_hashset_count(set), 27u);
  EXPECT_EQ(kro_hashset_insert(set, newer5), KRO_HASHSET_EEXIST);
  EXPECT_EQ(kro_hashset_get(set, item(5)), newer5);
  EXPECT_EQ(kro_hashset_remove(set, six), KRO_HASHSET_OK);
  EXPECT_EQ(kro_hashset_get(set, item(6)), nullptr);
  ASSERT_EQ(kro_hashset_insert(set, item(8)), KRO_HASHSET_OK);  // grows, taking them all in
  EXPECT_EQ(kro_hashset_get(set, item(5)), newer5);
  EXPECT_EQ(kro_hashset_remove(set, newer5), KRO_HASHSET_OK);
  EXPECT_EQ(kro_hashset_get(set, item(5)), old5);
  EXPECT_EQ(kro_hashset_get(set, item(7)), seven);
  EXPECT_EQ(kro_hashset_count(set), 26u);
  // The map's pairs linked the same way are freed with the map (TearDown checks the blocks).
  for (uint32_t k = 0; k < 12; ++k) {
    ASSERT_EQ(kro_hashmap_insert(map, item(100 + k), nullptr), KRO_HASHSET_OK);
  }
  Item *value = item(201);
  {
    zel_test::FaultScope fault(2);  // the pair, then the growth that fails
    EXPECT_EQ(kro_hashmap_insert(map, item(200), value), KRO_HASHSET_OK);
    EXPECT_TRUE(zel_test::fault_fired());
  }
  EXPECT_EQ(kro_hashmap_value(kro_hashmap_get(map, item(200))), value);
}

}  // namespace

// The byte hash is part of the platform contract: the same value on 32- and 64-bit builds, and
// consecutive integer keys spread over the buckets.
TEST(Hash, FixedValueAndSpread) {
  const uint32_t id = 7;
  EXPECT_EQ(kro_hash_calculate(&id, sizeof id), 0xe13eeed5u);
  EXPECT_EQ(kro_hash_calculate(nullptr, 0), kro_hash_calculate("", 0));
  constexpr uint32_t k_keys = 1u << 16;
  std::vector<uint8_t> chain(k_keys, 0);
  uint8_t longest = 0;
  for (uint32_t k = 0; k < k_keys; ++k) {
    longest = std::max(longest, ++chain[kro_hash_calculate(&k, sizeof k) & (k_keys - 1)]);
  }
  EXPECT_LT(longest, 12);
}
