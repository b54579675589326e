// Bad input to the growable arrays, the hashed name tables and the name service.
#include <zel/array.h>
#include <zel/name_service.h>

#include "bad_input/bad_input.h"
#include "lib/ns_support.h"

namespace {

using zel_bad_input::expect_each;

char g_value, g_empty;

// The rows of one array family, whose value type is V.
template <typename V, lib_array_t *(*create)(uint16_t, uint16_t, uint8_t, V),
          int32_t (*append)(lib_array_t *, V), int32_t (*insert)(lib_array_t *, V, int32_t),
          V (*remove)(lib_array_t *, int32_t)>
void array_rows() {
  static const V value = &g_value, empty = &g_empty;
  zel_bad_input::run_rows({
      // capacity 0; NULL array; 65535 slots and more; full fixed-size arrays; bad indexes, holes;
      // insert and remove on a non-sparse array
      {"arrays",
       [] {
         EXPECT_EQ(create(0, 5, LIB_ARRAY_SPARSE, nullptr), nullptr);
         expect_each(LIB_ARRAY_FAIL, {append(nullptr, value), insert(nullptr, value, 0)});
         EXPECT_EQ(remove(nullptr, 0), nullptr);
         lib_array_t *big = create(LIB_ARRAY_MAX, LIB_ARRAY_MAX, 0xFF, empty);
         for (unsigned i = 0; i < LIB_ARRAY_MAX; ++i) ASSERT_EQ(append(big, value), int(i));
         EXPECT_EQ(append(big, value), LIB_ARRAY_FAIL);
         EXPECT_EQ(std::tuple(big->capacity, big->count, big->flags),
                   std::tuple(65535, 65535, 0xFF));
         free(big->data);
         free(big);
         for (uint8_t flags : {uint8_t{LIB_ARRAY_SPARSE}, uint8_t{0}}) {
           lib_array_t *a = create(2, 0, flags, empty);  // slot 0 a value, slot 1 a hole
           ASSERT_EQ((std::tuple{append(a, value), append(a, empty)}), std::tuple(0, 1));
           EXPECT_EQ(append(a, value), LIB_ARRAY_FAIL);
           for (int32_t i : {-1, 0, 1, 2, 3, INT32_MIN, INT32_MAX}) {
             if (flags != 0 && (i == 0 || i == 1)) continue;  // a hole to fill: not refused
             EXPECT_EQ((std::tuple{insert(a, value, i), remove(a, i)}), std::tuple(-1, empty)) << i;
           }
           EXPECT_EQ(remove(a, 1), empty);  // a hole already
           EXPECT_EQ(std::tuple(a->used, a->count, a->capacity, a->data[0], a->data[1]),
                     std::tuple(2, 2, 2, static_cast<void *>(value), static_cast<void *>(empty)));
           free(a->data);
           free(a);
         }
       }},
  });
}

TEST(BadInput, Arrays) {
  array_rows<void *, lib_array_pointers_create, lib_array_pointers_append,
             lib_array_pointers_insert, lib_array_pointers_remove>();
  array_rows<char *, lib_array_string_create, lib_array_string_append, lib_array_string_insert,
             lib_array_string_remove>();
}

TEST(BadInput, NameTablesAndNameService) {
  static const std::string long_name = zel_bad_input::text(100000);
  zel_bad_input::run_rows({
      // name tables and service: NULL addresses, handles, tables, elements, services or names; id
      // 0, unknown ids and slots; an owner taken
      {"name tables and service",
       [] {
         const auto get = kro_ext_hash_name_get;
         const auto by_id = kro_ext_hash_id_name_get_by_id;
         const auto insert = kro_ext_hash_id_name_insert;
         kro_hashset_t *none = nullptr;
         kro_ext_hash_id_name_t t{};
         kro_ext_hash_id_name_elem_t e{}, unnamed{}, late{};
         e.name = "a";
         late.name = "b";
         expect_each(int{KRO_HASHSET_EINVAL},
                     {kro_ext_hash_name_init(nullptr), kro_ext_hash_id_name_init(nullptr)});
         ASSERT_EQ(kro_ext_hash_id_name_init(&t), 0);
         expect_each(1, {insert(nullptr, &e), insert(&t, nullptr), insert(&t, &unnamed)});
         ASSERT_EQ(insert(&t, &e), 0);
         t.next_id = 0;  // the 32-bit ids ran out
         EXPECT_EQ(insert(&t, &late), 1);
         expect_each<const void *>(
             nullptr, {get(nullptr, "a"), get(&none, "a"), get(&t.names, nullptr),
                       get(&t.names, long_name.c_str()), by_id(nullptr, 1), by_id(&t, 0),
                       by_id(&t, 2), by_id(&t, UINT32_MAX)});
         kro_hashset_free(&t.names);
         kro_hashset_free(&t.ids);
         const auto bind = lib_name_service_insert;
         lib_name_service_t *svc = lib_name_service_create();
         uint32_t h = 0xABCD, c = 0;
         expect_each<const void *>(nullptr, {bind(nullptr, &h, "a", 1), bind(svc, nullptr, "a", 0),
                                             bind(svc, &h, nullptr, 0)});
         EXPECT_EQ(std::tuple(h, svc->next_id), std::tuple(0xABCDu, 1u));
         ASSERT_NE(bind(svc, &h, long_name.c_str(), 1), nullptr);  // id 1
         EXPECT_EQ(bind(svc, &h, long_name.c_str(), 1), nullptr);
         lib_name_service_entry_t *b = bind(svc, &c, "b", 0);  // id 2, slot 1
         b->slots->data[1] = &g_value;
         EXPECT_EQ(lib_name_service_remove(nullptr, c), nullptr);
         for (uint32_t unknown : {0u, 0xFFFFu, 3u << 16 | 1, UINT32_MAX, 2u << 16 | 0xFF}) {
           EXPECT_EQ(lib_name_service_remove(svc, unknown), nullptr) << unknown;
         }
         EXPECT_EQ(std::tuple(h, b->slots->count), std::tuple(1u << 16, 2));
         for (uint32_t next : {LIB_NAME_SERVICE_MAX_ID + 1, 0u}) {  // the handle ids ran out
           svc->next_id = next;
           EXPECT_EQ(bind(svc, &h, "c", 0), nullptr);
         }
         EXPECT_EQ(lib_name_service_remove(svc, c | 0xFF00u), &g_value);  // bits 8-15 ignored
         ns_test::destroy(svc);
       }},
  });
}

}  // namespace
