// Bad input to the row data records and the value conversions.
#include <zel/convert.h>
#include <zel/data.h>

#include "bad_input/bad_input.h"

namespace {

using zel_bad_input::expect_each;

TEST(BadInput, Records) {
  zel_bad_input::run_rows({
      // cleanups and dups of NULL; NULL data, a NULL or 1 MiB name, NULL items; maximal sizes
      {"records",
       [] {
         static const std::string huge = zel_bad_input::text(1 << 20);
         zel_data_error_t_cleanup(nullptr);
         zel_data_complete_t_cleanup(nullptr);
         zel_data_value_t_cleanup(nullptr);
         zel_data_template_t_cleanup(nullptr);
         zel_row_data_t_cleanup(nullptr);
         expect_each<const void *>(nullptr,
                                   {zel_data_value_t_dup(nullptr), zel_data_template_t_dup(nullptr),
                                    zel_row_data_t_dup(nullptr)});
         const zel_data_value_t value{7, UINT32_MAX, nullptr};
         const zel_data_template_t tmpl{const_cast<char *>(huge.c_str()), 0, 0, 0, UINT16_MAX};
         const zel_row_data_t row{0, 0, ZEL_ROW_DATA_VALUE, UINT32_MAX, nullptr};
         zel_data_value_t *v = zel_data_value_t_dup(&value);
         zel_data_template_t *t = zel_data_template_t_dup(&tmpl);
         zel_row_data_t *r = zel_row_data_t_dup(&row);
         EXPECT_EQ(std::tuple(v->len, v->data, strlen(t->name), t->attr4, r->count, r->items),
                   std::tuple(UINT32_MAX, nullptr, huge.size(), 0xFFFF, UINT32_MAX, nullptr));
         zel_data_value_t_cleanup(v);
         zel_data_template_t_cleanup(t);
         zel_row_data_t_cleanup(r);  // NULL items: nothing to visit
       }},
  });
}

TEST(BadInput, Conversions) {
  zel_bad_input::run_rows({
      // NULL value, data or buffer; short data; nbytes 0 and too large; no room; 1 MiB texts
      {"conversions",
       [] {
         const auto hex = zel_convert_stream_to_ascii_or_hex;
         const auto hex_len = zel_convert_stream_to_ascii_or_hex_len;
         uint8_t bytes[4] = {'a', 'b', 'c', 'd'};
         const zel_data_value_t v{0, 4, bytes}, none{0, UINT32_MAX, nullptr}, shorter{0, 1, bytes};
         char buf[8] = "zzzzzzz", out[4] = "zzz";
         for (auto [convert, empty_len] : {std::pair{&zel_convert_stream_to_ip_addr_str, 2},
                                           std::pair{&zel_convert_stream_to_oid_str, 0}}) {
           EXPECT_EQ(convert(buf, 5, nullptr), 0);
           expect_each(empty_len, {convert(nullptr, UINT32_MAX, &none),  // a measure call
                                   convert(buf, 7, &none), convert(buf, 7, &shorter)});
           EXPECT_EQ(strlen(buf), static_cast<size_t>(empty_len));
         }
         expect_each(0u, {hex_len(&v, 0), hex_len(&v, ZEL_CONVERT_OCTETS_MAX + 1),
                          hex_len(&v, UINT32_MAX), hex_len(nullptr, 4), hex_len(&none, 4),
                          hex(out, 3, &v, 0), hex(out, 3, &v, UINT32_MAX), hex(out, 3, nullptr, 4),
                          hex(out, 3, &none, 4), hex(nullptr, 3, &v, 4)});
         EXPECT_EQ(hex(out, 0, &v, 4), 1u);  // buf_len + 1
         EXPECT_STREQ(out, "azz");
         uint32_t id = 5;
         zel_extract_config_id_from_config_result(&id, nullptr);
         zel_extract_config_id_from_config_result(nullptr, "/1/");
         EXPECT_EQ(id, 5u);
         const std::string digits = "x" + std::string(1 << 20, '9');  // saturates
         zel_extract_config_id_from_config_result(&id, digits.c_str());
         EXPECT_EQ(id, static_cast<uint32_t>(INT32_MAX));
       }},
  });
}

}  // namespace
