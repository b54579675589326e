// The stand-in's intrusive hash sets and hash maps: membership, equal keys, iteration, the
// map's removal preference, and allocation failures at creation, growth and pair insertion.
#include <gtest/gtest.h>
#include <kro/hashset.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "support/fault.h"

namespace {

using zel_test::FaultScope;

// The link deliberately not first, so that the link offset is exercised.
struct Item {
  uint64_t pad;
  kro_hashset_link_t link;
  uint32_t key;
  int tag;
};

int g_hash_calls = 0;
int g_match_calls = 0;

uint32_t item_hash(const void *e) {
  ++g_hash_calls;
  return kro_hash_calculate(&static_cast<const Item *>(e)->key, sizeof(uint32_t));
}

int item_match(const void *member, const void *key) {
  ++g_match_calls;
  return static_cast<const Item *>(member)->key == static_cast<const Item *>(key)->key ? 1 : 0;
}

class HashSet : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = zel_test::fault_live_blocks();
    ASSERT_EQ(kro_hashset_create(&set_, 0, offsetof(Item, link), item_hash, item_match, 0),
              KRO_HASHSET_OK);
  }
  void TearDown() override {
    kro_hashset_free(&set_);
    EXPECT_EQ(set_, nullptr);
    EXPECT_EQ(zel_test::fault_live_blocks(), live_before_);
  }
  Item *item(uint32_t key, int tag = 0) {
    items_.push_back(std::make_unique<Item>(Item{0, {}, key, tag}));
    return items_.back().get();
  }
  Item *get(uint32_t key) {
    Item k{0, {}, key, 0};
    return static_cast<Item *>(kro_hashset_get(set_, &k));
  }

  kro_hashset_t *set_ = nullptr;
  std::vector<std::unique_ptr<Item>> items_;
  long live_before_ = 0;
};

TEST_F(HashSet, InsertGetRemoveCallingBackOncePerKey) {
  Item *a = item(1), *b = item(2);
  g_hash_calls = 0;
  EXPECT_EQ(kro_hashset_insert(set_, a), KRO_HASHSET_OK);
  EXPECT_EQ(kro_hashset_insert(set_, b), KRO_HASHSET_OK);
  EXPECT_EQ(g_hash_calls, 2);
  EXPECT_EQ(kro_hashset_count(set_), 2u);
  g_hash_calls = g_match_calls = 0;
  EXPECT_EQ(get(1), a);
  EXPECT_EQ(g_hash_calls, 1);
  EXPECT_EQ(g_match_calls, 1);
  EXPECT_EQ(get(3), nullptr);
  g_hash_calls = g_match_calls = 0;
  EXPECT_EQ(kro_hashset_remove(set_, a), KRO_HASHSET_OK);
  EXPECT_EQ(g_hash_calls, 1);
  EXPECT_EQ(g_match_calls, 0);  // unlinks by address
  EXPECT_EQ(get(1), nullptr);
  EXPECT_EQ(get(2), b);
  EXPECT_EQ(kro_hashset_count(set_), 1u);
  EXPECT_EQ(kro_hashset_remove(set_, b), KRO_HASHSET_OK);
}

TEST_F(HashSet, SameElementTwiceAndNonMembersAreRefused) {
  Item *a = item(1), *twin = item(1);
  ASSERT_EQ(kro_hashset_insert(set_, a), KRO_HASHSET_OK);
  EXPECT_EQ(kro_hashset_insert(set_, a), KRO_HASHSET_EEXIST);
  EXPECT_EQ(kro_hashset_count(set_), 1u);
  EXPECT_EQ(kro_hashset_remove(set_, twin), KRO_HASHSET_ENOENT);  // equal key, not linked
  EXPECT_EQ(kro_hashset_remove(set_, item(9)), KRO_HASHSET_ENOENT);
  EXPECT_EQ(get(1), a);
  EXPECT_EQ(kro_hashset_remove(set_, a), KRO_HASHSET_OK);
  EXPECT_EQ(kro_hashset_remove(set_, a), KRO_HASHSET_ENOENT);
}

