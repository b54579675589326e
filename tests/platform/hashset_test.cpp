// The stand-in's intrusive hash sets and hash maps: equal keys across growth, iteration, the
// map's removal preference, allocation failures.
#include <gtest/gtest.h>
#include <kro/hashset.h>

#include <algorithm>
#include <cstddef>
#include <deque>
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
  fill(16);  // fills the default 16 buckets
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
  EXPECT_EQ(seen.size(), 457u);                                  // each element once
  EXPECT_EQ(kro_hashset_remove(set, dups[10]), KRO_HASHSET_OK);  // an older one
  for (size_t i = 40; i-- > 0;) {
    ASSERT_EQ(kro_hashset_get(set, item(5)), dups[i == 10 ? 9 : i]) << i;
    EXPECT_EQ(kro_hashset_remove(set, dups[i]), i == 10 ? KRO_HASHSET_ENOENT : KRO_HASHSET_OK);
  }
  EXPECT_EQ(kro_hashset_count(set), 417u);
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
