// Hashed name tables and the name service through the public header.
#include <zel/name_service.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <utility>
#include <vector>

#include "lib/ns_support.h"
#include "support/fault.h"

// The public records' layouts are fixed on both word sizes.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(lib_array_t) == 20 && offsetof(lib_array_t, capacity) == 4 &&
              offsetof(lib_array_t, flags) == 10 && offsetof(lib_array_t, empty) == 12 &&
              offsetof(lib_array_t, count) == 16);
static_assert(sizeof(kro_ext_hash_id_name_t) == 12 &&
              offsetof(kro_ext_hash_id_name_t, next_id) == 8);
static_assert(sizeof(kro_ext_hash_id_name_elem_t) == 24 &&
              offsetof(kro_ext_hash_id_name_elem_t, name) == 8 &&
              offsetof(kro_ext_hash_id_name_elem_t, id_link) == 12 &&
              offsetof(kro_ext_hash_id_name_elem_t, id) == 20);
static_assert(sizeof(lib_name_service_entry_t) == 32 &&
              offsetof(lib_name_service_entry_t, flags) == 24 &&
              offsetof(lib_name_service_entry_t, slots) == 28);
#else
static_assert(sizeof(lib_array_t) == 32 && offsetof(lib_array_t, capacity) == 8 &&
              offsetof(lib_array_t, flags) == 14 && offsetof(lib_array_t, empty) == 16 &&
              offsetof(lib_array_t, count) == 24);
static_assert(sizeof(kro_ext_hash_id_name_t) == 24 &&
              offsetof(kro_ext_hash_id_name_t, next_id) == 16);
static_assert(sizeof(kro_ext_hash_id_name_elem_t) == 48 &&
              offsetof(kro_ext_hash_id_name_elem_t, name) == 16 &&
              offsetof(kro_ext_hash_id_name_elem_t, id_link) == 24 &&
              offsetof(kro_ext_hash_id_name_elem_t, id) == 40);
static_assert(sizeof(lib_name_service_entry_t) == 64 &&
              offsetof(lib_name_service_entry_t, flags) == 48 &&
              offsetof(lib_name_service_entry_t, slots) == 56);
#endif

namespace {

char g_objects[256];  // the object stored in slot s is &g_objects[s]

class NameServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(svc_ = lib_name_service_create(), nullptr); }
  void TearDown() override { ns_test::destroy(svc_); }

  // Binds and stores the slot's object, as a binder must; 0 when refused, which must leave the
  // handle unwritten.
  uint32_t bind(const char *name, bool exclusive) {
    uint32_t h = 0xDEADBEEF;
    lib_name_service_entry_t *e = lib_name_service_insert(svc_, &h, name, exclusive ? 1 : 0);
    if (e == nullptr) {
      EXPECT_EQ(h, 0xDEADBEEFu);
      return 0;
    }
    e->slots->data[lib_name_service_handle_slot(h)] = &g_objects[lib_name_service_handle_slot(h)];
    return h;
  }
  lib_name_service_t *svc_ = nullptr;
};

// Each row is a sequence of bindings ('x' owner, 's' shared; expected handle, 0 refused) and
// releases ('r' of a handle; `value` says whether the slot's object comes back), with the
// name's slot count afterwards (0: no entry) and its owner flag.
struct Step {
  char op;
  const char *name;
  uint32_t handle;
  bool value;
  int count;
  bool owned;
};
struct Row {
  const char *what;
  std::vector<Step> steps;
};