// Equal keys interleaved with others through several doublings: the newest is found first,
// removing it uncovers the next newest, and removing an older one changes nothing visible.
TEST_F(HashSet, EqualKeysNewestFirstAcrossGrowth) {
  std::vector<Item *> dups;
  for (int i = 0; i < 40; ++i) {
    dups.push_back(item(5, i));
    ASSERT_EQ(kro_hashset_insert(set_, dups.back()), KRO_HASHSET_OK);
    for (uint32_t f = 0; f < 10; ++f) {
      ASSERT_EQ(kro_hashset_insert(set_, item(1000 + static_cast<uint32_t>(i) * 10 + f)),
                KRO_HASHSET_OK);
    }
    ASSERT_EQ(get(5), dups.back());
  }
  EXPECT_EQ(kro_hashset_remove(set_, dups[10]), KRO_HASHSET_OK);  // an older one
  EXPECT_EQ(get(5), dups[39]);
  for (int i = 39; i >= 0; --i) {
    if (i == 10) {
      continue;
    }
    SCOPED_TRACE(i);
    ASSERT_EQ(get(5), dups[static_cast<size_t>(i)]);
    ASSERT_EQ(kro_hashset_remove(set_, dups[static_cast<size_t>(i)]), KRO_HASHSET_OK);
  }
  EXPECT_EQ(get(5), nullptr);
  EXPECT_EQ(kro_hashset_count(set_), 400u);
}

TEST_F(HashSet, IterationVisitsEachElementOnce) {
  EXPECT_EQ(kro_hashset_first(set_), nullptr);
  std::map<const void *, int> seen;
  for (uint32_t i = 0; i < 1000; ++i) {
    Item *e = item(i % 700);  // some equal keys among them
    ASSERT_EQ(kro_hashset_insert(set_, e), KRO_HASHSET_OK);
    seen[e] = 0;
  }
  for (void *e = kro_hashset_first(set_); e != nullptr; e = kro_hashset_next(set_, e)) {
    ASSERT_EQ(seen.count(e), 1u);
    ++seen[e];
  }
  for (const auto &[e, n] : seen) {
    ASSERT_EQ(n, 1) << e;
  }
}

TEST(HashSetArgs, NullArgumentsAreRefused) {
  kro_hashset_t *s = nullptr;
  kro_hashmap_t *m = nullptr;
  Item a{0, {}, 1, 0};
  EXPECT_EQ(kro_hashset_create(nullptr, 0, 0, item_hash, item_match, 0), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_create(&s, 0, 0, nullptr, item_match, 0), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashmap_create(&m, 0, item_hash, nullptr, 0), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_insert(nullptr, &a), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_remove(nullptr, &a), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashmap_insert(nullptr, &a, &a), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashmap_remove(nullptr, &a), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_get(nullptr, &a), nullptr);
  EXPECT_EQ(kro_hashmap_get(nullptr, &a), nullptr);
  EXPECT_EQ(kro_hashset_first(nullptr), nullptr);
  EXPECT_EQ(kro_hashmap_value(nullptr), nullptr);
  EXPECT_EQ(kro_hashset_count(nullptr) + kro_hashmap_count(nullptr), 0u);
  kro_hashset_free(nullptr);
  kro_hashset_free(&s);
  kro_hashmap_free(&m);
  ASSERT_EQ(kro_hashset_create(&s, 0, offsetof(Item, link), item_hash, item_match, 0), 0);
  EXPECT_EQ(kro_hashset_insert(s, nullptr), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_remove(s, nullptr), KRO_HASHSET_EINVAL);
  EXPECT_EQ(kro_hashset_get(s, nullptr), nullptr);
  EXPECT_EQ(kro_hashset_next(s, nullptr), nullptr);
  kro_hashset_free(&s);
}

