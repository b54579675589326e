// Bad input to the growable arrays (the string family shares their code), the hashed name tables
// and the name service: a full array, bad indexes and holes, unknown ids and slots, an owner.
#include <zel/array.h>
#include <zel/name_service.h>

#include "support/bad_input.h"
#include "lib/ns_support.h"

namespace {

char g_value, g_empty;
void *const value = &g_value, *const empty = &g_empty;
lib_array_t *sparse;  // two slots, fixed: a value and a hole

const zel_bad_input::Row kArrayRows[] = {
    ZEL_BAD_ROW(lib_array_pointers_create(0, 5, LIB_ARRAY_SPARSE, nullptr), nullptr),
    ZEL_BAD_ROW(lib_array_pointers_append(nullptr, value), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_append(sparse, value), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_remove(sparse, 1), empty),  // a hole already
    ZEL_BAD_ROW(lib_array_pointers_insert(sparse, value, -1), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_insert(sparse, value, 2), LIB_ARRAY_FAIL),
    ZEL_BAD_ROW(lib_array_pointers_remove(sparse, 2), empty),
};

TEST(BadInput, Arrays) {
  sparse = lib_array_pointers_create(2, 0, LIB_ARRAY_SPARSE, empty);
  ASSERT_EQ(lib_array_pointers_append(sparse, value), 0);
  ASSERT_EQ(lib_array_pointers_append(sparse, empty), 1);
  zel_bad_input::run_rows(kArrayRows);
  EXPECT_EQ(std::tuple(sparse->used, sparse->count, sparse->capacity, sparse->data[0]),
            std::tuple(2, 2, 2, value));
  free(sparse->data);
  free(sparse);
}

kro_ext_hash_id_name_elem_t g_unnamed;
lib_name_service_t *g_svc;  // "owned" owned (id 1), "b" shared (id 2, slot 1)
uint32_t g_owner, g_b, g_h = 0xABCD;

void left_alone(const zel_bad_input::Row &) {
  EXPECT_EQ(std::tuple(g_h, g_svc->next_id), std::tuple(0xABCDu, 3u));
}

const zel_bad_input::Row kNameRows[] = {
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(nullptr, &g_unnamed), KRO_EXT_HASH_ID_NAME_REFUSED),
    ZEL_BAD_ROW(kro_ext_hash_id_name_insert(g_svc, &g_unnamed), KRO_EXT_HASH_ID_NAME_REFUSED),
    ZEL_BAD_ROW(kro_ext_hash_id_name_get_by_id(g_svc, 3), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(nullptr, &g_h, "a", 1), nullptr),
    ZEL_BAD_ROW(lib_name_service_insert(g_svc, &g_h, "owned", 1), nullptr),
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 3u << 16 | 1), nullptr),     // unknown id
    ZEL_BAD_ROW(lib_name_service_remove(g_svc, 2u << 16 | 0xFF), nullptr),  // unknown slot
};

TEST(BadInput, NameTablesAndNameService) {
  g_svc = lib_name_service_create();
  ASSERT_NE(lib_name_service_insert(g_svc, &g_owner, "owned", 1), nullptr);
  lib_name_service_entry_t *b = lib_name_service_insert(g_svc, &g_b, "b", 0);
  ASSERT_EQ(std::tuple(g_owner, g_b), std::tuple(1u << 16, 2u << 16 | 1));
  b->slots->data[1] = &g_value;
  zel_bad_input::run_rows(kNameRows, nullptr, left_alone);
  EXPECT_EQ(b->slots->count, 2);
  EXPECT_EQ(lib_name_service_remove(g_svc, g_b | 0xFF00u), &g_value);  // bits 8-15 ignored
  // The 32-bit ids used up: a new name is refused, a present one still leaves its element alone.
  g_svc->next_id = 0;
  kro_ext_hash_id_name_elem_t fresh{}, again{};
  fresh.name = "fresh";
  again.name = "owned";
  again.id = 7;
  EXPECT_EQ(kro_ext_hash_id_name_insert(g_svc, &fresh), KRO_EXT_HASH_ID_NAME_REFUSED);
  EXPECT_EQ(kro_ext_hash_id_name_insert(g_svc, &again), 0);
  EXPECT_EQ(std::tuple(fresh.id, again.id, g_svc->next_id), std::tuple(0u, 7u, 0u));
  ns_test::destroy(g_svc);
}

}  // namespace
