// Bad input to the growable arrays (the string family shares the pointer family's code), the
// hashed name tables and the name service: NULLs, full arrays, bad indexes and holes, unknown ids
// and slots, ids run out, an owner taken.
#include <zel/array.h>
#include <zel/name_service.h>

#include "support/bad_input.h"
#include "lib/ns_support.h"

namespace {

char g_value, g_empty;
void *const value = &g_value, *const empty = &g_empty;
lib_array_t *sparse, *dense;  // two slots each, fixed: a value and a hole

const zel_bad_input::Row kArrayRows[] = {
    ZEL_BAD_ROW(lib_array_pointers_create(0, 5, LIB_ARRAY_SPARSE, nullptr), nullptr),
    ZEL_BAD_ROW(lib_array_pointers_append(nullptr, value), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_append(sparse, value), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_insert(dense, value, 1), LIB_ARRAY_FAIL),  // never a hole
    ZEL_BAD_ROW(lib_array_pointers_remove(sparse, 1), empty),                 // a hole already
};
const zel_bad_input::Op<int32_t> kIndexOps[] = {
    ZEL_BAD_OP(lib_array_pointers_insert(sparse, value, s), -1),
    ZEL_BAD_OP(lib_array_pointers_remove(sparse, s), empty),
};

TEST(BadInput, Arrays) {
  sparse = lib_array_pointers_create(2, 0, LIB_ARRAY_SPARSE, empty);
  dense = lib_array_pointers_create(2, 0, 0, empty);
  for (lib_array_t *a : {sparse, dense}) {
    ASSERT_EQ(lib_array_pointers_append(a, value) + lib_array_pointers_append(a, empty), 1);
  }
  zel_bad_input::run_rows(kArrayRows);
  zel_bad_input::run_ops<int32_t>({{"-1", -1}, {"2", 2}}, kIndexOps);
  for (lib_array_t *a : {sparse, dense}) {
    EXPECT_EQ(std::tuple(a->used, a->count, a->capacity, a->data[0], a->data[1]),
              std::tuple(2, 2, 2, value, empty));
    free(a->data);
    free(a);
  }
}

kro_ext_hash_id_name_t g_t;  // "a" inserted, its 32-bit ids run out
kro_ext_hash_id_name_elem_t g_a, g_unnamed, g_late;
lib_name_service_t *g_svc;  // "owned" owned (id 1), "b" shared (id 2, slot 1)
uint32_t g_owner, g_b, g_h = 0xABCD;

lib_name_service_entry_t *bind_without_ids() {
  g_svc->next_id = LIB_NAME_SERVICE_MAX_ID + 1;
  lib_name_service_entry_t *e = lib_name_service_insert(g_svc, &g_h, "c", 0);
  g_svc->next_id = 3;
  return e;
}
void left_alone(const zel_bad_input::Row &) {
  EXPECT_EQ(std::tuple(g_h, g_svc->next_id), std::tuple(0xABCDu, 3u));
}

const zel_bad_input::Row kNameRows[] = {
    ZEL_BAD_ROW(kro_ext_hash_id_name_init(nullptr), KRO_HASHSET_EINVAL),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(nullptr, &g_a), 1),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(&g_t, &g_unnamed), 1),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(&g_t, &g_late), 1),
    ZEL_BAD_ROW(kro_ext_hash_name_get(nullptr, "a"), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(nullptr, 1), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(&g_t, 0), nullptr),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(&g_t, 2), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(nullptr, &g_h, "a", 1), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(g_svc, &g_h, "owned", 1), nullptr),
    ZEL_BAD_ROW(bind_without_ids(), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(nullptr, g_b), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 0), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 3u << 16 | 1), nullptr),     // unknown id
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 2u << 16 | 0xFF), nullptr),  // unknown slot
};

TEST(BadInput, NameTablesAndNameService) {
  g_a.name = "a";
  g_late.name = "b";
  ASSERT_EQ(kro_ext_hash_id_name_init(&g_t) + kro_ext_hash_id_name_insert(&g_t, &g_a), 0);
  g_t.next_id = 0;
  g_svc = lib_name_service_create();
  ASSERT_NE(lib_name_service_insert(g_svc, &g_owner, "owned", 1), nullptr);
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
