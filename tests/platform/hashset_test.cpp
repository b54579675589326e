// The stand-in's intrusive hash sets and hash maps, against an oracle, with allocation failures.
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

struct Item {
  uint64_t pad;  // the link deliberately not first, so that the link offset is exercised
  kro_hashset_link_t link;
  uint32_t key;
};

// Hashes that crowd the slots: few distinct values, and values whose home slots are the last
// ones, so that runs of equal and unequal hashes wrap around the end of the slot array.
enum class Spread { kFull, kFew, kWrapping };
Spread g_spread = Spread::kFull;

uint32_t item_hash(const void *e) {
  const uint32_t key = static_cast<const Item *>(e)->key;
  if (g_spread != Spread::kFull) {
    return g_spread == Spread::kFew ? key % 5 : 0xFFFFFFFFu - key % 7;
  }
  return kro_hash_calculate(&key, sizeof key);
}

int item_match(const void *member, const void *key) {
  return static_cast<const Item *>(member)->key == static_cast<const Item *>(key)->key ? 1 : 0;
}

Item *newest(const std::vector<Item *> &v, uint32_t key) {
  auto it = std::find_if(v.rbegin(), v.rend(), [&](Item *e) { return e->key == key; });
  return it == v.rend() ? nullptr : *it;
}

// Random insertions, removals (linked and unlinked) and lookups over 97 keys, growing, shrinking
// and growing again, with the first or second allocation of a step failed now and then (set
// growths link all the same; map pairs are refused). After every step: the lookups, counts and
// (every 50 steps) a walk and `next` of a member against an oracle of the linked elements.
class HashSetModel : public ::testing::TestWithParam<Spread> {};

TEST_P(HashSetModel, AgreesWithOracle) {
  g_spread = GetParam();
  const long live_before = zel_test::fault_live_blocks();
  // Creation: the record, then its slots, fail with ENOMEM and nothing made.
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
              2u);
  }
  kro_hashset_t *set = nullptr;
  kro_hashmap_t *map = nullptr;
  ASSERT_EQ(kro_hashset_create(&set, 0, offsetof(Item, link), item_hash, item_match, 0), 0);
  ASSERT_EQ(kro_hashmap_create(&map, 0, item_hash, item_match, 0), 0);
  std::deque<Item> pool;
  std::vector<Item *> linked, map_linked;  // the set's members, the map's keys; oldest first
  std::mt19937 rng(static_cast<unsigned>(GetParam()) + 1);
  for (int step = 0; step < 6000; ++step) {
    const bool growing = (step / 2000) % 2 == 0;
    Item probe{0, {}, static_cast<uint32_t>(rng() % 97)};
    const unsigned op = rng() % 10;
    if (rng() % 2 == 0) zel_test::fault_arm(1 + rng() % 2);
    if (op < (growing ? 5u : 2u)) {
      Item *e = linked.emplace_back(&pool.emplace_back(probe));
      ASSERT_EQ(kro_hashset_insert(set, e), KRO_HASHSET_OK);
      const int rc = kro_hashmap_insert(map, e, e);  // each key its own value
      ASSERT_TRUE(rc == KRO_HASHSET_OK || (rc == KRO_HASHSET_ENOMEM && zel_test::fault_fired()));
      if (rc == KRO_HASHSET_OK) map_linked.push_back(e);
    } else if (op < 6 && !linked.empty()) {
      EXPECT_EQ(kro_hashset_insert(set, linked[rng() % linked.size()]), KRO_HASHSET_EEXIST);
    } else if (op < 8 && !linked.empty()) {
      const auto at = linked.begin() + static_cast<std::ptrdiff_t>(rng() % linked.size());
      Item *k = rng() % 2 == 0 ? *at : &probe;
      EXPECT_EQ(kro_hashset_remove(set, *at), KRO_HASHSET_OK);
      linked.erase(at);
      auto gone = std::find(map_linked.begin(), map_linked.end(), k);
      if (gone == map_linked.end()) {
        gone = std::find(map_linked.begin(), map_linked.end(), newest(map_linked, k->key));
      }
      EXPECT_EQ(kro_hashmap_remove(map, k),
                gone != map_linked.end() ? KRO_HASHSET_OK : KRO_HASHSET_ENOENT);
      if (gone != map_linked.end()) map_linked.erase(gone);
    } else if (op < 9) {
      EXPECT_EQ(kro_hashset_remove(set, &probe), KRO_HASHSET_ENOENT);
    }
    zel_test::fault_disarm();
    ASSERT_EQ(kro_hashset_get(set, &probe), newest(linked, probe.key)) << step;
    ASSERT_EQ(kro_hashmap_value(kro_hashmap_get(map, &probe)), newest(map_linked, probe.key));
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
