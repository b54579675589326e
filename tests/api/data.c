/* The data record and conversion headers from C: a value copied and rendered through the
 * shared library. */
#include <zel/convert.h>
#include <zel/data.h>

#include <string.h>

int main(void) {
  uint8_t addr[4] = {10, 0, 0, 1};
  zel_data_value_t value = {0, 4, addr};
  zel_data_value_t *copy = zel_data_value_t_dup(&value);
  char buf[11];
  int ok = copy != NULL && zel_convert_stream_to_ip_addr_str(buf, 10, copy) == 10 &&
           strcmp(buf, "\"10.0.0.1\"") == 0;
  zel_data_value_t_cleanup(copy);
  return ok ? 0 : 1;
}
