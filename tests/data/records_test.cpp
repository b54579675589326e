// Release and deep copy of the row data records, with every allocation of a copy failed in
// turn.
#include <zel/data.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

#include "support/fault.h"

// The records cross the process boundary of the collector: their layout is fixed.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(zel_row_data_t) == 20 && offsetof(zel_row_data_t, items) == 16);
static_assert(sizeof(zel_data_value_t) == 12 && offsetof(zel_data_value_t, data) == 8);
static_assert(sizeof(zel_data_template_t) == 20 && offsetof(zel_data_template_t, attr2) == 8 &&
              offsetof(zel_data_template_t, attr3) == 12 &&
              offsetof(zel_data_template_t, attr4) == 16);
static_assert(sizeof(zel_data_error_t) == 8 && offsetof(zel_data_error_t, detail) == 4);
#else
static_assert(sizeof(zel_row_data_t) == 24 && offsetof(zel_row_data_t, items) == 16);
static_assert(sizeof(zel_data_value_t) == 16 && offsetof(zel_data_value_t, data) == 8);
static_assert(sizeof(zel_data_template_t) == 24 && offsetof(zel_data_template_t, attr2) == 12 &&
              offsetof(zel_data_template_t, attr3) == 16 &&
              offsetof(zel_data_template_t, attr4) == 20);
static_assert(sizeof(zel_data_error_t) == 16 && offsetof(zel_data_error_t, detail) == 8);
#endif
static_assert(offsetof(zel_row_data_t, kind) == 8 && offsetof(zel_row_data_t, count) == 12);
static_assert(offsetof(zel_data_value_t, len) == 4 && sizeof(zel_data_complete_t) == 8);

namespace {

using zel_test::fault_live_blocks;

zel_data_value_t *make_value(uint32_t tag, const char *bytes, uint32_t len) {
  auto *v = static_cast<zel_data_value_t *>(calloc(1, sizeof(zel_data_value_t)));
  v->tag = tag;
  v->len = len;
  if (bytes != nullptr) {
    v->data = static_cast<uint8_t *>(malloc(len + 1));
    memcpy(v->data, bytes, len);
  }
  return v;
}

zel_data_template_t *make_template(const char *name, uint32_t a1, uint16_t a2) {
  auto *t = static_cast<zel_data_template_t *>(calloc(1, sizeof(zel_data_template_t)));
  t->name = name != nullptr ? strdup(name) : nullptr;
  t->attr1 = a1;
  t->attr2 = a2;
  t->attr3 = ~a1;
  t->attr4 = static_cast<uint16_t>(~a2);
  return t;
}

// A row whose items array holds `slots` (nullptr entries stay empty); items NULL when
// with_items is false.
zel_row_data_t *make_row(uint32_t kind, uint32_t count, bool with_items,
                         std::initializer_list<void *> slots = {}) {
  auto *r = static_cast<zel_row_data_t *>(calloc(1, sizeof(zel_row_data_t)));
  r->word0 = 0xA1;
  r->word1 = 0xB2;
  r->kind = kind;
  r->count = count;
  if (with_items) {
    const size_t slot_count = count > slots.size() ? count : slots.size();
    r->items = static_cast<void **>(calloc(slot_count + 1, sizeof(void *)));
    uint32_t i = 0;
    for (void *s : slots) {
      r->items[i++] = s;
    }
  }
  return r;
}

void expect_same_value(const zel_data_value_t *src, const zel_data_value_t *copy) {
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, src);
  EXPECT_EQ(copy->tag, src->tag);
  EXPECT_EQ(copy->len, src->len);
  EXPECT_EQ(copy->data != nullptr, src->data != nullptr);
  if (src->data != nullptr) {
    EXPECT_NE(copy->data, src->data);
    EXPECT_EQ(memcmp(copy->data, src->data, src->len), 0);
  }
}