// Each allocation of a creation in turn: a failure leaves the handle untouched and nothing
// allocated.
TEST(HashSetFault, CreateFailureLeavesNothing) {
  struct Row {
    const char *label;
    bool map;
  } rows[] = {{"set", false}, {"map", true}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.label);
    const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
      // Sentinels that a failed creation must leave alone.
      auto *const set_sentinel = reinterpret_cast<kro_hashset_t *>(&n);
      auto *const map_sentinel = reinterpret_cast<kro_hashmap_t *>(&n);
      kro_hashset_t *set = set_sentinel;
      kro_hashmap_t *map = map_sentinel;
      int rc;
      {
        FaultScope fault(n);
        rc = row.map
                 ? kro_hashmap_create(&map, 100, item_hash, item_match, 0)
                 : kro_hashset_create(&set, 100, offsetof(Item, link), item_hash, item_match, 0);
      }
      if (!zel_test::fault_fired()) {
        EXPECT_EQ(rc, KRO_HASHSET_OK);
        if (row.map) {
          kro_hashmap_free(&map);
        } else {
          kro_hashset_free(&set);
        }
        return false;
      }
      EXPECT_EQ(rc, KRO_HASHSET_ENOMEM);
      EXPECT_EQ(set, set_sentinel);
      EXPECT_EQ(map, map_sentinel);
      return true;
    });
    EXPECT_EQ(runs, 2u);  // the table record and its buckets
  }
}

// A growth that cannot allocate keeps the old buckets; the set goes on working and grows at
// a later insertion.
TEST_F(HashSet, GrowthFailureKeepsWorking) {
  for (uint32_t i = 0; i < 16; ++i) {  // fills the default 16 buckets
    ASSERT_EQ(kro_hashset_insert(set_, item(i)), KRO_HASHSET_OK);
  }
  {
    FaultScope fault(1);
    EXPECT_EQ(kro_hashset_insert(set_, item(16)), KRO_HASHSET_OK);
    EXPECT_TRUE(zel_test::fault_fired());
  }
  {
    FaultScope fault(100);  // count the next insertion's allocations
    EXPECT_EQ(kro_hashset_insert(set_, item(17)), KRO_HASHSET_OK);
    EXPECT_EQ(zel_test::fault_allocations(), 1u);  // the growth, now allowed
  }
  for (uint32_t i = 0; i < 300; ++i) {
    if (i >= 18) {
      ASSERT_EQ(kro_hashset_insert(set_, item(i)), KRO_HASHSET_OK);
    }
  }
  for (uint32_t i = 0; i < 300; ++i) {
    ASSERT_NE(get(i), nullptr) << i;
  }
}

