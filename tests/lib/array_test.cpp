// Growable arrays: every test runs on both families, which must behave identically.
#include <zel/array.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "support/fault.h"

namespace {

char g_values[64];

template <typename T>
struct Family;
template <>
struct Family<void *> {
  static constexpr auto create = lib_array_pointers_create;
  static constexpr auto append = lib_array_pointers_append;
  static constexpr auto insert = lib_array_pointers_insert;
  static constexpr auto remove = lib_array_pointers_remove;
};
template <>
struct Family<char *> {
  static constexpr auto create = lib_array_string_create;
  static constexpr auto append = lib_array_string_append;
  static constexpr auto insert = lib_array_string_insert;
  static constexpr auto remove = lib_array_string_remove;
};

template <typename T>
class ArrayTest : public ::testing::Test {
 protected:
  using Ops = Family<T>;
  static T v(int i) { return static_cast<T>(static_cast<void *>(&g_values[i])); }
  lib_array_t *make(uint16_t cap, uint16_t inc, uint8_t flags, T empty = nullptr) {
    arrays_.push_back(Ops::create(cap, inc, flags, empty));
    return arrays_.back();
  }
  void TearDown() override {
    for (lib_array_t *a : arrays_) {
      if (a != nullptr) {
        free(a->data);
        free(a);
      }
    }
  }
  std::vector<lib_array_t *> arrays_;
};

using Families = ::testing::Types<void *, char *>;
TYPED_TEST_SUITE(ArrayTest, Families);

// One scripted array per row: each step is an operation with its expected result and the
// count and high-water mark after it. Values are indices into g_values; -1 stands for the
// array's empty value (slot value 0 is g_values[0]).
struct Step {
  char op;  // 'a' append, 'i' insert, 'r' remove
  int value;
  int index;
  int expect;  // slot index, or for 'r' the value index (-1: empty)
  int count;
  int used;
};
struct Script {
  const char *name;
  uint16_t capacity, increment;
  uint8_t flags;
  std::vector<Step> steps;
};

// clang-format off
const Script kScripts[] = {
    {"fixed size refuses appends once full; insert still refills a hole", 2, 0, LIB_ARRAY_SPARSE,
     {{'a', 1, 0, 0, 1, 1}, {'a', 2, 0, 1, 2, 2}, {'a', 3, 0, -1, 2, 2},
      {'r', 0, 0, 1, 1, 2}, {'i', 4, 0, 0, 2, 2}, {'i', 5, 0, -1, 2, 2}}},
    {"holes: remove keeps neighbours, insert fills the first hole at or after index", 3, 3,
     LIB_ARRAY_SPARSE,
     {{'a', 1, 0, 0, 1, 1}, {'a', 2, 0, 1, 2, 2}, {'a', 3, 0, 2, 3, 3},
      {'r', 0, 1, 2, 2, 3}, {'i', 4, 0, 1, 3, 3}, {'r', 0, 1, 4, 2, 3},
      {'i', 5, 2, 3, 3, 4}, {'i', 6, 0, 1, 4, 4}}},
    {"removing an empty slot changes nothing", 3, 3, LIB_ARRAY_SPARSE,
     {{'a', 1, 0, 0, 1, 1}, {'r', 0, 0, 1, 0, 1}, {'r', 0, 0, -1, 0, 1}}},
    {"storing empty counts, and the slot is found again as a hole", 3, 3, LIB_ARRAY_SPARSE,
     {{'a', -1, 0, 0, 1, 1}, {'a', 1, 0, 1, 2, 2}, {'i', -1, 0, 0, 3, 2},
      {'i', 2, 0, 0, 4, 2}, {'r', 0, 0, 2, 3, 2}, {'r', 0, 0, -1, 3, 2}}},
    {"insert index bounds: above used refused, at used appends, negative refused", 3, 3,
     LIB_ARRAY_SPARSE,
     {{'i', 1, 1, -1, 0, 0}, {'i', 1, 0, 0, 1, 1}, {'i', 2, -1, -1, 1, 1},
      {'r', 0, 1, -1, 1, 1}, {'r', 0, -1, -1, 1, 1}}},
    {"without LIB_ARRAY_SPARSE: append only", 3, 3, 0,
     {{'a', 1, 0, 0, 1, 1}, {'i', 2, 0, -1, 1, 1}, {'i', 2, 1, -1, 1, 1},
      {'r', 0, 0, -1, 1, 1}, {'a', 2, 0, 1, 2, 2}}},
};
// clang-format on

TYPED_TEST(ArrayTest, Scripts) {
  using F = typename TestFixture::Ops;
  using T = TypeParam;
  for (const Script &s : kScripts) {
    SCOPED_TRACE(s.name);
    lib_array_t *a = this->make(s.capacity, s.increment, s.flags, this->v(63));
    ASSERT_NE(a, nullptr);
    auto value = [&](int i) { return i < 0 ? this->v(63) : this->v(i); };
    for (size_t n = 0; n < s.steps.size(); ++n) {
      const Step &st = s.steps[n];
      SCOPED_TRACE(::testing::Message() << "step " << n);
      if (st.op == 'r') {
        EXPECT_EQ(F::remove(a, st.index), value(st.expect));
      } else {
        const T val = value(st.value);
        EXPECT_EQ(st.op == 'a' ? F::append(a, val) : F::insert(a, val, st.index), st.expect);
      }
      EXPECT_EQ(a->count, st.count);
      EXPECT_EQ(a->used, st.used);
    }
  }
}

TYPED_TEST(ArrayTest, GrowsLinearlyThroughIncrementsKeepingValuesAndHoles) {
  using F = typename TestFixture::Ops;
  lib_array_t *a = this->make(3, 3, LIB_ARRAY_SPARSE);
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(F::append(a, this->v(i)), i);
    EXPECT_EQ(a->capacity, (i / 3 + 1) * 3) << "after append " << i;
    if (i % 3 == 0 && i > 0) {
      EXPECT_EQ(a->data[i + 1], nullptr);  // new slots read 0 right after the growth
      EXPECT_EQ(a->data[i + 2], nullptr);
    }
  }
  for (int hole : {1, 4, 7}) {
    EXPECT_EQ(F::remove(a, hole), this->v(hole));
  }
  EXPECT_EQ(a->count, 7);
  EXPECT_EQ(a->used, 10);
  EXPECT_EQ(F::insert(a, this->v(20), 0), 1);
  EXPECT_EQ(F::insert(a, this->v(21), 2), 4);
  EXPECT_EQ(F::insert(a, this->v(22), 5), 7);
  EXPECT_EQ(F::insert(a, this->v(23), 8), 10);  // no hole at or after 8: appends
  EXPECT_EQ(a->capacity, 12);
  const int expect[] = {0, 20, 2, 3, 21, 5, 6, 22, 8, 9, 23};
  for (int i = 0; i < 11; ++i) {
    EXPECT_EQ(a->data[i], this->v(expect[i])) << "slot " << i;
  }
}

