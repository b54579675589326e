// The stand-in's intrusive hash sets and hash maps, against an oracle, with allocation failures.
#include <gtest/gtest.h>
#include <kro/hashset.h>

#include <algorithm>
#include <deque>
#include <random>
#include <set>
#include <vector>

#include "support/fault.h"

namespace {

struct Item {
  uint64_t pad;  // the link not first: the link offset is used
  kro_hashset_link_t link;
  uint32_t key;
};

enum class Spread { kFull, kFew, kWrapping } g_spread;  // crowded: few, or wrapping at the end

uint32_t item_hash(const void *e) {
  const uint32_t key = static_cast<const Item *>(e)->key;
  if (g_spread == Spread::kFull) return kro_hash_calculate(&key, sizeof key);
  return g_spread == Spread::kFew ? key % 5 : 0xFFFFFFFFu - key % 7;
}

const auto item_match = [](const void *member, const void *key) {
  return static_cast<const Item *>(member)->key == static_cast<const Item *>(key)->key ? 1 : 0;
};

Item *newest(const std::vector<Item *> &v, uint32_t key) {
  auto it = std::find_if(v.rbegin(), v.rend(), [&](Item *e) { return e->key == key; });
  return it == v.rend() ? nullptr : *it;
}

// Creation failed in turn; random inserts, removals (the map's: that key, else the newest equal)
// and lookups, allocations failed now and then (set growths still link), against an oracle.
class HashSetModel : public ::testing::TestWithParam<Spread> {};

TEST_P(HashSetModel, AgreesWithOracle) {
  g_spread = GetParam();
  kro_hashset_t *set = nullptr;
  kro_hashmap_t *map = nullptr;
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              zel_test::FaultScope fault(n);
              const int rc = kro_hashset_create(&set, 99, 8, item_hash, item_match, 0) |
                             kro_hashmap_create(&map, 99, item_hash, item_match, 0);
              EXPECT_EQ(rc == KRO_HASHSET_ENOMEM && (!set || !map), zel_test::fault_fired());
              kro_hashset_free(&set);
              kro_hashmap_free(&map);
              return zel_test::fault_fired();
            }),
            4u);
  ASSERT_EQ(kro_hashset_create(&set, 0, offsetof(Item, link), item_hash, item_match, 0), 0);
  ASSERT_EQ(kro_hashmap_create(&map, 0, item_hash, item_match, 0), 0);
  std::deque<Item> pool;
  std::vector<Item *> linked, map_linked;  // the set's members, the map's keys; oldest first
  std::mt19937 rng(static_cast<unsigned>(GetParam()) + 1);
  for (int step = 0; step < 6000; ++step) {
    Item probe{0, {}, static_cast<uint32_t>(rng() % 97)};
    const unsigned op = rng() % 10;
    if (rng() % 2 == 0) zel_test::fault_arm(1 + rng() % 2);
    if (op < ((step / 2000) % 2 == 0 ? 5u : 2u)) {  // growing, shrinking, growing
      Item *e = linked.emplace_back(&pool.emplace_back(probe));
      ASSERT_EQ(kro_hashset_insert(set, e), KRO_HASHSET_OK);
      const int rc = kro_hashmap_insert(map, e, e);  // each key its own value
      ASSERT_TRUE(rc == KRO_HASHSET_OK || (rc == KRO_HASHSET_ENOMEM && zel_test::fault_fired()));
      if (rc == KRO_HASHSET_OK) map_linked.push_back(e);
    } else if (op < 8 && !linked.empty()) {
      const auto at = linked.begin() + static_cast<std::ptrdiff_t>(rng() % linked.size());
      Item *k = rng() % 2 == 0 ? *at : &probe;
      EXPECT_EQ(kro_hashset_remove(set, *at), KRO_HASHSET_OK);
      linked.erase(at);
      Item *x = std::ranges::count(map_linked, k) != 0 ? k : newest(map_linked, k->key);
      EXPECT_EQ(kro_hashmap_remove(map, k), x != nullptr ? KRO_HASHSET_OK : KRO_HASHSET_ENOENT);
      if (x != nullptr) map_linked.erase(std::ranges::find(map_linked, x));
    }
    zel_test::fault_disarm();
    ASSERT_EQ(kro_hashset_get(set, &probe), newest(linked, probe.key)) << step;
    ASSERT_EQ(kro_hashmap_value(kro_hashmap_get(map, &probe)), newest(map_linked, probe.key));
    ASSERT_EQ(std::tuple(kro_hashset_count(set), kro_hashmap_count(map)),
              std::tuple(linked.size(), map_linked.size()));
    std::multiset<void *> walk;
    for (void *e = kro_hashset_first(set); e != nullptr; e = kro_hashset_next(set, e))
      walk.insert(e);
    ASSERT_EQ(walk, std::multiset<void *>(linked.begin(), linked.end()));
  }
  kro_hashset_free(&set);
  kro_hashmap_free(&map);  // frees its pairs, those linked after a failed growth included
}

INSTANTIATE_TEST_SUITE_P(Spreads, HashSetModel,
                         ::testing::Values(Spread::kFull, Spread::kFew, Spread::kWrapping));

}  // namespace

// The byte hash is part of the platform contract: the same value on 32- and 64-bit builds.
TEST(Hash, FixedValue) {
  const uint32_t id = 7;
  EXPECT_EQ(kro_hash_calculate(&id, sizeof id), 0x258bc43eu);
}