// Fixed values (the same in 32- and 64-bit processes: this runs in both), and consecutive
// 32-bit keys spread over as many buckets as keys without long chains.
TEST(HashCalculate, SameValuesEverywhereAndSpread) {
  const struct {
    const char *text;
    uint32_t hash;
  } rows[] = {
      {"", 0x0bec0f51u},
      {"a", 0x16e3b2f2u},
      {"ab", 0xfbc60be1u},
      {"abc", 0x43326c7eu},
      {"abcd", 0x0b6ae174u},
      {"abcdefgh", 0x588734f6u},
      {"abcdefghijklmnop", 0xeca70ff0u},
      {"abcdefghijklmnopq", 0xe275cd8au},
      {"client-0123456789-0123456789-0123456789", 0x8084eabbu},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(kro_hash_calculate(row.text, strlen(row.text)), row.hash) << row.text;
  }
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

// Maps key their pairs through the same callbacks, called with the keys.
class HashMap : public HashSet {
 protected:
  void SetUp() override {
    HashSet::SetUp();
    ASSERT_EQ(kro_hashmap_create(&map_, 0, item_hash, item_match, 0), KRO_HASHSET_OK);
  }
  void TearDown() override {
    kro_hashmap_free(&map_);  // frees the pairs left
    EXPECT_EQ(map_, nullptr);
    HashSet::TearDown();
  }
  void *value(uint32_t key) {
    Item k{0, {}, key, 0};
    return kro_hashmap_value(kro_hashmap_get(map_, &k));
  }
  kro_hashmap_t *map_ = nullptr;
};

TEST_F(HashMap, PairsWithEqualKeysAndTheRemovalPreference) {
  Item *a = item(1, 10), *b = item(1, 20), *c = item(1, 30);
  int va = 0, vb = 0, vc = 0;
  ASSERT_EQ(kro_hashmap_insert(map_, a, &va), KRO_HASHSET_OK);
  ASSERT_EQ(kro_hashmap_insert(map_, b, &vb), KRO_HASHSET_OK);
  ASSERT_EQ(kro_hashmap_insert(map_, c, &vc), KRO_HASHSET_OK);
  EXPECT_EQ(value(1), &vc);
  EXPECT_EQ(kro_hashmap_remove(map_, a), KRO_HASHSET_OK);  // a's own pair, though c is newer
  EXPECT_EQ(value(1), &vc);
  EXPECT_EQ(kro_hashmap_count(map_), 2u);
  Item key{0, {}, 1, 0};                                      // keys no pair: the newest goes
  EXPECT_EQ(kro_hashmap_remove(map_, &key), KRO_HASHSET_OK);  // c's
  EXPECT_EQ(value(1), &vb);
  EXPECT_EQ(kro_hashmap_remove(map_, &key), KRO_HASHSET_OK);
  EXPECT_EQ(value(1), nullptr);
  EXPECT_EQ(kro_hashmap_remove(map_, &key), KRO_HASHSET_ENOENT);
  // Pairs survive growth in order.
  for (uint32_t i = 0; i < 200; ++i) {
    ASSERT_EQ(kro_hashmap_insert(map_, item(i, static_cast<int>(i)), nullptr), KRO_HASHSET_OK);
  }
  ASSERT_EQ(kro_hashmap_insert(map_, a, &va), KRO_HASHSET_OK);
  EXPECT_EQ(value(1), &va);
}

TEST_F(HashMap, SameKeyRecordTwiceIsRefusedWithoutAllocating) {
  Item *a = item(1);
  int v1 = 0, v2 = 0;
  ASSERT_EQ(kro_hashmap_insert(map_, a, &v1), KRO_HASHSET_OK);
  {
    FaultScope fault(100);
    EXPECT_EQ(kro_hashmap_insert(map_, a, &v2), KRO_HASHSET_EEXIST);
    EXPECT_EQ(zel_test::fault_allocations(), 0u);
  }
  EXPECT_EQ(kro_hashmap_count(map_), 1u);
  EXPECT_EQ(value(1), &v1);
  EXPECT_EQ(kro_hashmap_remove(map_, a), KRO_HASHSET_OK);
  EXPECT_EQ(value(1), nullptr);
}

TEST_F(HashMap, InsertFailureAddsNothing) {
  Item *keep = item(1);
  ASSERT_EQ(kro_hashmap_insert(map_, keep, keep), KRO_HASHSET_OK);
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    Item *a = item(2);
    int rc;
    {
      FaultScope fault(n);
      rc = kro_hashmap_insert(map_, a, a);
    }
    if (!zel_test::fault_fired()) {
      EXPECT_EQ(rc, KRO_HASHSET_OK);
      EXPECT_EQ(value(2), a);
      EXPECT_EQ(kro_hashmap_remove(map_, a), KRO_HASHSET_OK);
      return false;
    }
    EXPECT_EQ(rc, KRO_HASHSET_ENOMEM);
    EXPECT_EQ(kro_hashmap_count(map_), 1u);
    EXPECT_EQ(value(2), nullptr);
    return true;
  });
  EXPECT_EQ(runs, 1u);  // the pair
  EXPECT_EQ(value(1), keep);
}

}  // namespace
