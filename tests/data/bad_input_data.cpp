// Bad input to the row data records and the value conversions: NULL records, values, data and
// buffers; short data; maximal sizes; byte counts of 0 and past the limit; no room; 1 MiB texts.
#include <zel/convert.h>
#include <zel/data.h>

#include "support/bad_input.h"

namespace {

const std::string kDigits = "x" + std::string(1 << 20, '9');
uint8_t g_bytes[4] = {'a', 'b', 'c', 'd'};
const zel_data_value_t kV{0, 4, g_bytes}, kShort{0, 1, g_bytes};
char g_buf[8], g_out[4];
uint32_t g_id = 5;

// A copy of a record whose count is maximal and whose array is NULL: the count it holds.
template <typename T>
uint32_t dup_count(const T &rec, T *(*dup)(const T *), void (*cleanup)(T *), uint32_t T::*count) {
  T *copy = dup(&rec);
  const uint32_t n = copy->*count;
  cleanup(copy);
  return n;
}
const zel_data_value_t kNone{0, UINT32_MAX, nullptr};
const zel_row_data_t kRow{0, 0, ZEL_ROW_DATA_VALUE, UINT32_MAX, nullptr};
uint32_t config_id(uint32_t *id, const char *text) {
  zel_extract_config_id_from_config_result(id, text);
  return g_id;
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_data_error_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_data_complete_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_data_value_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_data_template_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_row_data_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_data_value_t_dup(nullptr), nullptr),
    ZEL_BAD_ROW(zel_data_template_t_dup(nullptr), nullptr),
    ZEL_BAD_ROW(zel_row_data_t_dup(nullptr), nullptr),
    ZEL_BAD_ROW(
        dup_count(kNone, zel_data_value_t_dup, zel_data_value_t_cleanup, &zel_data_value_t::len),
        UINT32_MAX),
    ZEL_BAD_ROW(dup_count(kRow, zel_row_data_t_dup, zel_row_data_t_cleanup, &zel_row_data_t::count),
                UINT32_MAX),
    ZEL_BAD_ROW(zel_convert_stream_to_ip_addr_str(g_buf, 5, nullptr), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ip_addr_str(nullptr, UINT32_MAX, &kNone), 2),  // measures
    ZEL_BAD_ROW(zel_convert_stream_to_ip_addr_str(g_buf, 7, &kShort), 2),
    ZEL_BAD_ROW(zel_convert_stream_to_oid_str(g_buf, 5, nullptr), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_oid_str(nullptr, UINT32_MAX, &kNone), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_oid_str(g_buf, 7, &kShort), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kV, 0), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kV, ZEL_CONVERT_OCTETS_MAX + 1), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(nullptr, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kNone, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_out, 3, &kV, UINT32_MAX), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_out, 3, nullptr, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_out, 3, &kNone, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(nullptr, 3, &kV, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_out, 0, &kV, 4), 1),  // buf_len + 1
    ZEL_BAD_ROW(config_id(&g_id, nullptr), 5),
    ZEL_BAD_ROW(config_id(nullptr, "/1/"), 5),
    ZEL_BAD_ROW(config_id(&g_id, kDigits.c_str()), INT32_MAX),  // saturates
};

TEST(BadInput, RecordsAndConversions) {
  zel_bad_input::run_rows(kRows);
}

}  // namespace
