/* The data record and conversion headers from C: a row is copied and released, a value is
 * rendered by the calling order of each conversion, through the shared library. */
#include <stdlib.h>
#include <string.h>

#include <zel/convert.h>
#include <zel/data.h>

static int check_conversions(void) {
  uint8_t addr[4] = {10, 0, 0, 1};
  uint8_t text[3] = {'a', ',', 'b'};
  uint32_t arcs[3] = {1, 3, 6};
  zel_data_value_t value;
  char buf[32];
  int32_t len;
  uint32_t n;
  uint32_t id = 0;

  value.tag = 0;
  value.len = 4;
  value.data = addr;
  len = zel_convert_stream_to_ip_addr_str(NULL, 0, &value);
  if (len != 10 || zel_convert_stream_to_ip_addr_str(buf, (uint32_t)len, &value) != len ||
      strcmp(buf, "\"10.0.0.1\"") != 0) {
    return 1;
  }
  value.len = sizeof arcs;
  value.data = (uint8_t *)arcs;
  len = zel_convert_stream_to_oid_str(NULL, 0, &value);
  if (len != 5 || zel_convert_stream_to_oid_str(buf, (uint32_t)len, &value) != len ||
      strcmp(buf, "1.3.6") != 0) {
    return 1;
  }
  value.len = 3;
  value.data = text;
  memset(buf, 0, sizeof buf);
  n = zel_convert_stream_to_ascii_or_hex_len(&value, 3);
  if (n != 5 || zel_convert_stream_to_ascii_or_hex(buf, n, &value, 3) != 5 ||
      strcmp(buf, "\"a,b\"") != 0) {
    return 1;
  }
  zel_extract_config_id_from_config_result(&id, "/42/ok");
  return id == 42 ? 0 : 1;
}

static int check_records(void) {
  zel_row_data_t *row = calloc(1, sizeof *row);
  zel_data_value_t *value = calloc(1, sizeof *value);
  zel_row_data_t *copy;
  int rc;

  if (row == NULL || value == NULL) {
    free(row);
    free(value);
    return 1;
  }
  value->len = 2;
  value->data = malloc(2);
  row->kind = ZEL_ROW_DATA_VALUE;
  row->count = 1;
  row->items = calloc(1, sizeof(void *));
  if (value->data == NULL || row->items == NULL) {
    zel_data_value_t_cleanup(value);
    zel_row_data_t_cleanup(row);
    return 1;
  }
  memcpy(value->data, "hi", 2);
  row->items[0] = value;
  copy = zel_row_data_t_dup(row);
  rc = copy != NULL && copy->items[0] != row->items[0] &&
               memcmp(((zel_data_value_t *)copy->items[0])->data, "hi", 2) == 0
           ? 0
           : 1;
  zel_row_data_t_cleanup(copy);
  zel_row_data_t_cleanup(row);
  return rc;
}

int main(void) {
  return check_conversions() != 0 || check_records() != 0 ? 1 : 0;
}
