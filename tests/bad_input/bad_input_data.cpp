// Bad input to the row data records and the value conversions.
#include <gtest/gtest.h>
#include <zel/convert.h>
#include <zel/data.h>

#include <cstdlib>
#include <cstring>

#include "bad_input/bad_input.h"

namespace {

template <typename T>
T *zeroed() {
  return static_cast<T *>(calloc(1, sizeof(T)));
}

// A row of `count` slots of `kind`; slot 0 holds `item` (owned by the row).
zel_row_data_t *row_of(uint32_t kind, uint32_t count, void *item) {
  auto *row = zeroed<zel_row_data_t>();
  row->kind = kind;
  row->count = count;
  row->items = static_cast<void **>(calloc(count, sizeof(void *)));
  row->items[0] = item;
  return row;
}

const std::string kHugeName = zel_bad_input::text(1 << 20);

zel_bad_input::Table record_rows() {
  return {
      {"cleanups and dups of NULL",
       [] {
         zel_data_error_t_cleanup(nullptr);
         zel_data_complete_t_cleanup(nullptr);
         zel_data_value_t_cleanup(nullptr);
         zel_data_template_t_cleanup(nullptr);
         zel_row_data_t_cleanup(nullptr);
         EXPECT_EQ(zel_data_value_t_dup(nullptr), nullptr);
         EXPECT_EQ(zel_data_template_t_dup(nullptr), nullptr);
         EXPECT_EQ(zel_row_data_t_dup(nullptr), nullptr);
       }},
      {"value with NULL data and maximal len; value with data and len 0",
       [] {
         const zel_data_value_t none{7, UINT32_MAX, nullptr};
         zel_data_value_t *copy = zel_data_value_t_dup(&none);
         ASSERT_NE(copy, nullptr);
         EXPECT_EQ(copy->len, UINT32_MAX);
         EXPECT_EQ(copy->data, nullptr);
         zel_data_value_t_cleanup(copy);
         uint8_t byte = 1;
         const zel_data_value_t empty{0, 0, &byte};
         copy = zel_data_value_t_dup(&empty);
         ASSERT_NE(copy, nullptr);
         EXPECT_NE(copy->data, nullptr);
         EXPECT_NE(copy->data, &byte);
         zel_data_value_t_cleanup(copy);
       }},
      {"template with a NULL and a 1 MiB name",
       [] {
         for (const char *name : {static_cast<const char *>(nullptr), kHugeName.c_str()}) {
           const zel_data_template_t tmpl{const_cast<char *>(name), UINT32_MAX, UINT16_MAX,
                                          UINT32_MAX, UINT16_MAX};
           zel_data_template_t *copy = zel_data_template_t_dup(&tmpl);
           ASSERT_NE(copy, nullptr);
           EXPECT_EQ(copy->name == nullptr, name == nullptr);
           EXPECT_EQ(copy->attr4, UINT16_MAX);
           zel_data_template_t_cleanup(copy);
         }
       }},
      {"row with NULL items and maximal count",
       [] {
         auto *row = zeroed<zel_row_data_t>();
         row->kind = ZEL_ROW_DATA_VALUE;
         row->count = UINT32_MAX;
         zel_row_data_t *copy = zel_row_data_t_dup(row);
         ASSERT_NE(copy, nullptr);
         EXPECT_EQ(copy->items, nullptr);
         EXPECT_EQ(copy->count, UINT32_MAX);
         zel_row_data_t_cleanup(copy);
         zel_row_data_t_cleanup(row);
       }},
      {"rows whose items cannot be copied: completions, errors, an unknown kind",
       [] {
         for (uint32_t kind : {ZEL_ROW_DATA_COMPLETE, ZEL_ROW_DATA_ERROR, 99u, UINT32_MAX}) {
           SCOPED_TRACE(kind);
           auto *item = zeroed<zel_data_error_t>();
           zel_row_data_t *row = row_of(kind, 3, item);
           EXPECT_EQ(zel_row_data_t_dup(row), nullptr);
           const bool known = kind == ZEL_ROW_DATA_COMPLETE || kind == ZEL_ROW_DATA_ERROR;
           zel_row_data_t_cleanup(row);
           if (!known) free(item);  // items of an unknown kind are left alone
         }
       }},
  };
}

TEST(BadInput, Records) {
  zel_bad_input::run_rows(record_rows());
}

zel_bad_input::Table convert_rows() {
  return {
      {"address and OID conversions: NULL value, NULL data, short data, NULL buffer",
       [] {
         using Numeric = int32_t (*)(char *, uint32_t, const zel_data_value_t *);
         struct Case {
           Numeric convert;
           int32_t empty_len;  // the text of a value with no group or arc
         } cases[] = {{zel_convert_stream_to_ip_addr_str, 2}, {zel_convert_stream_to_oid_str, 0}};
         uint8_t three[3] = {1, 2, 3};
         const zel_data_value_t no_data{0, UINT32_MAX, nullptr}, short_data{0, 1, three};
         for (const Case &c : cases) {
           char buf[8];
           memset(buf, 'z', sizeof buf);
           EXPECT_EQ(c.convert(buf, 5, nullptr), 0);
           EXPECT_EQ(buf[0], 'z');
           EXPECT_EQ(c.convert(nullptr, UINT32_MAX, &no_data), c.empty_len);  // a measure call
           EXPECT_EQ(c.convert(buf, 7, &no_data), c.empty_len);
           EXPECT_EQ(c.convert(buf, 7, &short_data), c.empty_len);
           EXPECT_EQ(strlen(buf), static_cast<size_t>(c.empty_len));
         }
       }},
      {"octet string conversions: NULL value, NULL data, NULL buffer, nbytes 0 and too large",
       [] {
         uint8_t bytes[4] = {'a', 'b', 'c', 'd'};
         const zel_data_value_t v{0, 4, bytes}, no_data{0, 4, nullptr};
         char buf[16];
         memset(buf, 'z', sizeof buf);
         for (uint32_t n : {0u, ZEL_CONVERT_OCTETS_MAX + 1, UINT32_MAX}) {
           SCOPED_TRACE(n);
           EXPECT_EQ(zel_convert_stream_to_ascii_or_hex_len(&v, n), 0u);
           EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(buf, 15, &v, n), 0u);
         }
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex_len(nullptr, 4), 0u);
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex_len(&no_data, 4), 0u);
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(buf, 15, nullptr, 4), 0u);
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(buf, 15, &no_data, 4), 0u);
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(nullptr, 15, &v, 4), 0u);
         EXPECT_EQ(buf[0], 'z');
         EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(buf, 0, &v, 4), 1u);  // buf_len + 1
         EXPECT_EQ(buf[0], 'a');
         EXPECT_EQ(buf[1], 'z');
       }},
      {"configuration id: NULL arguments, 1 MiB texts",
       [] {
         uint32_t id = 5;
         zel_extract_config_id_from_config_result(&id, nullptr);
         EXPECT_EQ(id, 5u);
         zel_extract_config_id_from_config_result(nullptr, "/1/");
         std::string digits = "x" + std::string(1 << 20, '9');
         zel_extract_config_id_from_config_result(&id, digits.c_str());
         EXPECT_EQ(id, static_cast<uint32_t>(INT32_MAX));
         digits[12] = '/';  // eleven characters before the slash
         zel_extract_config_id_from_config_result(&id, digits.c_str());
         EXPECT_EQ(id, 0u);
       }},
  };
}

TEST(BadInput, Conversions) {
  zel_bad_input::run_rows(convert_rows());
}

}  // namespace
