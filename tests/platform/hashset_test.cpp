// The stand-in's intrusive hash sets and hash maps: equal keys across growth, iteration, the
// map's removal preference, allocation failures; the byte hash.
#include <gtest/gtest.h>
#include <kro/hashset.h>

#include <cstddef>
#include <cstring>
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
    ASSERT_EQ(kro_hashset_create(&set, 0, offsetof(Item, link), item_hash, item_match, 0), 0);
    ASSERT_EQ(kro_hashmap_create(&map, 0, item_hash, item_match, 0), 0);
  }
  void TearDown() override {
    kro_hashset_free(&set);
    kro_hashmap_free(&map);  // frees the pairs left
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
  }
  Item *item(uint32_t key) { return &items.emplace_back(Item{0, {}, key}); }
  Item *get(uint32_t key) {
    Item k{0, {}, key};
    return static_cast<Item *>(kro_hashset_get(set, &k));
  }
  void *value(uint32_t key) {
    Item k{0, {}, key};
    return kro_hashmap_value(kro_hashmap_get(map, &k));
  }
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
    dups.push_back(item(5));
    ASSERT_EQ(kro_hashset_insert(set, dups.back()), KRO_HASHSET_OK);
    fill(10);
    ASSERT_EQ(get(5), dups.back());
  }
  EXPECT_EQ(kro_hashset_insert(set, dups[0]), KRO_HASHSET_EEXIST);
  EXPECT_EQ(kro_hashset_remove(set, item(5)), KRO_HASHSET_ENOENT);  // equal key, not linked
  std::set<void *> seen;
  for (void *e = kro_hashset_first(set); e != nullptr; e = kro_hashset_next(set, e)) {
    ASSERT_TRUE(seen.insert(e).second);
  }
  EXPECT_EQ(seen.size(), 457u);
  EXPECT_EQ(kro_hashset_remove(set, dups[10]), KRO_HASHSET_OK);  // an older one
  for (size_t i = 40; i-- > 0;) {
    ASSERT_EQ(get(5), dups[i == 10 ? 9 : i]) << i;
    EXPECT_EQ(kro_hashset_remove(set, dups[i]), i == 10 ? KRO_HASHSET_ENOENT : KRO_HASHSET_OK);
  }
  EXPECT_EQ(kro_hashset_count(set), 417u);
}

TEST_F(HashSet, MapRemovalPreferenceAndAllocationFailures) {
  Item *a = item(1), *b = item(1), *c = item(1), *d = item(2);
  ASSERT_EQ(kro_hashmap_insert(map, a, a) + kro_hashmap_insert(map, b, b), 0);
  ASSERT_EQ(kro_hashmap_insert(map, c, c), 0);
  EXPECT_EQ(kro_hashmap_insert(map, a, b), KRO_HASHSET_EEXIST);  // same key record twice
  EXPECT_EQ(kro_hashmap_remove(map, a), KRO_HASHSET_OK);         // a's own pair, not c's
  EXPECT_EQ(value(1), c);
  EXPECT_EQ(kro_hashmap_remove(map, item(1)), KRO_HASHSET_OK);  // keys no pair: the newest
  EXPECT_EQ(value(1), b);
  {
    zel_test::FaultScope fault(1);  // the pair
    EXPECT_EQ(kro_hashmap_insert(map, d, d), KRO_HASHSET_ENOMEM);
  }
  EXPECT_EQ(value(2), nullptr);
  EXPECT_EQ(kro_hashmap_count(map), 1u);
}

// Each allocation of a creation (the table record, its buckets) failed in turn: ENOMEM, the
// handle left alone, nothing left allocated.
TEST(HashSetFault, CreateFailsCleanly) {
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
}

// Fixed values for each length class, the same in 32- and 64-bit processes (this runs in both).
TEST(HashCalculate, SameValuesEverywhere) {
  const uint32_t id = 7;
  EXPECT_EQ(kro_hash_calculate(&id, sizeof id), 0xe13eeed5u);
  const std::pair<const char *, uint32_t> rows[] = {
      {"", 0x0bec0f51u},
      {"abc", 0x43326c7eu},
      {"abcdefgh", 0x588734f6u},
      {"abcdefghijklmnop", 0xeca70ff0u},
      {"client-0123456789-0123456789-0123456789", 0x8084eabbu}};
  for (const auto &[text, hash] : rows) {
    EXPECT_EQ(kro_hash_calculate(text, strlen(text)), hash) << text;
  }
}

}  // namespace
