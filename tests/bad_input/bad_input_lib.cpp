// Bad input to the growable arrays, the hashed name tables and the name service.
#include <gtest/gtest.h>
#include <zel/array.h>
#include <zel/name_service.h>

#include <climits>
#include <cstdlib>

#include "bad_input/bad_input.h"
#include "lib/ns_support.h"

namespace {

using zel_bad_input::Row;

char g_value, g_empty;

// Both array families behind one set of rows.
struct Family {
  const char *name;
  lib_array_t *(*create)(uint16_t, uint16_t, uint8_t, void *);
  int32_t (*append)(lib_array_t *, void *);
  int32_t (*insert)(lib_array_t *, void *, int32_t);
  void *(*remove)(lib_array_t *, int32_t);
};

const Family kFamilies[] = {
    {"pointers", lib_array_pointers_create, lib_array_pointers_append, lib_array_pointers_insert,
     lib_array_pointers_remove},
    {"string",
     [](uint16_t c, uint16_t i, uint8_t f, void *e) {
       return lib_array_string_create(c, i, f, static_cast<char *>(e));
     },
     [](lib_array_t *a, void *v) { return lib_array_string_append(a, static_cast<char *>(v)); },
     [](lib_array_t *a, void *v, int32_t i) {
       return lib_array_string_insert(a, static_cast<char *>(v), i);
     },
     [](lib_array_t *a, int32_t i) -> void * { return lib_array_string_remove(a, i); }},
};

void release(lib_array_t *a) {
  free(a->data);
  free(a);
}

// An array of 2 slots, slot 0 holding g_value, slot 1 a hole.
lib_array_t *two_slots(const Family &f, uint8_t flags) {
  lib_array_t *a = f.create(2, 0, flags, &g_empty);
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(f.append(a, &g_value), 0);
  EXPECT_EQ(f.append(a, &g_empty), 1);
  return a;
}

// Refused operations leave the two-slot array as it was.
void expect_two_slots(const lib_array_t *a) {
  EXPECT_EQ(a->used, 2);
  EXPECT_EQ(a->count, 2);
  EXPECT_EQ(a->capacity, 2);
  EXPECT_EQ(a->data[0], &g_value);
  EXPECT_EQ(a->data[1], &g_empty);
}

zel_bad_input::Table array_rows(const Family &f) {
  return {
      {"create capacity 0",
       [&f] { EXPECT_EQ(f.create(0, 5, LIB_ARRAY_SPARSE, nullptr), nullptr); }},
      {"create capacity and increment 65535, all flag bits",
       [&f] {
         lib_array_t *a = f.create(LIB_ARRAY_MAX, LIB_ARRAY_MAX, 0xFF, &g_empty);
         ASSERT_NE(a, nullptr);
         EXPECT_EQ(a->capacity, LIB_ARRAY_MAX);
         EXPECT_EQ(a->flags, 0xFF);
         EXPECT_EQ(a->data[LIB_ARRAY_MAX - 1], nullptr);  // sparse: zero-filled
         release(a);
       }},
      {"append/insert/remove on NULL",
       [&f] {
         EXPECT_EQ(f.append(nullptr, &g_value), LIB_ARRAY_FAIL);
         EXPECT_EQ(f.insert(nullptr, &g_value, 0), LIB_ARRAY_FAIL);
         EXPECT_EQ(f.remove(nullptr, 0), nullptr);
       }},
      {"append to a full fixed-size array",
       [&f] {
         lib_array_t *a = two_slots(f, LIB_ARRAY_SPARSE);
         EXPECT_EQ(f.append(a, &g_value), LIB_ARRAY_FAIL);
         expect_two_slots(a);
         release(a);
       }},
      {"append past 65535 slots",
       [&f] {
         lib_array_t *a = f.create(LIB_ARRAY_MAX, 1, 0, nullptr);
         ASSERT_NE(a, nullptr);
         for (unsigned i = 0; i < LIB_ARRAY_MAX; ++i) ASSERT_EQ(f.append(a, &g_value), int(i));
         EXPECT_EQ(f.append(a, &g_value), LIB_ARRAY_FAIL);
         EXPECT_EQ(a->capacity, LIB_ARRAY_MAX);
         EXPECT_EQ(a->count, LIB_ARRAY_MAX);
         release(a);
       }},
      {"insert/remove at bad indexes of a sparse array",
       [&f] {
         lib_array_t *a = two_slots(f, LIB_ARRAY_SPARSE);
         for (int32_t i : {-1, 3, INT32_MIN, INT32_MAX}) {
           SCOPED_TRACE(i);
           EXPECT_EQ(f.insert(a, &g_value, i), LIB_ARRAY_FAIL);
           EXPECT_EQ(f.remove(a, i), &g_empty);
         }
         EXPECT_EQ(f.remove(a, 2), &g_empty);  // at `used`
         EXPECT_EQ(f.remove(a, 1), &g_empty);  // a hole already
         expect_two_slots(a);
         release(a);
       }},
      {"insert/remove on a non-sparse array",
       [&f] {
         lib_array_t *a = two_slots(f, 0);
         EXPECT_EQ(f.insert(a, &g_value, 1), LIB_ARRAY_FAIL);
         EXPECT_EQ(f.remove(a, 0), &g_empty);
         expect_two_slots(a);
         release(a);
       }},
  };
}

TEST(BadInput, Arrays) {
  for (const Family &f : kFamilies) {
    SCOPED_TRACE(f.name);
    zel_bad_input::run_rows(array_rows(f));
  }
}

// An id-name element named `name`.
kro_ext_hash_id_name_elem_t elem_named(const char *name) {
  kro_ext_hash_id_name_elem_t e{};
  e.name = name;
  return e;
}

TEST(BadInput, NameTablesAndNameService) {
  static char name_a[] = "a";
  static const std::string long_name = zel_bad_input::text(100000);
  zel_bad_input::run_rows({
      {"kro_ext_hash_name_init(NULL)",
       [] { EXPECT_EQ(kro_ext_hash_name_init(nullptr), KRO_HASHSET_EINVAL); }},
      {"kro_ext_hash_name_get with NULL set address, handle or name",
       [] {
         kro_hashset_t *none = nullptr;
         EXPECT_EQ(kro_ext_hash_name_get(nullptr, "a"), nullptr);
         EXPECT_EQ(kro_ext_hash_name_get(&none, "a"), nullptr);
         kro_hashset_t *set = nullptr;
         ASSERT_EQ(kro_ext_hash_name_init(&set), 0);
         EXPECT_EQ(kro_ext_hash_name_get(&set, nullptr), nullptr);
         EXPECT_EQ(kro_ext_hash_name_get(&set, long_name.c_str()), nullptr);
         kro_hashset_free(&set);
       }},
      {"kro_ext_hash_id_name_init(NULL)",
       [] { EXPECT_EQ(kro_ext_hash_id_name_init(nullptr), KRO_HASHSET_EINVAL); }},
      {"kro_ext_hash_id_name_insert: NULL table, element or name; ids used up",
       [] {
         kro_ext_hash_id_name_t t{};
         ASSERT_EQ(kro_ext_hash_id_name_init(&t), 0);
         kro_ext_hash_id_name_elem_t e = elem_named(name_a), unnamed = elem_named(nullptr);
         EXPECT_EQ(kro_ext_hash_id_name_insert(nullptr, &e), 1);
         EXPECT_EQ(kro_ext_hash_id_name_insert(&t, nullptr), 1);
         EXPECT_EQ(kro_ext_hash_id_name_insert(&t, &unnamed), 1);
         t.next_id = 0;  // the 32-bit ids ran out
         EXPECT_EQ(kro_ext_hash_id_name_insert(&t, &e), 1);
         EXPECT_EQ(t.next_id, 0u);
         EXPECT_EQ(e.id, 0u);
         EXPECT_EQ(kro_ext_hash_name_get(&t.names, "a"), nullptr);
         kro_hashset_free(&t.names);
         kro_hashset_free(&t.ids);
       }},
      {"kro_ext_hash_id_name_get_by_id: NULL table, id 0, unknown ids",
       [] {
         kro_ext_hash_id_name_t t{};
         ASSERT_EQ(kro_ext_hash_id_name_init(&t), 0);
         kro_ext_hash_id_name_elem_t e = elem_named(name_a);
         ASSERT_EQ(kro_ext_hash_id_name_insert(&t, &e), 0);
         EXPECT_EQ(kro_ext_hash_id_name_get_by_id(nullptr, 1), nullptr);
         EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, 0), nullptr);
         EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, 2), nullptr);
         EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, UINT32_MAX), nullptr);
         kro_hashset_free(&t.names);
         kro_hashset_free(&t.ids);
       }},
      {"lib_name_service_insert: NULL service, handle address or name; owner taken; ids used up",
       [] {
         lib_name_service_t *svc = lib_name_service_create();
         ASSERT_NE(svc, nullptr);
         uint32_t h = 0xABCD;
         EXPECT_EQ(lib_name_service_insert(nullptr, &h, "a", 1), nullptr);
         EXPECT_EQ(lib_name_service_insert(svc, nullptr, "a", 0), nullptr);
         EXPECT_EQ(lib_name_service_insert(svc, &h, nullptr, 0), nullptr);
         EXPECT_EQ(h, 0xABCDu);
         EXPECT_EQ(svc->next_id, 1u);
         ASSERT_NE(lib_name_service_insert(svc, &h, long_name.c_str(), 1), nullptr);
         EXPECT_EQ(lib_name_service_insert(svc, &h, long_name.c_str(), 1), nullptr);
         EXPECT_EQ(h, 1u << 16);
         for (uint32_t next : {LIB_NAME_SERVICE_MAX_ID + 1, 0u}) {
           svc->next_id = next;
           EXPECT_EQ(lib_name_service_insert(svc, &h, "b", 0), nullptr);
           EXPECT_EQ(ns_test::entry_of(svc, "b"), nullptr);
         }
         ns_test::destroy(svc);
       }},
      {"lib_name_service_remove: NULL service, unknown ids, slot beyond the used ones",
       [] {
         lib_name_service_t *svc = lib_name_service_create();
         ASSERT_NE(svc, nullptr);
         uint32_t h = 0;
         lib_name_service_entry_t *e = lib_name_service_insert(svc, &h, "a", 0);
         ASSERT_NE(e, nullptr);
         e->slots->data[1] = &g_value;
         EXPECT_EQ(lib_name_service_remove(nullptr, h), nullptr);
         for (uint32_t handle : {0u, 0xFFFFu, 2u << 16 | 1u, UINT32_MAX, 1u << 16 | 0xFFu}) {
           SCOPED_TRACE(handle);
           EXPECT_EQ(lib_name_service_remove(svc, handle), nullptr);
         }
         EXPECT_EQ(e->slots->count, 2);
         EXPECT_EQ(lib_name_service_remove(svc, h | 0xFF00u), &g_value);  // bits 8-15 ignored
         ns_test::destroy(svc);
       }},
  });
}

}  // namespace