// clang-format off
const Row kRows[] = {
    {"one owner per name, shared beside it",
     {{'x', "a", 0x10000, 0, 1, 1}, {'x', "a", 0, 0, 1, 1}, {'s', "a", 0x10001, 0, 2, 1}}},
    {"a shared binding of a new name reserves slot 0",
     {{'s', "a", 0x10001, 0, 2, 0}}},
    {"the entry stays while shared slots remain, and an owner can come back to slot 0",
     {{'x', "a", 0x10000, 0, 1, 1}, {'s', "a", 0x10001, 0, 2, 1}, {'r', "a", 0x10000, 1, 2, 0},
      {'x', "a", 0x10000, 0, 2, 1}, {'r', "a", 0x10000, 1, 2, 0}, {'r', "a", 0x10001, 1, 1, 0},
      {'s', "a", 0x10001, 0, 2, 0}, {'r', "a", 0x10001, 1, 1, 0}, {'r', "a", 0x10000, 0, 0, 0}}},
    {"released names get new ids: 1, 2, then 3",
     {{'x', "a", 0x10000, 0, 1, 1}, {'x', "b", 0x20000, 0, 1, 1}, {'r', "a", 0x10000, 1, 0, 0},
      {'x', "a", 0x30000, 0, 1, 1}, {'s', "b", 0x20001, 0, 2, 1}}},
    {"shared slots are reused lowest first, and grow past the first three",
     {{'s', "a", 0x10001, 0, 2, 0}, {'s', "a", 0x10002, 0, 3, 0}, {'s', "a", 0x10003, 0, 4, 0},
      {'r', "a", 0x10002, 1, 3, 0}, {'s', "a", 0x10002, 0, 4, 0}, {'s', "a", 0x10004, 0, 5, 0}}},
    {"unknown ids and slots never handed out change nothing",
     {{'r', "a", 0x10000, 0, 0, 0}, {'x', "a", 0x10000, 0, 1, 1}, {'r', "a", 0x20000, 0, 1, 1},
      {'r', "a", 0x10005, 0, 1, 1}, {'r', "a", 0x00000, 0, 1, 1}}},
};
// clang-format on

TEST_F(NameServiceTest, HandleSequences) {
  for (const Row &row : kRows) {
    SCOPED_TRACE(row.what);
    ns_test::destroy(svc_);
    ASSERT_NE(svc_ = lib_name_service_create(), nullptr);
    for (size_t n = 0; n < row.steps.size(); ++n) {
      const Step &s = row.steps[n];
      SCOPED_TRACE(::testing::Message() << "step " << n);
      if (s.op == 'r') {
        void *want = s.value ? &g_objects[lib_name_service_handle_slot(s.handle)] : nullptr;
        EXPECT_EQ(lib_name_service_remove(svc_, s.handle), want);
      } else {
        EXPECT_EQ(bind(s.name, s.op == 'x'), s.handle);
      }
      lib_name_service_entry_t *e = ns_test::entry_of(svc_, s.name);
      EXPECT_EQ(e == nullptr ? 0 : e->slots->count, s.count);
      EXPECT_EQ(e != nullptr && (e->flags & LIB_NAME_SERVICE_OWNED) != 0, s.owned);
    }
  }
}

TEST_F(NameServiceTest, SharedSlotsStopAt255) {
  for (uint32_t s = 1; s <= 255; ++s) {
    ASSERT_EQ(bind("n", false), 0x10000 | s);
  }
  EXPECT_EQ(bind("n", false), 0u);
  EXPECT_EQ(ns_test::entry_of(svc_, "n")->slots->count, 256);
  EXPECT_EQ(ns_test::entry_of(svc_, "n")->slots->used, 256);
  EXPECT_EQ(bind("n", true), 0x10000u);  // the owner slot is not a shared slot
  EXPECT_EQ(lib_name_service_remove(svc_, 0x10080), &g_objects[0x80]);
  EXPECT_EQ(bind("n", false), 0x10080u);
}

TEST_F(NameServiceTest, IdsStopAt65535) {
  svc_->next_id = 65535;
  EXPECT_EQ(bind("last", true), 0xFFFF0000u);
  EXPECT_EQ(bind("new", true), 0u);
  EXPECT_EQ(bind("new", false), 0u);
  EXPECT_EQ(bind("last", false), 0xFFFF0001u);  // names with entries still bind
  EXPECT_EQ(lib_name_service_remove(svc_, 0xFFFF0001u), &g_objects[1]);
  EXPECT_EQ(lib_name_service_remove(svc_, 0xFFFF0000u), &g_objects[0]);
  EXPECT_EQ(bind("last", true), 0u);
  EXPECT_EQ(svc_->next_id, 65536u);
}

