// Growable arrays, through the pointer family (the string family shares its implementation).
#include <zel/array.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/fault.h"

static char g[8];  // the values stored

// Capacity and count stop at 65535; a refused growth keeps the array, its holes refillable.
// Rows: capacity, increment, the appends that succeed, the capacity they leave.
TEST(Array, LimitsOf65535) {
  const std::tuple<uint16_t, uint16_t, int, uint16_t> rows[] = {
      {65534, 3, 65534, 65534}, {65533, 2, 65535, 65535}, {1, 65535, 1, 1}};
  for (const auto &[capacity, increment, appends, last] : rows) {
    lib_array_t *a = lib_array_pointers_create(capacity, increment, LIB_ARRAY_SPARSE, nullptr);
    for (int i = 0; i < appends; ++i) ASSERT_EQ(lib_array_pointers_append(a, &g[1]), i);
    EXPECT_TRUE(lib_array_pointers_append(a, &g[1]) == -1 && a->capacity == last) << capacity;
    EXPECT_EQ(lib_array_pointers_remove(a, 0), &g[1]);
    EXPECT_EQ(lib_array_pointers_insert(a, &g[2], 0), 0);
    free(a->data);
    free(a);
  }
  lib_array_t *a = lib_array_pointers_create(1, 1, LIB_ARRAY_SPARSE, nullptr);
  for (int i = 0; i < 65535; ++i) ASSERT_EQ(lib_array_pointers_insert(a, nullptr, 0), 0);
  EXPECT_EQ(lib_array_pointers_insert(a, nullptr, 0), -1);  // empty values in counted holes
  EXPECT_TRUE(lib_array_pointers_append(a, &g[1]) == -1 && a->count == 65535 && a->used == 1);
  free(a->data);
  free(a);
}

// Creation, three growths and a holeless insert fail in turn (a sparse array; the dense one grows
// alike): a refused call leaves the array as it was; a growth keeps values, zero-fills the rest.
TEST(Array, AllocationFailuresLeaveTheArrayAsItWas) {
  const unsigned allocations = zel_test::fault_sweep([&](unsigned n) {
    zel_test::FaultScope fault(n);
    lib_array_t *a = lib_array_pointers_create(2, 2, LIB_ARRAY_SPARSE, nullptr);
    EXPECT_EQ(a == nullptr, zel_test::fault_fired());
    for (int i = 0; a != nullptr && i < 7; ++i) {
      const uint16_t used = a->used, capacity = a->capacity;
      const int32_t got =
          i == 6 ? lib_array_pointers_insert(a, &g[i], used) : lib_array_pointers_append(a, &g[i]);
      EXPECT_EQ(got < 0, zel_test::fault_fired() && a->capacity == capacity);
      EXPECT_EQ(a->used, got < 0 ? used : used + 1);
      for (int k = 0; k < a->used; ++k) EXPECT_EQ(a->data[k], &g[k]);
      for (int k = a->used; k < a->capacity; ++k) EXPECT_EQ(a->data[k], nullptr);
      if (got < 0) break;
    }
    if (a != nullptr) free(a->data);
    free(a);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(allocations, 5u);  // the record, its slots, three growths
}