TYPED_TEST(ArrayTest, LimitsOf65535) {
  using F = typename TestFixture::Ops;
  struct Row {
    uint16_t capacity, increment;
    int appends;  // that succeed before the first refusal
  };
  const Row rows[] = {{65535, 1, 65535}, {65534, 3, 65534}, {65533, 2, 65535}, {1, 65535, 1}};
  for (const Row &r : rows) {
    SCOPED_TRACE(::testing::Message() << "capacity " << r.capacity << " increment " << r.increment);
    lib_array_t *a = this->make(r.capacity, r.increment, LIB_ARRAY_SPARSE);
    for (int i = 0; i < r.appends; ++i) {
      ASSERT_EQ(F::append(a, this->v(1)), i);
    }
    const uint16_t cap = a->capacity;
    EXPECT_EQ(F::append(a, this->v(1)), -1);
    EXPECT_EQ(a->capacity, cap);
    EXPECT_EQ(F::remove(a, 0), this->v(1));
    EXPECT_EQ(F::insert(a, this->v(2), 0), 0);  // a hole can still be refilled
  }
  // count can outgrow used by inserting empty into counted holes; it stops at 65535.
  lib_array_t *a = this->make(1, 1, LIB_ARRAY_SPARSE);
  ASSERT_EQ(F::append(a, nullptr), 0);
  for (int i = 1; i < 65535; ++i) {
    ASSERT_EQ(F::insert(a, nullptr, 0), 0);
  }
  EXPECT_EQ(a->count, 65535);
  EXPECT_EQ(F::insert(a, nullptr, 0), -1);
  EXPECT_EQ(F::append(a, this->v(1)), -1);
  EXPECT_EQ(a->count, 65535);
  EXPECT_EQ(a->used, 1);
}

TYPED_TEST(ArrayTest, CreateFailuresAndNullArguments) {
  using F = typename TestFixture::Ops;
  for (uint8_t flags : {uint8_t{0}, uint8_t{LIB_ARRAY_SPARSE}}) {
    const unsigned allocations = zel_test::fault_sweep([&](unsigned n) {
      lib_array_t *a;
      {
        zel_test::FaultScope fault(n);
        a = F::create(5, 5, flags, nullptr);
      }
      EXPECT_EQ(a == nullptr, zel_test::fault_fired());
      if (a != nullptr) {
        free(a->data);
        free(a);
      }
      return zel_test::fault_fired();
    });
    EXPECT_EQ(allocations, 2u);
  }
  EXPECT_EQ(F::create(0, 3, LIB_ARRAY_SPARSE, nullptr), nullptr);
  EXPECT_EQ(F::append(nullptr, this->v(1)), -1);
  EXPECT_EQ(F::insert(nullptr, this->v(1), 0), -1);
  EXPECT_EQ(F::remove(nullptr, 0), nullptr);
}

}  // namespace