TEST(HashedNames, TablesAndNameSets) {
  kro_ext_hash_id_name_t t{};
  ASSERT_EQ(kro_ext_hash_id_name_init(&t), 0);
  EXPECT_EQ(t.next_id, 1u);
  kro_ext_hash_id_name_elem_t a{}, a2{}, b{}, c{};
  a.name = a2.name = c.name = "a";
  b.name = "b";
  EXPECT_EQ(kro_ext_hash_id_name_insert(&t, &a), 0);
  EXPECT_EQ(kro_ext_hash_id_name_insert(&t, &a2), 0);  // name present: not inserted
  EXPECT_EQ(a2.id, 0u);
  EXPECT_EQ(kro_ext_hash_id_name_insert(&t, &b), 0);
  EXPECT_EQ(b.id, 2u);
  EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, 1), &a);
  EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, 3), nullptr);
  EXPECT_EQ(kro_ext_hash_id_name_get_by_id(&t, 0), nullptr);
  EXPECT_EQ(kro_ext_hash_id_name_get_by_id(nullptr, 1), nullptr);
  EXPECT_EQ(kro_ext_hash_name_get(&t.names, "b"), &b);
  EXPECT_EQ(kro_ext_hash_name_get(&t.names, "B"), nullptr);
  EXPECT_EQ(kro_ext_hash_name_get(&t.names, nullptr), nullptr);
  EXPECT_EQ(kro_ext_hash_name_get(nullptr, "a"), nullptr);
  EXPECT_EQ(kro_ext_hash_id_name_insert(nullptr, &c), 1);
  EXPECT_EQ(kro_ext_hash_id_name_insert(&t, nullptr), 1);
  EXPECT_EQ(kro_ext_hash_id_name_init(nullptr), KRO_HASHSET_EINVAL);
  kro_hashset_free(&t.names);
  kro_hashset_free(&t.ids);
  uint32_t h = 7;
  EXPECT_EQ(lib_name_service_insert(nullptr, &h, "a", 1), nullptr);
  EXPECT_EQ(lib_name_service_remove(nullptr, 0x10000), nullptr);
  kro_hashset_t *names = nullptr;
  ASSERT_EQ(kro_ext_hash_name_init(&names), 0);
  EXPECT_EQ(kro_hashset_insert(names, &c), 0);
  EXPECT_EQ(kro_ext_hash_name_get(&names, "a"), &c);
  kro_hashset_free(&names);
}

// Creation, table init and the allocations of a binding fail cleanly at every step.
TEST_F(NameServiceTest, AllocationFailures) {
  EXPECT_EQ(zel_test::fault_sweep([](unsigned n) {
              kro_ext_hash_id_name_t table{};
              zel_test::FaultScope fault(n);
              const int rc = kro_ext_hash_id_name_init(&table);
              EXPECT_EQ(rc != 0, zel_test::fault_fired());
              kro_hashset_free(&table.names);
              kro_hashset_free(&table.ids);
              return rc != 0;
            }),
            4u);
  EXPECT_EQ(zel_test::fault_sweep([](unsigned n) {
              lib_name_service_t *svc;
              {
                zel_test::FaultScope fault(n);
                svc = lib_name_service_create();
              }
              ns_test::destroy(svc);
              return svc == nullptr;
            }),
            5u);
  bind("old", false);
  bind("old", false);
  // A new name (entry, slot record, slot storage) and a shared slot that needs growth.
  const std::pair<const char *, unsigned> bindings[] = {{"new", 3}, {"old", 1}};
  for (const auto &[name, allocations] : bindings) {
    SCOPED_TRACE(name);
    const uint32_t next_id = svc_->next_id;
    EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
                uint32_t h = 0xDEADBEEF;
                lib_name_service_entry_t *e;
                {
                  zel_test::FaultScope fault(n);
                  e = lib_name_service_insert(svc_, &h, name, 0);
                }
                if (e == nullptr) {
                  EXPECT_EQ(h, 0xDEADBEEFu);
                  EXPECT_EQ(svc_->next_id, next_id);
                  EXPECT_EQ(ns_test::entry_of(svc_, "old")->slots->count, 3);
                  return true;
                }
                e->slots->data[lib_name_service_handle_slot(h)] = &g_objects[1];
                EXPECT_EQ(lib_name_service_remove(svc_, h), &g_objects[1]);
                lib_name_service_remove(svc_, h & 0xFFFF0000u);
                return false;
              }),
              allocations);
  }
}

}  // namespace