TEST(DataRecords, ValueCopies) {
  struct Row {
    const char *bytes;
    uint32_t len;
  } rows[] = {{nullptr, 5}, {"", 0}, {"\x0a\x00\x00\x01", 4}, {"ifDescr.1", 9}};
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << "len " << row.len << " data " << (row.bytes != nullptr));
    zel_data_value_t *src = make_value(0xDEADBEEF, row.bytes, row.len);
    zel_data_value_t *copy = zel_data_value_t_dup(src);
    expect_same_value(src, copy);
    zel_data_value_t_cleanup(copy);
    zel_data_value_t_cleanup(src);
  }
}

TEST(DataRecords, TemplateCopiesNameAndAttributeWidths) {
  for (const char *name : {static_cast<const char *>(nullptr), "", "ifHCInOctets"}) {
    SCOPED_TRACE(name != nullptr ? name : "(null)");
    zel_data_template_t *src = make_template(name, 0x80000001u, 0xFFFFu);
    zel_data_template_t *copy = zel_data_template_t_dup(src);
    if (copy == nullptr) {
      ADD_FAILURE() << "no copy";
      zel_data_template_t_cleanup(src);
      continue;
    }
    EXPECT_EQ(copy->name != nullptr, name != nullptr);
    if (name != nullptr) {
      EXPECT_NE(copy->name, src->name);
      EXPECT_STREQ(copy->name, name);
    }
    EXPECT_EQ(copy->attr1, 0x80000001u);
    EXPECT_EQ(copy->attr2, 0xFFFFu);
    EXPECT_EQ(copy->attr3, 0x7FFFFFFEu);
    EXPECT_EQ(copy->attr4, 0u);
    zel_data_template_t_cleanup(copy);
    zel_data_template_t_cleanup(src);
  }
}

