// Bad input to the row data records and the value conversions: NULL records, values, data and
// buffers; short data; byte counts of 0 and past the limit; no room; a 1 MiB number.
#include <zel/convert.h>
#include <zel/data.h>

#include "support/bad_input.h"

namespace {

const std::string kDigits = "x" + std::string(1 << 20, '9');
uint8_t g_bytes[4] = {'a', 'b', 'c', 'd'};
const zel_data_value_t kV{0, 4, g_bytes}, kShort{0, 1, g_bytes}, kNone{0, UINT32_MAX, nullptr};
char g_buf[8];
uint32_t g_id = 5;

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_row_data_t_cleanup(nullptr), 0),
    ZEL_BAD_ROW(zel_row_data_t_dup(nullptr), nullptr),
    ZEL_BAD_ROW(zel_convert_stream_to_ip_addr_str(g_buf, 5, nullptr), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ip_addr_str(nullptr, UINT32_MAX, &kNone), 2),  // measures
    ZEL_BAD_ROW(zel_convert_stream_to_oid_str(nullptr, UINT32_MAX, &kNone), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_oid_str(g_buf, 7, &kShort), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kV, 0), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kV, ZEL_CONVERT_OCTETS_MAX + 1), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex_len(&kNone, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_buf, 3, &kV, UINT32_MAX), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_buf, 3, nullptr, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(nullptr, 3, &kV, 4), 0),
    ZEL_BAD_ROW(zel_convert_stream_to_ascii_or_hex(g_buf, 0, &kV, 4), 1),  // buf_len + 1
    ZEL_BAD_ROW((zel_extract_config_id_from_config_result(&g_id, nullptr), g_id), 5),
    ZEL_BAD_ROW((zel_extract_config_id_from_config_result(nullptr, "/1/"), g_id), 5),
    ZEL_BAD_ROW((zel_extract_config_id_from_config_result(&g_id, kDigits.c_str()), g_id),
                INT32_MAX),  // saturates
};

TEST(BadInput, RecordsAndConversions) {
  zel_bad_input::run_rows(kRows);
}

}  // namespace
