// Bad input to the growable arrays, the hashed name tables and the name service: NULLs, full
// arrays, bad indexes and holes, unknown ids and slots, ids run out, an owner taken.
#include <zel/array.h>
#include <zel/name_service.h>

#include "support/bad_input.h"
#include "lib/ns_support.h"

namespace {

char g_value, g_empty;

// The rows of one array family, whose value type is V: a full array of 65535 slots, and a sparse
// and a non-sparse one of two slots, a value and a hole.
template <typename V, lib_array_t *(*create)(uint16_t, uint16_t, uint8_t, V),
          int32_t (*append)(lib_array_t *, V), int32_t (*insert)(lib_array_t *, V, int32_t),
          V (*remove)(lib_array_t *, int32_t)>
void array_rows() {
  static const V value = &g_value, empty = &g_empty;
  static lib_array_t *big = create(LIB_ARRAY_MAX, LIB_ARRAY_MAX, 0xFF, empty),
                     *sparse = create(2, 0, LIB_ARRAY_SPARSE, empty),
                     *dense = create(2, 0, 0, empty);
  for (unsigned i = 0; i < LIB_ARRAY_MAX; ++i) ASSERT_EQ(append(big, value), int(i));
  for (lib_array_t *a : {sparse, dense}) {
    ASSERT_EQ((std::tuple{append(a, value), append(a, empty)}), std::tuple(0, 1));
  }
  static const zel_bad_input::Row rows[] = {
      ZEL_BAD_ROW(create(0, 5, LIB_ARRAY_SPARSE, nullptr), nullptr),
      ZEL_BAD_ROW(append(nullptr, value), LIB_ARRAY_FAIL),
      ZEL_BAD_ROW(insert(nullptr, value, 0), LIB_ARRAY_FAIL),
      ZEL_BAD_ROW(remove(nullptr, 0), nullptr),
      ZEL_BAD_ROW(append(big, value), LIB_ARRAY_FAIL),
      ZEL_BAD_ROW(append(sparse, value), LIB_ARRAY_FAIL),
      ZEL_BAD_ROW(append(dense, value), LIB_ARRAY_FAIL),
      ZEL_BAD_ROW(remove(sparse, 1), empty),  // a hole already
      ZEL_BAD_ROW(remove(dense, 1), empty),
  };
  zel_bad_input::run_rows(rows);
  static const zel_bad_input::Op<int32_t> ops[] = {
      ZEL_BAD_OP(insert(dense, value, s), -1),
      ZEL_BAD_OP(remove(dense, s), empty),
      ZEL_BAD_OP(insert(sparse, value, s), -1),
      ZEL_BAD_OP(remove(sparse, s), empty),
  };
  zel_bad_input::run_ops<int32_t>(
      {{"-1", -1}, {"2", 2}, {"INT32_MIN", INT32_MIN}, {"INT32_MAX", INT32_MAX}}, ops);
  // No holes to fill in the non-sparse one.
  zel_bad_input::run_ops<int32_t>({{"0", 0}, {"1", 1}}, std::span(ops).first(2));
  EXPECT_EQ(std::tuple(big->capacity, big->count, big->flags), std::tuple(65535, 65535, 0xFF));
  for (lib_array_t *a : {sparse, dense}) {
    EXPECT_EQ(std::tuple(a->used, a->count, a->capacity, a->data[0], a->data[1]),
              std::tuple(2, 2, 2, static_cast<void *>(value), static_cast<void *>(empty)));
  }
  for (lib_array_t *a : {big, sparse, dense}) {
    free(a->data);
    free(a);
  }
}

TEST(BadInput, Arrays) {
  array_rows<void *, lib_array_pointers_create, lib_array_pointers_append,
             lib_array_pointers_insert, lib_array_pointers_remove>();
  array_rows<char *, lib_array_string_create, lib_array_string_append, lib_array_string_insert,
             lib_array_string_remove>();
}

const std::string kLong = std::string(100000, 'x');
kro_hashset_t *const g_no_set = nullptr;
kro_ext_hash_id_name_t g_t;  // "a" inserted, its 32-bit ids run out
kro_ext_hash_id_name_elem_t g_a, g_unnamed, g_late;
lib_name_service_t *g_svc;  // kLong owned (id 1), "b" shared (id 2, slot 1)
uint32_t g_owner, g_b, g_h = 0xABCD;

lib_name_service_entry_t *bind_without_ids(uint32_t next) {
  g_svc->next_id = next;
  lib_name_service_entry_t *e = lib_name_service_insert(g_svc, &g_h, "c", 0);
  g_svc->next_id = 3;
  return e;
}
void left_alone(const zel_bad_input::Row &) {
  EXPECT_EQ(std::tuple(g_h, g_svc->next_id), std::tuple(0xABCDu, 3u));
}

const zel_bad_input::Row kNameRows[] = {
    ZEL_BAD_ROW(kro_ext_hash_name_init(nullptr), KRO_HASHSET_EINVAL),
    ZEL_BAD_ROW(kro_ext_hash_id_name_init(nullptr), KRO_HASHSET_EINVAL),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(nullptr, &g_a), 1),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(&g_t, nullptr), 1),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(&g_t, &g_unnamed), 1),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(&g_t, &g_late), 1),
    ZEL_BAD_ROW(kro_ext_hash_name_get(nullptr, "a"), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_name_get(&g_no_set, "a"), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_name_get(&g_t.names, nullptr), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_name_get(&g_t.names, kLong.c_str()), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(nullptr, 1), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(&g_t, 0), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(&g_t, 2), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(&g_t, UINT32_MAX), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(nullptr, &g_h, "a", 1), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(g_svc, nullptr, "a", 0), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(g_svc, &g_h, nullptr, 0), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(g_svc, &g_h, kLong.c_str(), 1), nullptr),  // owned
    ZEL_BAD_ROW(bind_without_ids(LIB_NAME_SERVICE_MAX_ID + 1), nullptr),
    ZEL_BAD_ROW(bind_without_ids(0), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(nullptr, g_b), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 0), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 0xFFFF), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 3u << 16 | 1), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, UINT32_MAX), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 2u << 16 | 0xFF), nullptr),
};

TEST(BadInput, NameTablesAndNameService) {
  g_a.name = "a";
  g_late.name = "b";
  ASSERT_EQ(kro_ext_hash_id_name_init(&g_t) + kro_ext_hash_id_name_insert(&g_t, &g_a), 0);
  g_t.next_id = 0;
  g_svc = lib_name_service_create();
  ASSERT_NE(lib_name_service_insert(g_svc, &g_owner, kLong.c_str(), 1), nullptr);
  lib_name_service_entry_t *b = lib_name_service_insert(g_svc, &g_b, "b", 0);
  ASSERT_EQ(std::tuple(g_owner, g_b), std::tuple(1u << 16, 2u << 16 | 1));
  b->slots->data[1] = &g_value;
  zel_bad_input::run_rows(kNameRows, nullptr, left_alone);
  EXPECT_EQ(b->slots->count, 2);
  EXPECT_EQ(lib_name_service_remove(g_svc, g_b | 0xFF00u), &g_value);  // bits 8-15 ignored
  ns_test::destroy(g_svc);
  kro_hashset_free(&g_t.names);
  kro_hashset_free(&g_t.ids);
}

}  // namespace