TEST(DataRecords, RowCopiesByKindAndSlots) {
  struct Case {
    const char *what;
    uint32_t kind;
    uint32_t count;
    bool with_items;
    bool item_in_slot2;  // a non-NULL item in slot 2 (the others NULL)
    bool copies;
  } cases[] = {
      {"no array, count 7", ZEL_ROW_DATA_VALUE, 7, false, false, true},
      {"empty array", ZEL_ROW_DATA_VALUE, 0, true, false, true},
      {"values with holes", ZEL_ROW_DATA_VALUE, 4, true, true, true},
      {"templates with holes", ZEL_ROW_DATA_TEMPLATE, 4, true, true, true},
      {"completions, all NULL", ZEL_ROW_DATA_COMPLETE, 3, true, false, true},
      {"completion item", ZEL_ROW_DATA_COMPLETE, 3, true, true, false},
      {"error item", ZEL_ROW_DATA_ERROR, 3, true, true, false},
      {"unknown kind, all NULL", 5, 2, true, false, true},
      {"unknown kind item", 5, 3, true, true, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    void *item = nullptr;
    if (c.item_in_slot2) {
      switch (c.kind) {
        case ZEL_ROW_DATA_TEMPLATE:
          item = make_template("name", 1, 2);
          break;
        case ZEL_ROW_DATA_VALUE:
          item = make_value(1, "abc", 3);
          break;
        case ZEL_ROW_DATA_ERROR:
          item = calloc(1, sizeof(zel_data_error_t));
          break;
        default:
          item = calloc(1, sizeof(zel_data_complete_t));
          break;
      }
    }
    zel_row_data_t *src = make_row(c.kind, c.count, c.with_items, {nullptr, nullptr, item});
    const long live = fault_live_blocks();
    zel_row_data_t *copy = zel_row_data_t_dup(src);
    ASSERT_EQ(copy != nullptr, c.copies);
    if (copy == nullptr) {
      EXPECT_EQ(fault_live_blocks(), live);
    } else {
      EXPECT_EQ(copy->word0, 0xA1u);
      EXPECT_EQ(copy->word1, 0xB2u);
      EXPECT_EQ(copy->kind, c.kind);
      EXPECT_EQ(copy->count, c.count);
      ASSERT_EQ(copy->items != nullptr, c.with_items);
      for (uint32_t i = 0; c.with_items && i < c.count; ++i) {
        EXPECT_EQ(copy->items[i] != nullptr, i == 2 && item != nullptr) << "slot " << i;
      }
      if (c.kind == ZEL_ROW_DATA_VALUE && item != nullptr) {
        expect_same_value(static_cast<zel_data_value_t *>(item),
                          static_cast<zel_data_value_t *>(copy->items[2]));
      }
      zel_row_data_t_cleanup(copy);
    }
    if (c.kind == 5) {
      free(item);  // a row of unknown kind does not release its items
    }
    zel_row_data_t_cleanup(src);
  }
}

TEST(DataRecords, RowCleanupReleasesEveryOwnedBlock) {
  const long live = fault_live_blocks();
  auto *err = static_cast<zel_data_error_t *>(calloc(1, sizeof(zel_data_error_t)));
  err->detail = malloc(16);
  zel_row_data_t_cleanup(make_row(ZEL_ROW_DATA_ERROR, 2, true, {err, nullptr}));
  zel_row_data_t_cleanup(make_row(ZEL_ROW_DATA_COMPLETE, 1, true, {calloc(1, 8)}));
  zel_row_data_t_cleanup(
      make_row(ZEL_ROW_DATA_VALUE, 3, true, {make_value(1, "x", 1), make_value(2, nullptr, 4)}));
  zel_row_data_t_cleanup(make_row(ZEL_ROW_DATA_TEMPLATE, 1, true, {make_template("n", 1, 1)}));
  zel_row_data_t_cleanup(make_row(ZEL_ROW_DATA_VALUE, 7, false));
  EXPECT_EQ(fault_live_blocks(), live);

  // Unknown kind: the array and the row go, the item stays.
  void *item = malloc(4);
  zel_row_data_t_cleanup(make_row(5, 1, true, {item}));
  EXPECT_EQ(fault_live_blocks(), live + 1);
  free(item);
}

// Fails each allocation of a copy in turn; a failed copy is NULL and leaves nothing behind.
template <typename Rec, typename Dup, typename Cleanup>
void sweep_copy(Rec *src, Dup dup, Cleanup cleanup, unsigned allocations) {
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    Rec *copy = nullptr;
    {
      zel_test::FaultScope scope(n);
      copy = dup(src);
    }
    EXPECT_EQ(copy == nullptr, zel_test::fault_fired()) << "failing allocation " << n;
    cleanup(copy);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(runs, allocations);
}

TEST(DataRecords, CopiesReleaseEverythingWhenAnyAllocationFails) {
  zel_data_value_t *value = make_value(7, "abcdef", 6);
  sweep_copy(value, zel_data_value_t_dup, zel_data_value_t_cleanup, 2);
  zel_data_template_t *tmpl = make_template("sysName", 3, 4);
  sweep_copy(tmpl, zel_data_template_t_dup, zel_data_template_t_cleanup, 2);

  // Row, array, then two blocks for each of the three values: the Nth item fails in turn.
  zel_row_data_t *values =
      make_row(ZEL_ROW_DATA_VALUE, 4, true,
               {make_value(1, "a", 1), nullptr, make_value(2, "bc", 2), make_value(3, "def", 3)});
  sweep_copy(values, zel_row_data_t_dup, zel_row_data_t_cleanup, 8);
  zel_row_data_t *tmpls = make_row(ZEL_ROW_DATA_TEMPLATE, 2, true,
                                   {make_template("a", 1, 1), make_template(nullptr, 2, 2)});
  sweep_copy(tmpls, zel_row_data_t_dup, zel_row_data_t_cleanup, 5);

  zel_row_data_t_cleanup(tmpls);
  zel_row_data_t_cleanup(values);
  zel_data_template_t_cleanup(tmpl);
  zel_data_value_t_cleanup(value);
}

}  // namespace
